// End to end, on the virtual clock: the exported functions against simulated
// instruments. Finding, opening and unplugging them; the faults they and their
// bridges commit; what comes from an instrument's model; what the detectors
// see; the soak. Then the models and the bridge line on their own, fed as a
// byte stream. (The bytes of every operation are the unit tests'; the settings
// read back through the simulator, the Python tests'.)
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "kavrel_direct.h"
#include "kavrel_sim.h"
#include "protocol/cm2_codec.h"
#include "sim/cm2_instrument.h"
#include "sim/nir_instrument.h"
#include "sim/usb_line.h"
#include "sim/world.h"
#include "support/every_operation.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"
#include "transport/timing.h"

namespace kavrel::test {
namespace {

constexpr uint32_t CM2 = KAVREL_SIM_CM2, NIR = KAVREL_SIM_NIR;
constexpr int32_t OK = KAVREL_DIRECT_OK;

// The default configuration of a kind, on a bridge with that chip serial.
kavrel_sim_config sim_config(uint32_t kind, const std::string &chip_serial) {
    kavrel_sim_config c;
    kavrel_sim_default_config(kind, &c);
    std::snprintf(c.chip_serial, sizeof c.chip_serial, "%s", chip_serial.c_str());
    return c;
}

std::vector<uint16_t> spectrum(size_t points) {
    std::vector<uint16_t> s(points);
    EXPECT_EQ(kavrel_direct_get_full_spectrum_data(s.data(), static_cast<int32_t>(points)), OK);
    return s;
}

double mean(const std::vector<uint16_t> &s) {
    return std::accumulate(s.begin(), s.end(), 0.0) / static_cast<double>(s.size());
}

// The chip serial listed at that index, or the result code.
std::string listed(int32_t index) {
    char serial[16];
    const int32_t rc = kavrel_direct_get_chip_serial_by_index(index, serial, sizeof serial);
    return rc == OK ? serial : std::to_string(rc);
}

class Sim : public ::testing::Test {
protected:
    void SetUp() override {
        use_provider(&sim::world_provider());
        kavrel_sim_reset();
        kavrel_sim_set_virtual_time(1);
    }
    void TearDown() override {
        kavrel_direct_close_all_devices();
        kavrel_sim_reset();
        use_provider(nullptr);
    }

    // Attaches a bridge with that configuration and opens it, letting the
    // library probe its protocol.
    static kavrel_sim_config attach_and_open(const kavrel_sim_config &c) {
        EXPECT_EQ(kavrel_sim_attach(&c), OK);
        EXPECT_EQ(kavrel_direct_open_device_by_chip_serial(c.chip_serial), OK);
        return c;
    }
};

// Unlike the unit tests, this program has no stand-in driver on its search path:
// the hardware chain says why it passed the D2XX driver over (or that it took it).
TEST(HardwareChain, ReportsTheD2xxDriverFirst) {
    const std::string report = platform::hardware_provider_report();
    EXPECT_EQ(report.rfind("D2XX driver: ", 0), 0u) << report;
}

TEST_F(Sim, TheDefaultPairIsListedUntilABridgeIsAttached) {
    ASSERT_EQ(kavrel_direct_scan_devices(), 2u);
    EXPECT_EQ(listed(1), "KSIM0002");
    ASSERT_EQ(kavrel_direct_open_device_by_chip_serial("KSIM0001"), OK);
    const kavrel_sim_config mine = sim_config(NIR, "MINE");
    ASSERT_EQ(kavrel_sim_attach(&mine), OK);
    EXPECT_EQ(kavrel_direct_scan_devices(), 1u);
    // The default instrument left with the pair: its handle fails.
    uint32_t time = 0;
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_ERR_IO);

    kavrel_sim_reset();
    EXPECT_EQ(kavrel_direct_scan_devices(), 2u);
    // and real time again: the clock moves by itself.
    const double t = kavrel_sim_now_ms();
    bool moves = false;
    for (int i = 0; i < 10000000 && !moves; ++i) moves = kavrel_sim_now_ms() != t;
    EXPECT_TRUE(moves);
}

TEST_F(Sim, FourOpenAtOnceEachAnsweringForItselfUntilUnplugged) {
    for (int i = 0; i < 5; ++i) {
        kavrel_sim_config c = sim_config(i % 2 ? NIR : CM2, "SIM-" + std::to_string(i));
        c.point_count = 100 + i;
        ASSERT_EQ(kavrel_sim_attach(&c), OK);
    }
    for (int i = 0; i < 4; ++i) ASSERT_EQ(kavrel_direct_open_device(i), OK);
    EXPECT_EQ(kavrel_direct_open_device(4), KAVREL_DIRECT_ERR_OPEN_FAILED);
    uint16_t n = 0;
    for (int i : {2, 0, 3, 1}) {
        ASSERT_EQ(kavrel_direct_select_device(i), OK);
        EXPECT_EQ(kavrel_direct_get_wavelength_count(&n), OK);
        EXPECT_EQ(n, 100 + i);
    }
    // An unplugged bridge leaves the list at once; the handle on it fails.
    ASSERT_EQ(kavrel_sim_detach("SIM-1"), OK);
    EXPECT_EQ(kavrel_sim_detach("SIM-1"), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_direct_scan_devices(), 4u);
    EXPECT_EQ(listed(1), "SIM-2");
    EXPECT_EQ(kavrel_direct_get_wavelength_count(&n), KAVREL_DIRECT_ERR_IO);
    kavrel_direct_close_device();
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("SIM-1"), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 3);
    ASSERT_EQ(kavrel_direct_select_device(2), OK);
    EXPECT_EQ(kavrel_direct_get_wavelength_count(&n), OK);
}

// Real time: the spectrum takes a wall-clock half second, during which
// another thread injects a fault into a second instrument and then unplugs
// the first. The waiting call ends at the unplugging, whatever the clock.
TEST_F(Sim, UnpluggingEndsAnAcquisitionInAnotherThread) {
    attach_and_open(sim_config(NIR, "SIM-W"));
    const kavrel_sim_config c = attach_and_open(sim_config(CM2, "SIM-T"));
    ASSERT_EQ(kavrel_direct_set_integration_time(500000), OK);
    kavrel_sim_set_virtual_time(0);
    int32_t result = 0;
    std::thread acquisition([&] {
        std::vector<uint16_t> s(c.point_count);
        result = kavrel_direct_get_full_spectrum_data(s.data(), static_cast<int32_t>(s.size()));
    });
    const kavrel_sim_fault fault{KAVREL_SIM_FAULT_BAD_CRC, 1, 0, 0};
    EXPECT_EQ(kavrel_sim_inject_fault("SIM-W", &fault), OK);
    kavrel_sim_sleep_ms(50);
    EXPECT_EQ(kavrel_sim_detach("SIM-T"), OK);
    acquisition.join();
    EXPECT_EQ(result, KAVREL_DIRECT_ERR_IO);
}

TEST_F(Sim, AttachRefusesAConfigurationTheProtocolCannotCarry) {
    const std::pair<const char *, void (*)(kavrel_sim_config &)> spoilers[] = {
        {"no chip serial", [](auto &c) { c.chip_serial[0] = '\0'; }},
        {"text not terminated", [](auto &c) { std::memset(c.model, 'M', sizeof c.model); }},
        {"unknown kind", [](auto &c) { c.instrument = 3; }},
        {"unknown speed", [](auto &c) { c.bridge_speed = 2; }},
        {"reserved", [](auto &c) { c.reserved = 1; }},
        {"no points", [](auto &c) { c.point_count = 0; }},
        {"too many points", [](auto &c) { c.point_count = 4097; }},
        {"model too long for CM2", [](auto &c) { std::strcpy(c.model, "SEVENTEEN-LETTERS"); }},
        {"serial too long for CM2", [](auto &c) { std::strcpy(c.serial_number, "THIRTEEN-LONG"); }},
        {"version not hex bytes", [](auto &c) { std::strcpy(c.hardware_version, "1.2.300"); }},
        {"coefficient not finite", [](auto &c) { c.coefficients[2] = std::nan(""); }},
        {"too cold", [](auto &c) { c.temperature_c = -200; }},
        {"NIR model out of form", [](auto &c) { c = sim_config(NIR, "X"), std::strcpy(c.model, "NIR-X"); }},
        {"NIR too many points", [](auto &c) { c = sim_config(NIR, "X"), c.point_count = 1025; }},
    };
    for (const auto &[name, spoil] : spoilers) {
        kavrel_sim_config c = sim_config(CM2, "X");
        spoil(c);
        EXPECT_EQ(kavrel_sim_attach(&c), KAVREL_DIRECT_ERR_INVALID_ARG) << name;
    }
    // A taken chip serial, and a 65th bridge.
    for (int i = 0; i < 64; ++i) {
        const kavrel_sim_config c = sim_config(KAVREL_SIM_SILENT, "B" + std::to_string(i));
        ASSERT_EQ(kavrel_sim_attach(&c), OK);
    }
    const kavrel_sim_config taken = sim_config(CM2, "B7"), more = sim_config(CM2, "B64");
    EXPECT_EQ(kavrel_sim_attach(&taken), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_sim_attach(&more), KAVREL_DIRECT_ERR_OPEN_FAILED);
    EXPECT_EQ(listed(63), "B63");
    EXPECT_EQ(listed(64), std::to_string(KAVREL_DIRECT_ERR_NO_DEVICE));
}

enum class Request { setting, flash, external };
constexpr uint32_t kSetting = 123456;

// The request a fault is tried on: its result code (a byte count is success).
int32_t make(Request request) {
    uint32_t time = 0;
    uint8_t page[16];
    std::vector<uint16_t> s(2048);
    if (request == Request::flash) return std::min(kavrel_direct_flash_read(3, page, sizeof page), OK);
    if (request == Request::external)
        return std::min(kavrel_direct_external_spectrum_control(1, s.data(), 2048), OK);
    const int32_t rc = kavrel_direct_get_integration_time(&time);
    EXPECT_EQ(rc == OK ? time : kSetting, kSetting);
    return rc;
}

struct FaultCase {
    const char *name;
    uint32_t instrument, fault, parameter;
    int32_t expected;
    Request request = Request::setting;
};

constexpr int32_t kTimeout = KAVREL_DIRECT_ERR_TIMEOUT, kCrc = KAVREL_DIRECT_ERR_CRC,
                  kIo = KAVREL_DIRECT_ERR_IO;

const FaultCase kFaultCases[] = {
    {"NoAnswer", CM2, KAVREL_SIM_FAULT_NO_ANSWER, 0, kTimeout},
    {"DelayWithinTheLimit", CM2, KAVREL_SIM_FAULT_DELAY, 150, OK},
    {"DelayPastTheLimit", CM2, KAVREL_SIM_FAULT_DELAY, 400, kTimeout},
    {"Truncated", CM2, KAVREL_SIM_FAULT_TRUNCATE, 30, kTimeout},
    {"BadCrc", CM2, KAVREL_SIM_FAULT_BAD_CRC, 0, kCrc},
    {"BadPreamble", CM2, KAVREL_SIM_FAULT_BAD_PREAMBLE, 0, KAVREL_DIRECT_ERR_PARSE},
    // The library's reading of each reply code is the unit tests'.
    {"ReplyWriteProtect", CM2, KAVREL_SIM_FAULT_REPLY_CODE, 0xE3, KAVREL_DIRECT_ERR_WRITE_PROTECT},
    {"TrickleWithinTheLimit", CM2, KAVREL_SIM_FAULT_TRICKLE, 5, OK},
    {"TrickleStalls", CM2, KAVREL_SIM_FAULT_TRICKLE, 250, kTimeout},
    // The flash page and the external spectrum share the command block's
    // handshake: one of its faults on each.
    {"FlashHandshakeFails", CM2, KAVREL_SIM_FAULT_HANDSHAKE_FAILED, 0, kIo, Request::flash},
    {"ExternalHandshakeStuck", CM2, KAVREL_SIM_FAULT_HANDSHAKE_STUCK, 0, kTimeout, Request::external},
    {"ReadFailure", CM2, KAVREL_SIM_FAULT_READ_FAILURE, 0, kIo},
    {"WriteFailure", CM2, KAVREL_SIM_FAULT_WRITE_FAILURE, 0, kIo},
    {"NirRefusalMeansNothingToCm2", CM2, KAVREL_SIM_FAULT_NIR_REFUSE, 0, OK},

    {"NoAnswer", NIR, KAVREL_SIM_FAULT_NO_ANSWER, 0, kTimeout},
    {"DelayWithinTheQuietTime", NIR, KAVREL_SIM_FAULT_DELAY, 400, OK},
    {"DelayPastTheQuietTime", NIR, KAVREL_SIM_FAULT_DELAY, 700, kTimeout},
    {"TruncatedBelowAFrame", NIR, KAVREL_SIM_FAULT_TRUNCATE, 2, kIo},
    {"TruncatedFrame", NIR, KAVREL_SIM_FAULT_TRUNCATE, 5, kCrc},
    {"BadCrc", NIR, KAVREL_SIM_FAULT_BAD_CRC, 0, kCrc},
    {"Refusal", NIR, KAVREL_SIM_FAULT_NIR_REFUSE, 0, kIo},
    {"TrickleWithinTheQuietTime", NIR, KAVREL_SIM_FAULT_TRICKLE, 100, OK},
    {"TrickleCutByTheQuietTime", NIR, KAVREL_SIM_FAULT_TRICKLE, 600, kIo},
    {"ReadFailure", NIR, KAVREL_SIM_FAULT_READ_FAILURE, 0, kIo},
    {"WriteFailure", NIR, KAVREL_SIM_FAULT_WRITE_FAILURE, 0, kIo},
    {"ReplyCodeMeansNothingToNir", NIR, KAVREL_SIM_FAULT_REPLY_CODE, 0xE2, OK},
};

class Faults : public Sim, public ::testing::WithParamInterface<FaultCase> {
protected:
    void open(uint32_t kind) {
        attach_and_open(sim_config(kind, "SIM-F"));
        ASSERT_EQ(kavrel_direct_set_integration_time(kSetting), OK);
    }
    static void inject(uint32_t kind, uint32_t count, uint32_t parameter = 0) {
        const kavrel_sim_fault fault{kind, count, parameter, 0};
        ASSERT_EQ(kavrel_sim_inject_fault("SIM-F", &fault), OK);
    }
};

TEST_P(Faults, GiveTheirResultThenTheNextRequestIsAnswered) {
    const FaultCase &c = GetParam();
    open(c.instrument);
    inject(c.fault, 1, c.parameter);
    EXPECT_EQ(make(c.request), c.expected);
    // Whatever is still on its way (a late or trickling reply) has arrived
    // by then and is dropped by the next request.
    kavrel_sim_sleep_ms(10000);
    EXPECT_EQ(make(c.request), OK);
}

INSTANTIATE_TEST_SUITE_P(EachKind, Faults, ::testing::ValuesIn(kFaultCases), [](const auto &info) {
    return std::string(info.param.name) + (info.param.instrument == NIR ? "_NIR" : "_CM2");
});

TEST_F(Faults, LastTheirCountOrUntilClearedAndNeedAKnownKindAndBridge) {
    open(CM2);
    inject(KAVREL_SIM_FAULT_BAD_CRC, 2);
    for (const int32_t expected : {kCrc, kCrc, OK}) EXPECT_EQ(make(Request::setting), expected);
    inject(KAVREL_SIM_FAULT_NO_ANSWER, 0);  // for ever
    for (int i = 0; i < 3; ++i) EXPECT_EQ(make(Request::setting), kTimeout);
    ASSERT_EQ(kavrel_sim_clear_faults("SIM-F"), OK);
    EXPECT_EQ(make(Request::setting), OK);

    const kavrel_sim_fault unknown{99, 1, 0, 0}, known{KAVREL_SIM_FAULT_BAD_CRC, 1, 0, 0};
    EXPECT_EQ(kavrel_sim_inject_fault("SIM-F", &unknown), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_sim_inject_fault("NOT-THERE", &known), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_sim_inject_fault(nullptr, &known), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_sim_clear_faults("NOT-THERE"), KAVREL_DIRECT_ERR_NO_DEVICE);
}

// The operations answered from the model, on an instrument of each protocol.
class Model : public Sim, public ::testing::WithParamInterface<uint32_t> {
protected:
    void SetUp() override {
        Sim::SetUp();
        c = attach_and_open(sim_config(GetParam(), "SIM-A"));
    }
    bool nir() const { return c.instrument == NIR; }
    kavrel_sim_config c;
};

INSTANTIATE_TEST_SUITE_P(BothProtocols, Model, ::testing::Values(CM2, NIR),
                         [](const auto &info) { return info.param == NIR ? "NIR" : "CM2"; });

TEST_P(Model, ResetReloadsStoredSettings) {
    uint32_t time = 0, open = 2, before = 2;
    uint8_t averages = 0;
    ASSERT_EQ(kavrel_direct_set_stored_average_number(5), nir() ? KAVREL_DIRECT_ERR_UNSUPPORTED : OK);
    ASSERT_EQ(kavrel_direct_set_integration_time(20000), OK);
    ASSERT_EQ(kavrel_direct_set_average_number(9), OK);
    ASSERT_EQ(kavrel_direct_get_flash_write_protect(&before), OK);
    ASSERT_EQ(kavrel_direct_set_flash_write_protect(), OK);
    ASSERT_EQ(kavrel_direct_get_flash_write_protect(&open), OK);
    EXPECT_EQ(before * 10 + open, 1u);  // closed at power-up, then open
    ASSERT_EQ(kavrel_direct_reset_device(), OK);
    ASSERT_EQ(kavrel_direct_get_integration_time(&time), OK);
    ASSERT_EQ(kavrel_direct_get_average_number(&averages), OK);
    ASSERT_EQ(kavrel_direct_get_flash_write_protect(&open), OK);
    EXPECT_EQ(std::make_tuple(time, averages, open), std::make_tuple(10000u, uint8_t(nir() ? 1 : 5), 0u));
}

// The identity and calibration configured; the table is the calibration
// polynomial; its middle third, selected by its end wavelengths, gives its
// part of the spectrum.
TEST_P(Model, GivesTheConfiguredIdentityAndTheTableOfItsPolynomial) {
    kavrel_direct_device_info info;
    float t = 0;
    ASSERT_EQ(kavrel_direct_get_device_info(&info), OK);
    ASSERT_EQ(kavrel_direct_get_temperature(&t), OK);
    EXPECT_EQ(std::string(info.model) + "|" + info.serial_number + "|" + info.hardware_version,
              std::string(c.model) + "|" + (nir() ? "NIR" : c.serial_number) + "|" + c.hardware_version);
    EXPECT_EQ(t, c.temperature_c);
    uint16_t count = 0;
    double k[4] = {};
    ASSERT_EQ(kavrel_direct_get_calibration_coefficients(k), OK);
    EXPECT_EQ(std::vector<double>(k, k + 4), std::vector<double>(c.coefficients, c.coefficients + 4));
    ASSERT_EQ(kavrel_direct_get_wavelength_count(&count), OK);
    EXPECT_EQ(count, c.point_count);
    std::vector<double> w(count);
    ASSERT_EQ(kavrel_direct_get_full_wavelength_data(w.data(), count), OK);
    for (uint32_t i = 0; i < count; ++i)
        EXPECT_NEAR(w[i], k[0] + k[1] * i + k[2] * i * i + k[3] * i * i * i, 2e-4) << "point " << i;

    const uint32_t from = count / 3, to = 2 * count / 3;
    kavrel_direct_wavelength_selection s;
    ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(w[from] - 1e-3, w[to] + 1e-3), OK);
    ASSERT_EQ(kavrel_direct_get_selected_wavelength_range(&s), OK);
    EXPECT_EQ(s.start_index * 10000 + s.end_index, from * 10000 + to);
    std::vector<uint16_t> part(s.selected_count);
    ASSERT_EQ(kavrel_direct_set_average_number(16), OK);  // quiet enough to compare two spectra
    ASSERT_EQ(kavrel_direct_get_selected_spectrum_data(part.data(), s.selected_count), OK);
    const std::vector<uint16_t> whole = spectrum(count);
    const double a = std::accumulate(part.begin(), part.end(), 0.0);
    EXPECT_NEAR(a / std::accumulate(whole.begin() + from, whole.begin() + to + 1, 0.0), 1.0, 0.01);
}

// Two pages written, the first read back: from flash, not from the page
// buffer the second write left behind.
TEST_P(Model, FlashPagesRoundTrip) {
    // CM2 reads whole words: the room for 101 bytes is 104.
    std::vector<uint8_t> page(101), other(101, 0x3C), back(104);
    for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i * 7);
    ASSERT_EQ(kavrel_direct_set_flash_write_protect(), OK);  // NIR page writes need it; CM2 opens it itself
    ASSERT_EQ(kavrel_direct_flash_write(7, page.data(), 101), OK);
    ASSERT_EQ(kavrel_direct_flash_write(8, other.data(), 101), OK);
    EXPECT_GE(kavrel_direct_flash_read(7, back.data(), 101), 101);
    EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + 101), page);
}

// CM2 alone: the trigger starts one acquisition, of 300 ms here; the
// spectrum read afterwards is the one it took, not another; every spectrum
// taken is counted. The DAC keeps 12 bits.
TEST_F(Sim, Cm2ExternalSpectrumIsTheTriggeredOne) {
    const kavrel_sim_config c = attach_and_open(sim_config(CM2, "SIM-A"));
    std::vector<uint16_t> s(c.point_count);
    uint64_t before = 0, after = 0;
    uint16_t dac = 0;
    ASSERT_EQ(kavrel_direct_set_integration_time(300000), OK);
    ASSERT_EQ(kavrel_direct_get_spectrum_capture_status(&before), OK);
    const double start = kavrel_sim_now_ms();
    EXPECT_EQ(kavrel_direct_external_spectrum_control(1, s.data(), 2048), 2 * 2048);
    const double took = kavrel_sim_now_ms() - start;
    ASSERT_EQ(kavrel_direct_get_spectrum_capture_status(&after), OK);
    EXPECT_EQ(after, before + 1);
    EXPECT_TRUE(took > 300 && took < 400) << took;
    EXPECT_GT(*std::min_element(s.begin(), s.end()), 0);
    spectrum(c.point_count);
    ASSERT_EQ(kavrel_direct_get_spectrum_capture_status(&before), OK);
    EXPECT_EQ(before, after + 1);
    ASSERT_EQ(kavrel_direct_set_dac_voltage(0x1234), OK);
    ASSERT_EQ(kavrel_direct_get_dac_voltage(&dac), OK);
    EXPECT_EQ(dac, 0x234);
}

// A line peaks at the point whose wavelength, as the instrument's table
// gives it, is nearest the line's: where the line falls between two
// points, at one of them.
TEST_F(Sim, LinesPeakOnThePixelsTheCalibrationPutsThem) {
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
        kavrel_sim_config c = sim_config(calibration.instrument, std::to_string(&calibration - calibrations));
        std::copy(std::begin(calibration.coefficients), std::end(calibration.coefficients), c.coefficients);
        attach_and_open(c);
        ASSERT_EQ(kavrel_direct_set_average_number(16), OK);
        std::vector<double> w(c.point_count);
        ASSERT_EQ(kavrel_direct_get_full_wavelength_data(w.data(), static_cast<int32_t>(w.size())), OK);
        const std::vector<uint16_t> s = spectrum(c.point_count);
        for (const double line : calibration.lines_nm) {
            const auto i = static_cast<size_t>(std::lower_bound(w.begin(), w.end(), line) - w.begin());
            ASSERT_TRUE(i > 0 && i < w.size());
            const double at = double(i - 1) + (line - w[i - 1]) / (w[i] - w[i - 1]);
            const size_t from = i > 6 ? i - 6 : 0, to = std::min(s.size(), i + 6);
            const double peak = double(std::max_element(s.begin() + from, s.begin() + to) - s.begin());
            EXPECT_LT(std::fabs(peak - at), 1.0) << "line " << line << " nm at point " << at;
        }
    }
}

// A spectrum of the selected instrument, of 2048 points, with every
// instrument's shutter open or closed and the lamp's lines lit or not.
std::vector<uint16_t> seen(uint32_t integration_us, bool shutter_closed, double line_level = 4000,
                           bool lit = true) {
    kavrel_sim_scene scene;
    kavrel_sim_default_scene(&scene);
    scene = {lit, shutter_closed, scene.continuum_level, line_level};
    EXPECT_EQ(kavrel_sim_set_scene(nullptr, &scene), OK);
    EXPECT_EQ(kavrel_direct_set_integration_time(integration_us), OK);
    return spectrum(2048);
}

// Counts above the dark are proportional to the integration time and clip
// at full scale; behind the shutter only the dark signal is left, which
// grows with integration time and temperature. Averaging n scans divides
// the noise by the root of n.
TEST_F(Sim, CountsOverTheDarkLinearInIntegrationTimeUpToFullScale) {
    kavrel_sim_config warm = sim_config(CM2, "WARM"), hot = sim_config(CM2, "HOT");
    hot.temperature_c = warm.temperature_c + 20;
    attach_and_open(warm);
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

    auto net = [](uint32_t us) { return mean(seen(us, false)) - mean(seen(us, true)); };
    EXPECT_NEAR(net(20000) / net(5000), 4.0, 0.02);
    const std::vector<uint16_t> bright = seen(10000, false, 1e6), dark = seen(10000, true, 1e6);
    EXPECT_EQ(*std::max_element(bright.begin(), bright.end()), 65535);
    const std::vector<uint16_t> unlit = seen(10000, false, 1e6, false);
    EXPECT_LT(*std::max_element(unlit.begin(), unlit.end()), 65535);
    const auto [lo, hi] = std::minmax_element(dark.begin(), dark.end());
    EXPECT_LT(*hi - *lo, 100);
    auto dark_current = [] { return mean(seen(1000000, true)) - mean(seen(10000, true)); };
    const double at_warm = dark_current();
    const kavrel_sim_scene refused{1, 0, 100, -1};  // a negative line level
    EXPECT_EQ(kavrel_sim_set_scene(nullptr, &refused), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_GT(at_warm, 50);
    attach_and_open(hot);
    ASSERT_EQ(kavrel_direct_set_average_number(16), OK);
    EXPECT_GT(dark_current(), 4 * at_warm);
}

// A spectrum answers after the integration and readout, then its 4128 bytes
// flow at the bridge's rate: 3 Mbaud is some 12 ms slower than high speed.
// A short request answers within about a millisecond.
TEST_F(Sim, SpectraFlowAtTheBridgesRate) {
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

// Watches the library through its provider: how long each read waits
// against the limit in force, and the longest silence within an exchange
// (from a request, or the last byte that came, to the next byte or the end).
struct Watch : platform::Forwarder {
    using Forwarder::Forwarder;
    std::map<platform::Handle, uint32_t> read_limit;
    double last_byte_ms = 0, longest_silence_ms = 0;
    std::string broken;

    platform::Status set_timeouts(platform::Handle h, uint32_t r, uint32_t w) {
        read_limit[h] = r;
        return Forwarder::set_timeouts(h, r, w);
    }
    platform::Status write(platform::Handle h, const void *b, uint32_t n, uint32_t *written) {
        note_byte(now_ms());
        return Forwarder::write(h, b, n, written);
    }
    platform::Status read(platform::Handle h, void *b, uint32_t n, uint32_t *returned) {
        const double started = now_ms();
        const platform::Status status = Forwarder::read(h, b, n, returned);
        if (now_ms() - started > read_limit[h] + 1e-6) broken = "a read outlasted the limit in force";
        if (*returned > 0) note_byte(now_ms());
        return status;
    }
    void note_byte(double now) {
        longest_silence_ms = std::max(longest_silence_ms, now - last_byte_ms);
        last_byte_ms = now;
    }
};

// A fault of a random kind, lasting one to three requests, with a parameter
// around the limits it tests.
kavrel_sim_fault random_fault(std::mt19937_64 &random) {
    const auto kind = static_cast<uint32_t>(random() % KAVREL_SIM_FAULT_WRITE_FAILURE + 1);
    const auto count = static_cast<uint32_t>(random() % 3 + 1);
    const uint64_t parameter = kind == KAVREL_SIM_FAULT_DELAY        ? random() % 1500
                               : kind == KAVREL_SIM_FAULT_TRUNCATE   ? random() % 48
                               : kind == KAVREL_SIM_FAULT_REPLY_CODE ? 0xE0 + random() % 4
                               : kind == KAVREL_SIM_FAULT_TRICKLE    ? random() % 300 + 1
                                                                     : 0;
    return {kind, count, static_cast<uint32_t>(parameter), 0};
}

// The results the header gives for op on a device of that protocol.
bool allowed(const Operation &op, bool nir, int32_t rc) {
    if (op.cm2_only && nir) return rc == KAVREL_DIRECT_ERR_UNSUPPORTED;
    switch (rc) {
        case KAVREL_DIRECT_ERR_IO:
        case KAVREL_DIRECT_ERR_CRC:
        case KAVREL_DIRECT_ERR_TIMEOUT: return true;
        case KAVREL_DIRECT_ERR_PARSE:
        case KAVREL_DIRECT_ERR_WRITE_PROTECT: return !nir;
        case KAVREL_DIRECT_ERR_GENERIC:
        case KAVREL_DIRECT_ERR_INVALID_ARG: return op.spectral;
        default: return rc >= 0;  // success, or a byte count
    }
}

// Thousands of requests on four open instruments (two CM2, two NIR) switched
// at random, a third after a random fault. After every call the result is one
// the header gives for that operation and protocol, a failed call left its
// outputs alone, no read outlasted its limit nor any silence the longest
// limit; after a fault or a failure, once what was on its way has landed, the
// device answers a clean request. The seed is new each run (KAVREL_SOAK_SEED
// repeats one); KAVREL_SOAK_REQUESTS sets the count (20000).
TEST_F(Sim, SoakOfRandomRequestsAndFaultsOnFourInstruments) {
    const char *seed_text = std::getenv("KAVREL_SOAK_SEED"), *count = std::getenv("KAVREL_SOAK_REQUESTS");
    const uint64_t seed = seed_text ? std::stoull(seed_text)
                                    : uint64_t(std::chrono::steady_clock::now().time_since_epoch().count());
    const long requests = count ? std::stol(count) : 20000;
    std::printf("soak: seed %llu, %ld requests\n", static_cast<unsigned long long>(seed), requests);
    std::mt19937_64 random(seed);
    // Both outlive the test body: the fixture closes the devices through them.
    static Watch watch(sim::world_provider());
    static const platform::Platform watched = platform::provider_table("watch", watch);
    use_provider(&watched);
    kavrel_sim_config configs[4];  // in slots 0 to 3
    for (int i = 0; i < 4; ++i) {
        configs[i] = sim_config(i % 2 ? NIR : CM2, "SOAK" + std::to_string(i));
        configs[i].seed = seed + static_cast<uint64_t>(i);
        attach_and_open(configs[i]);
        ASSERT_EQ(g_active_index, i);
    }
    const auto out = std::make_unique<Outputs>();
    for (long n = 0; n < requests && !HasFailure(); ++n) {
        const int device = static_cast<int>(random() % 4);
        const kavrel_sim_config &config = configs[device];
        const Operation &op = kEveryOperation[random() % std::size(kEveryOperation)];
        kavrel_direct_select_device(device);
        const bool nir = config.instrument == NIR;
        // Inside either instrument's range.
        g_select_from = nir ? 1200 : 500;
        g_select_to = nir ? 1250 : 540;
        const kavrel_sim_fault fault = random() % 3 == 0 ? random_fault(random) : kavrel_sim_fault{};
        EXPECT_TRUE(fault.kind == 0 || kavrel_sim_inject_fault(config.chip_serial, &fault) == OK);
        SCOPED_TRACE(std::string(op.name) + " on " + config.chip_serial + ", request " + std::to_string(n) +
                     ", fault " + std::to_string(fault.kind) + " (" + std::to_string(fault.parameter) + ")");

        out->fill();
        watch.last_byte_ms = kavrel_sim_now_ms();
        watch.longest_silence_ms = 0;
        const int32_t rc = op.call(*out);
        watch.note_byte(kavrel_sim_now_ms());
        const device_slot &slot = g_devices[device];
        // The longest wait the library allows itself: a spectrum, or the
        // quiet time of a flash transfer, and one poll of the NIR reader.
        const double longest =
            std::max<double>(spectrum_time_limit_ms(slot.integration_time, slot.average_number), 1000) + 60;
        EXPECT_EQ(watch.broken, "");
        EXPECT_TRUE(allowed(op, nir, rc)) << "result " << rc;
        EXPECT_TRUE(rc >= 0 || out->untouched()) << "outputs written by a call that failed";
        EXPECT_LE(watch.longest_silence_ms, longest) << "ms in silence";
        if (rc < 0 || fault.kind != 0) {
            // Whatever is still on its way lands (a trickle takes its time
            // over a reply of up to 16 KiB), and the next request drops it.
            kavrel_sim_clear_faults(config.chip_serial);
            kavrel_sim_sleep_ms(10000 +
                                (fault.kind == KAVREL_SIM_FAULT_TRICKLE ? fault.parameter * 16400 : 0));
            char model[40] = {};
            EXPECT_EQ(kavrel_direct_get_device_model(model, sizeof model), OK);
            EXPECT_STREQ(model, config.model) << "the next clean request";
        }
    }
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 4) << "a device closed itself";
}

// The models and the bridge line on their own, fed as a byte stream:
// requests split, joined and after garbage; replies in order and in USB
// packets.
using Bytes = std::vector<uint8_t>;

// Keeps what an instrument sends, each reply with the time its first byte
// leaves.
struct Capture : sim::LineSink {
    struct Reply {
        Bytes bytes;
        double first_ms, spacing_ms;
    };
    std::vector<Reply> replies;
    double byte_ms() const override { return 0.01; }
    void emit(Bytes bytes, double first_ms, double spacing_ms) override {
        replies.push_back({std::move(bytes), first_ms, spacing_ms});
    }
};

Bytes query(uint8_t reg, uint32_t address, uint16_t words) {
    Bytes out(32);
    kavrel_direct_build_query(reg, address, words, out.data());
    return out;
}

Bytes write(uint8_t reg, uint32_t address, const Bytes &data) {
    Bytes out(static_cast<size_t>(cm2::write_packet_bytes(static_cast<int32_t>(data.size()))));
    kavrel_direct_build_write(reg, address, data.data(), static_cast<int32_t>(data.size()), out.data());
    return out;
}

Bytes nir_frame(Bytes command) {
    const uint16_t crc = nir_crc16(command.data(), command.size());
    command.push_back(static_cast<uint8_t>(crc >> 8));
    command.push_back(static_cast<uint8_t>(crc));
    return command;
}

// Byte by byte, as a slow stream delivers them, or each part whole.
void feed(sim::Instrument &instrument, const std::vector<Bytes> &parts, double at_ms, bool bytewise = true) {
    for (const Bytes &part : parts)
        for (size_t i = 0; i < part.size(); i += bytewise ? 1 : part.size())
            instrument.receive(&part[i], bytewise ? 1 : part.size(), at_ms);
}

// Service, register, address, status nibble and reply code of a CM2 reply,
// which must be well formed. It keeps the version (0xCC), sequence number
// (0xEE) and packet count (1 of 1) of the library's requests, and swaps
// their target (1) and source (2).
std::tuple<uint8_t, uint8_t, uint32_t, uint8_t, uint8_t> cm2_reply(const Bytes &reply) {
    static cm2_packet p;
    EXPECT_EQ(kavrel_direct_parse_response(reply.data(), static_cast<int32_t>(reply.size()), &p), 0);
    EXPECT_EQ(std::make_tuple(p.crc_ok, p.ver, p.ta, p.sa, p.fsn, p.sn_packets, p.sn_index),
              std::make_tuple(1, 0xCC, 2, 1, 0xEE, 1, 1));
    return {p.srv, p.pio_reg, p.pio_addr, p.ans_status, p.ans_reply};
}

TEST(Cm2Model, FindsRequestsSplitJoinedAndAfterGarbage) {
    Capture line;
    sim::Cm2Instrument cm2(sim_config(CM2, ""), line);
    // Garbage with a false start, then two queries.
    feed(cm2, {{0x12, 0xAA, 0xAB, 0xAA, 0xAA}, query(0xC1, 0x40, 1), query(0xC2, 0x0B, 1)}, 10.0);
    ASSERT_EQ(line.replies.size(), 2u);
    EXPECT_EQ(cm2_reply(line.replies[0].bytes), std::make_tuple(0xE0, 0xC1, 0x40u, 0, 0xAC));
    EXPECT_EQ(cm2_reply(line.replies[1].bytes), std::make_tuple(0xE0, 0xC2, 0x0Bu, 0, 0xAC));
    // One at a time: the second reply leaves after the first has.
    const Capture::Reply &a = line.replies[0];
    EXPECT_GE(line.replies[1].first_ms, a.first_ms + a.bytes.size() * a.spacing_ms);
}

// A refusal's status nibble is 0xE for a write the protection forbids, 0xB
// for any other failure.
TEST(Cm2Model, RefusesWithTheStatusAndReplyCodeOfTheFault) {
    const std::tuple<const char *, Bytes, uint8_t, uint8_t> refusals[] = {
        {"CRC wrong", [] { Bytes q = query(0xC1, 0x40, 1); q[24] ^= 1; return q; }(), 0xB, 0xE1},
        {"unknown register", query(0xC3, 0, 1), 0xB, 0xE2},
        {"unknown address", query(0xC1, 0x30, 1), 0xB, 0xE2},
        {"run past the map", query(0xC1, 0x00, 5), 0xB, 0xE2},
        {"table ends", query(0xC5, 2048, 1), 0xB, 0xE2},
        {"read-only word", write(0xC1, 0x40, {0, 0, 1, 0}), 0xB, 0xE2},
        {"page buffer while protected", write(0xC7, 0, {1, 2, 3, 4}), 0xE, 0xE3},
        {"page write while protected", write(0xC1, 0x4A, {0xCF, 0xDD, 0, 1, 0, 0, 0, 0}), 0xE, 0xE3},
    };
    for (const auto &[name, request, status, code] : refusals) {
        Capture line;
        sim::Cm2Instrument cm2(sim_config(CM2, ""), line);
        feed(cm2, {request}, 0, false);
        ASSERT_EQ(line.replies.size(), 1u) << name;
        const auto reply = cm2_reply(line.replies[0].bytes);
        EXPECT_EQ(std::get<3>(reply) * 0x100 + std::get<4>(reply), status * 0x100 + code) << name;
    }
}

TEST(NirModel, SkipsGarbageRefusesABadCrcAndForgetsAFrameCutShort) {
    Capture line;
    sim::NirInstrument nir(sim_config(NIR, ""), line);
    Bytes bad = nir_frame({'t'});
    bad.back() ^= 1;
    // Unknown bytes and an unknown query, then the version.
    feed(nir, {{0x00, 0xFF, 0x3F, 0x01}, nir_frame({'V'})}, 5.0);
    // A bad CRC, a page write while the protection is closed, a setting cut
    // short and silence, then a query of the level output.
    feed(nir, {bad, nir_frame({0xAF, 0x00, 0x02, 1, 2, 3, 4, 5, 6, 7}), {0x69, 0x00, 0x01}}, 6.0, false);
    feed(nir, {nir_frame({0x3F, 0x40})}, 200.0, false);

    ASSERT_EQ(line.replies.size(), 4u);
    EXPECT_EQ(line.replies[0].bytes,
              nir_frame({0x06, 'K', 'S', 'I', 'M', ' ', 'N', 'I', 'R', ' ', '2', '.', '3'}));
    EXPECT_EQ(line.replies[1].bytes, nir_frame({0x15}));
    EXPECT_EQ(line.replies[2].bytes, nir_frame({0x15}));
    EXPECT_EQ(line.replies[3].bytes, nir_frame({0x06, 0x00}));
}

// The bridge sends a full packet as soon as it is full and the rest when
// its latency timer next expires.
TEST(UsbLineModel, FullPacketsAtOnceAndTheTailAtTheLatencyTick) {
    platform::Clock clock(platform::Clock::Mode::virtual_time);
    platform::Inbox inbox(clock);
    for (const auto &[speed, payload] :
         {std::pair{KAVREL_SIM_FULL_SPEED, 62u}, {KAVREL_SIM_HIGH_SPEED, 510u}}) {
        inbox.clear();
        sim::UsbLine line(inbox, speed);
        line.set_latency_ms(16);
        const double start = std::ceil(clock.now_ms() / 16) * 16 + 1;  // 15 ms before a tick
        line.emit(Bytes(payload + 10, 0x55), start, line.byte_ms());
        clock.advance_to(start + (payload - 0.5) * line.byte_ms());
        EXPECT_EQ(inbox.arrived(), payload) << payload;
        clock.advance_to(start + 14.9);
        EXPECT_EQ(inbox.arrived(), payload) << payload;
        clock.advance_to(start + 15);
        EXPECT_EQ(inbox.arrived(), payload + 10) << payload;
    }
}

}  // namespace
}  // namespace kavrel::test
