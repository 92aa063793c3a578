// What the simulated instruments see, through the exported functions: lines
// on the pixels the calibration puts them, counts linear in integration
// time, dark signal, noise falling with averaging, clipping, and the time a
// spectrum takes on each bridge.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "sim_fixture.h"

namespace kavrel::test {
namespace {

using Light = SimTest;

double mean(const std::vector<uint16_t> &s) {
    return std::accumulate(s.begin(), s.end(), 0.0) / static_cast<double>(s.size());
}

// A spectrum of the selected instrument, of 2048 points, with every
// instrument's shutter open or closed.
std::vector<uint16_t> seen(uint32_t integration_us, bool shutter_closed, double line_level = 4000) {
    kavrel_sim_scene scene;
    kavrel_sim_default_scene(&scene);
    scene.shutter_closed = shutter_closed;
    scene.line_level = line_level;
    EXPECT_EQ(kavrel_sim_set_scene(nullptr, &scene), OK);
    EXPECT_EQ(kavrel_direct_set_integration_time(integration_us), OK);
    return spectrum(2048);
}

// A line peaks at the point whose wavelength, as the instrument's table
// gives it, is nearest the line's: where the line falls between two
// points, at one of them.
TEST_F(Light, LinesPeakOnThePixelsTheCalibrationPutsThem) {
    const struct {
        uint32_t instrument;
        double coefficients[4];
        std::vector<double> lines_nm;  // of mercury and argon
    } calibrations[] = {
        {CM2, {189.7, 0.49, -2.5e-5, 1.5e-9}, {253.652, 546.074, 763.511}},
        {CM2, {230.0, 0.41, 1.0e-5, 0}, {435.833, 912.297}},
        {NIR, {899.2, 3.41, -1.2e-3, 5e-7}, {1013.976, 1529.582}},
        {NIR, {950.0, 2.5, 0, 0}, {1148.811}},
    };
    for (const auto &calibration : calibrations) {
        kavrel_sim_config c =
            sim_config(calibration.instrument, std::to_string(&calibration - calibrations).c_str());
        std::copy(std::begin(calibration.coefficients), std::end(calibration.coefficients), c.coefficients);
        ASSERT_EQ(kavrel_sim_attach(&c), OK);
        ASSERT_EQ(kavrel_direct_open_device_by_chip_serial(c.chip_serial), OK);
        ASSERT_EQ(kavrel_direct_set_average_number(16), OK);
        std::vector<double> w(c.point_count);
        ASSERT_EQ(kavrel_direct_get_full_wavelength_data(w.data(), static_cast<int32_t>(w.size())), OK);
        const std::vector<uint16_t> s = spectrum(c.point_count);
        for (const double line : calibration.lines_nm) {
            const auto i = static_cast<size_t>(std::lower_bound(w.begin(), w.end(), line) - w.begin());
            ASSERT_TRUE(i > 0 && i < w.size());
            const double at = double(i - 1) + (line - w[i - 1]) / (w[i] - w[i - 1]);
            const size_t from = i > 6 ? i - 6 : 0, to = std::min(s.size(), i + 6);
            const auto peak =
                static_cast<double>(std::max_element(s.begin() + from, s.begin() + to) - s.begin());
            EXPECT_LT(std::fabs(peak - at), 1.0) << "line " << line << " nm at point " << at;
        }
    }
}

// Counts above the dark are proportional to the integration time and clip
// at full scale; behind the shutter only the dark signal is left, which
// grows with integration time and temperature.
TEST_F(Light, CountsOverTheDarkLinearInIntegrationTimeUpToFullScale) {
    kavrel_sim_config warm = sim_config(CM2, "WARM"), hot = sim_config(CM2, "HOT");
    hot.temperature_c = warm.temperature_c + 20;
    for (const kavrel_sim_config *c : {&warm, &hot}) {
        ASSERT_EQ(kavrel_sim_attach(c), OK);
        ASSERT_EQ(kavrel_direct_open_device_by_chip_serial(c->chip_serial), OK);
        ASSERT_EQ(kavrel_direct_set_average_number(16), OK);
    }
    auto net = [](uint32_t us) { return mean(seen(us, false)) - mean(seen(us, true)); };
    auto dark_current = [](int slot) {
        EXPECT_EQ(kavrel_direct_select_device(slot), OK);
        return mean(seen(1000000, true)) - mean(seen(10000, true));
    };
    const double at_warm = dark_current(0);
    EXPECT_NEAR(net(20000) / net(5000), 4.0, 0.02);
    const std::vector<uint16_t> bright = seen(10000, false, 1e6), dark = seen(10000, true, 1e6);
    EXPECT_EQ(*std::max_element(bright.begin(), bright.end()), 65535);
    const auto [lo, hi] = std::minmax_element(dark.begin(), dark.end());
    EXPECT_LT(*hi - *lo, 100);
    EXPECT_GT(at_warm, 50);
    EXPECT_GT(dark_current(1), 4 * at_warm);
}

TEST_F(Light, AveragingDividesTheNoiseByTheRootOfTheScans) {
    attach_and_open(CM2, "SIM-L");
    // The noise of one spectrum, from the difference of two taken alike.
    auto noise = [] {
        const std::vector<uint16_t> a = spectrum(2048), b = spectrum(2048);
        double sum = 0;
        for (size_t i = 0; i < a.size(); ++i) sum += std::pow(double(a[i]) - double(b[i]), 2);
        return std::sqrt(sum / static_cast<double>(a.size()) / 2);
    };
    const double single = noise();
    ASSERT_EQ(kavrel_direct_set_average_number(16), OK);
    EXPECT_NEAR(single / noise(), 4.0, 0.3);
}

// A spectrum answers after the integration and readout, then its 4128 bytes
// flow at the bridge's rate: 3 Mbaud is some 12 ms slower than high speed.
// A short request answers within about a millisecond.
TEST_F(Light, SpectraFlowAtTheBridgesRate) {
    kavrel_sim_config full = sim_config(CM2, "FULL"), high = sim_config(CM2, "HIGH");
    high.bridge_speed = KAVREL_SIM_HIGH_SPEED;
    ASSERT_EQ(kavrel_sim_attach(&full), OK);
    ASSERT_EQ(kavrel_sim_attach(&high), OK);
    auto elapsed = [](const char *serial, bool whole) {
        EXPECT_EQ(kavrel_direct_open_device_by_chip_serial(serial), OK);
        uint32_t time = 0;
        const double start = kavrel_sim_now_ms();
        if (whole)
            spectrum(2048);
        else
            EXPECT_EQ(kavrel_direct_get_integration_time(&time), OK);
        return kavrel_sim_now_ms() - start;
    };
    const double on_full = elapsed("FULL", true), on_high = elapsed("HIGH", true);
    EXPECT_GT(on_high, 10.0) << "the default 10 ms integration";
    EXPECT_NEAR(on_full - on_high, 4128 * (10 / 3000.0 - 1 / 2600.0), 1.5);
    EXPECT_LT(elapsed("FULL", false), 2.0);
    EXPECT_LT(elapsed("HIGH", false), 1.5);
}

}  // namespace
}  // namespace kavrel::test
