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

// The noise of one spectrum, from the difference of two taken alike.
double noise(size_t points) {
    const std::vector<uint16_t> a = spectrum(points), b = spectrum(points);
    double sum = 0;
    for (size_t i = 0; i < points; ++i) sum += std::pow(double(a[i]) - double(b[i]), 2);
    return std::sqrt(sum / static_cast<double>(points) / 2);
}

void set_scene(const char *serial, bool shutter_closed, double line_level = 4000) {
    kavrel_sim_scene scene;
    kavrel_sim_default_scene(&scene);
    scene.shutter_closed = shutter_closed;
    scene.line_level = line_level;
    ASSERT_EQ(kavrel_sim_set_scene(serial, &scene), KAVREL_DIRECT_OK);
}

struct LineCase {
    uint32_t instrument;
    double coefficients[4];
    double line_nm;
};

void PrintTo(const LineCase &l, std::ostream *os) {
    *os << l.line_nm << " nm on " << protocol_name(l.instrument);
}

class Lines : public SimTest, public ::testing::WithParamInterface<LineCase> {};

// A line peaks at the point whose wavelength, as the instrument's table
// gives it, is nearest the line's: where the point falls between two
// neighbours, at one of them.
TEST_P(Lines, PeakOnThePixelsTheCalibrationPutsThem) {
    const LineCase &l = GetParam();
    kavrel_sim_config c = sim_config(l.instrument, "SIM-L");
    std::copy(std::begin(l.coefficients), std::end(l.coefficients), c.coefficients);
    ASSERT_EQ(kavrel_sim_attach(&c), KAVREL_DIRECT_OK);
    ASSERT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    ASSERT_EQ(kavrel_direct_set_average_number(16), KAVREL_DIRECT_OK);
    const std::vector<double> w = wavelengths(c.point_count);
    const std::vector<uint16_t> s = spectrum(c.point_count);

    const auto after = std::lower_bound(w.begin(), w.end(), l.line_nm);
    ASSERT_TRUE(after != w.begin() && after != w.end());
    const auto i = static_cast<size_t>(after - w.begin());
    const double at = double(i - 1) + (l.line_nm - w[i - 1]) / (w[i] - w[i - 1]);
    const size_t from = i > 6 ? i - 6 : 0, to = std::min(s.size(), i + 6);
    const auto peak = static_cast<double>(std::max_element(s.begin() + from, s.begin() + to) - s.begin());
    EXPECT_LT(std::fabs(peak - at), 1.0) << "line " << l.line_nm << " nm at point " << at;
}

INSTANTIATE_TEST_SUITE_P(MercuryAndArgon, Lines,
                         ::testing::Values(LineCase{KAVREL_SIM_CM2, {189.7, 0.49, -2.5e-5, 1.5e-9}, 253.652},
                                           LineCase{KAVREL_SIM_CM2, {189.7, 0.49, -2.5e-5, 1.5e-9}, 546.074},
                                           LineCase{KAVREL_SIM_CM2, {189.7, 0.49, -2.5e-5, 1.5e-9}, 763.511},
                                           // Another calibration moves the lines to other points.
                                           LineCase{KAVREL_SIM_CM2, {230.0, 0.41, 1.0e-5, 0}, 435.833},
                                           LineCase{KAVREL_SIM_CM2, {230.0, 0.41, 1.0e-5, 0}, 912.297},
                                           LineCase{KAVREL_SIM_NIR, {899.2, 3.41, -1.2e-3, 5e-7}, 1013.976},
                                           LineCase{KAVREL_SIM_NIR, {899.2, 3.41, -1.2e-3, 5e-7}, 1529.582},
                                           LineCase{KAVREL_SIM_NIR, {950.0, 2.5, 0, 0}, 1148.811}));

TEST_F(Light, CountsAboveTheDarkAreLinearInIntegrationTime) {
    const kavrel_sim_config c = attach_and_open(KAVREL_SIM_CM2, "SIM-L");
    ASSERT_EQ(kavrel_direct_set_average_number(16), KAVREL_DIRECT_OK);
    auto net = [&](uint32_t us) {
        EXPECT_EQ(kavrel_direct_set_integration_time(us), KAVREL_DIRECT_OK);
        set_scene("SIM-L", true);
        const double dark = mean(spectrum(c.point_count));
        set_scene("SIM-L", false);
        return mean(spectrum(c.point_count)) - dark;
    };
    EXPECT_NEAR(net(20000) / net(5000), 4.0, 0.02);
}

TEST_F(Light, DarkSignalGrowsWithIntegrationTimeAndTemperature) {
    kavrel_sim_config warm = sim_config(KAVREL_SIM_CM2, "WARM"), hot = sim_config(KAVREL_SIM_CM2, "HOT");
    hot.temperature_c = warm.temperature_c + 20;
    ASSERT_EQ(kavrel_sim_attach(&warm), KAVREL_DIRECT_OK);
    ASSERT_EQ(kavrel_sim_attach(&hot), KAVREL_DIRECT_OK);
    set_scene(nullptr, true);
    auto dark_current = [&](const char *serial) {
        EXPECT_EQ(kavrel_direct_open_device_by_chip_serial(serial), KAVREL_DIRECT_OK);
        EXPECT_EQ(kavrel_direct_set_integration_time(10000), KAVREL_DIRECT_OK);
        const double short_dark = mean(spectrum(warm.point_count));
        EXPECT_EQ(kavrel_direct_set_integration_time(1000000), KAVREL_DIRECT_OK);
        return mean(spectrum(warm.point_count)) - short_dark;
    };
    const double at_warm = dark_current("WARM");
    EXPECT_GT(at_warm, 50);
    EXPECT_GT(dark_current("HOT"), 4 * at_warm);
}

TEST_F(Light, AveragingDividesTheNoiseByTheRootOfTheScans) {
    const kavrel_sim_config c = attach_and_open(KAVREL_SIM_CM2, "SIM-L");
    const double single = noise(c.point_count);
    ASSERT_EQ(kavrel_direct_set_average_number(16), KAVREL_DIRECT_OK);
    EXPECT_NEAR(single / noise(c.point_count), 4.0, 0.3);
}

TEST_F(Light, CountsClipAtFullScaleAndTheShutterLeavesOnlyDark) {
    const kavrel_sim_config c = attach_and_open(KAVREL_SIM_CM2, "SIM-L");
    set_scene("SIM-L", false, 1e6);
    const std::vector<uint16_t> bright = spectrum(c.point_count);
    EXPECT_EQ(*std::max_element(bright.begin(), bright.end()), 65535);
    set_scene("SIM-L", true, 1e6);
    const std::vector<uint16_t> dark = spectrum(c.point_count);
    const auto [lo, hi] = std::minmax_element(dark.begin(), dark.end());
    EXPECT_LT(*hi - *lo, 100);
}

// A spectrum answers after the integration and readout, then its 4128 bytes
// flow at the bridge's rate: 3 Mbaud is some 12 ms slower than high speed.
// A short request answers within about a millisecond.
TEST_F(Light, SpectraFlowAtTheBridgesRate) {
    kavrel_sim_config full = sim_config(KAVREL_SIM_CM2, "FULL"), high = sim_config(KAVREL_SIM_CM2, "HIGH");
    high.bridge_speed = KAVREL_SIM_HIGH_SPEED;
    ASSERT_EQ(kavrel_sim_attach(&full), KAVREL_DIRECT_OK);
    ASSERT_EQ(kavrel_sim_attach(&high), KAVREL_DIRECT_OK);
    auto elapsed = [](const char *serial, bool whole) {
        EXPECT_EQ(kavrel_direct_open_device_by_chip_serial(serial), KAVREL_DIRECT_OK);
        std::vector<uint16_t> s(2048);
        uint32_t time = 0;
        const double start = kavrel_sim_now_ms();
        EXPECT_EQ(whole ? kavrel_direct_get_full_spectrum_data(s.data(), 2048)
                        : kavrel_direct_get_integration_time(&time),
                  KAVREL_DIRECT_OK);
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
