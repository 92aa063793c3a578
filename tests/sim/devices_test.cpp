// Finding, opening and unplugging simulated instruments.
#include <cmath>
#include <cstring>
#include <thread>

#include "sim_fixture.h"

namespace kavrel::test {
namespace {

using Devices = SimTest;

// Unlike the unit tests, this program has no stand-in driver on its search
// path: the hardware chain says why it passed the D2XX driver over (or, on a
// machine with the vendor's driver, that it took it).
TEST(HardwareChain, ReportsTheD2xxDriverFirst) {
    const std::string report = platform::hardware_provider_report();
    EXPECT_EQ(report.rfind("D2XX driver: ", 0), 0u) << report;
}

TEST_F(Devices, TheDefaultPairIsListedUntilABridgeIsAttached) {
    char serial[16];
    ASSERT_EQ(kavrel_direct_scan_devices(), 2u);
    ASSERT_EQ(kavrel_direct_get_chip_serial_by_index(1, serial, sizeof serial), KAVREL_DIRECT_OK);
    EXPECT_STREQ(serial, "KSIM0002");
    ASSERT_EQ(kavrel_direct_open_device_by_chip_serial("KSIM0001"), KAVREL_DIRECT_OK);

    const kavrel_sim_config mine = sim_config(KAVREL_SIM_NIR, "MINE");
    ASSERT_EQ(kavrel_sim_attach(&mine), KAVREL_DIRECT_OK);
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

struct Detection {
    uint32_t instrument;
    uint32_t protocol;
    uint32_t capabilities;
    double probe_ms;  // the probes' time on the virtual clock, at least
};

void PrintTo(const Detection &d, std::ostream *os) {
    *os << protocol_name(d.instrument);
}

class Detect : public SimTest, public ::testing::WithParamInterface<Detection> {};

TEST_P(Detect, OpeningSettlesTheProtocol) {
    const Detection &d = GetParam();
    const double start = kavrel_sim_now_ms();
    attach_and_open(d.instrument, "SIM-D");
    const double spent = kavrel_sim_now_ms() - start;
    uint32_t protocol = 0, capabilities = 0;
    ASSERT_EQ(kavrel_direct_get_device_protocol(&protocol), KAVREL_DIRECT_OK);
    ASSERT_EQ(kavrel_direct_get_capabilities(&capabilities), KAVREL_DIRECT_OK);
    EXPECT_EQ(protocol, d.protocol);
    EXPECT_EQ(capabilities, d.capabilities);
    EXPECT_GE(spent, d.probe_ms);
    EXPECT_LT(spent, d.probe_ms + 100);
}

// CM2 answers its probe within milliseconds; NIR first lets the CM2 probe
// time out (200 ms), then answers and falls quiet (500 ms, read in 50 ms
// polls); a device that answers neither costs both and opens as CM2.
INSTANTIATE_TEST_SUITE_P(EachKind, Detect,
                         ::testing::Values(Detection{KAVREL_SIM_CM2, 1, 0x7FFF, 0},
                                           Detection{KAVREL_SIM_NIR, 2, 0x1FF, 700},
                                           Detection{KAVREL_SIM_SILENT, 1, 0x7FFF, 700}),
                         [](const auto &info) { return protocol_name(info.param.instrument); });

TEST_F(Devices, FourOpenAtOnceEachAnsweringForItself) {
    const char *serials[] = {"SIM-0", "SIM-1", "SIM-2", "SIM-3", "SIM-4"};
    for (int i = 0; i < 5; ++i) {
        kavrel_sim_config c = sim_config(i % 2 ? KAVREL_SIM_NIR : KAVREL_SIM_CM2, serials[i]);
        c.point_count = 100 + i;
        ASSERT_EQ(kavrel_sim_attach(&c), KAVREL_DIRECT_OK);
    }
    for (int i = 0; i < 4; ++i) ASSERT_EQ(kavrel_direct_open_device(i), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_open_device(4), KAVREL_DIRECT_ERR_OPEN_FAILED);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 4);

    auto points = [] {
        uint16_t n = 0;
        EXPECT_EQ(kavrel_direct_get_wavelength_count(&n), KAVREL_DIRECT_OK);
        return n;
    };
    for (int i : {2, 0, 3, 1}) {
        ASSERT_EQ(kavrel_direct_select_device(i), KAVREL_DIRECT_OK);
        EXPECT_EQ(points(), 100 + i);
    }
}

TEST_F(Devices, AnUnpluggedBridgeLeavesTheListAndItsHandleFails) {
    attach_and_open(KAVREL_SIM_CM2, "SIM-U");
    attach_and_open(KAVREL_SIM_NIR, "SIM-V");
    ASSERT_EQ(kavrel_direct_select_device(0), KAVREL_DIRECT_OK);
    ASSERT_EQ(kavrel_sim_detach("SIM-U"), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_sim_detach("SIM-U"), KAVREL_DIRECT_ERR_NO_DEVICE);

    char serial[16];
    EXPECT_EQ(kavrel_direct_scan_devices(), 1u);
    ASSERT_EQ(kavrel_direct_get_chip_serial_by_index(0, serial, sizeof serial), KAVREL_DIRECT_OK);
    EXPECT_STREQ(serial, "SIM-V");
    uint16_t n = 0;
    EXPECT_EQ(kavrel_direct_get_wavelength_count(&n), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("SIM-U"), KAVREL_DIRECT_ERR_NO_DEVICE);
    kavrel_direct_close_device();
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 1);

    ASSERT_EQ(kavrel_direct_select_device(1), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_get_wavelength_count(&n), KAVREL_DIRECT_OK);
}

// Real time: the spectrum takes a wall-clock half second, during which
// another thread injects a fault into a second instrument and then unplugs
// the first. The waiting call ends at the unplugging, whatever the clock.
TEST_F(Devices, UnpluggingEndsAnAcquisitionInAnotherThread) {
    attach_and_open(KAVREL_SIM_NIR, "SIM-W");
    const kavrel_sim_config c = attach_and_open(KAVREL_SIM_CM2, "SIM-T");
    ASSERT_EQ(kavrel_direct_set_integration_time(500000), KAVREL_DIRECT_OK);
    kavrel_sim_set_virtual_time(0);
    int32_t result = 0;
    std::thread acquisition([&] {
        std::vector<uint16_t> s(c.point_count);
        result = kavrel_direct_get_full_spectrum_data(s.data(), static_cast<int32_t>(s.size()));
    });
    const kavrel_sim_fault fault{KAVREL_SIM_FAULT_BAD_CRC, 1, 0, 0};
    EXPECT_EQ(kavrel_sim_inject_fault("SIM-W", &fault), KAVREL_DIRECT_OK);
    kavrel_sim_sleep_ms(50);
    EXPECT_EQ(kavrel_sim_detach("SIM-T"), KAVREL_DIRECT_OK);
    acquisition.join();
    EXPECT_EQ(result, KAVREL_DIRECT_ERR_IO);
}

struct BadConfig {
    const char *name;
    void (*spoil)(kavrel_sim_config &);
};

const BadConfig kBadConfigs[] = {
    {"NoChipSerial", [](kavrel_sim_config &c) { c.chip_serial[0] = '\0'; }},
    {"TextNotTerminated", [](kavrel_sim_config &c) { std::memset(c.model, 'M', sizeof c.model); }},
    {"UnknownKind", [](kavrel_sim_config &c) { c.instrument = 3; }},
    {"UnknownSpeed", [](kavrel_sim_config &c) { c.bridge_speed = 2; }},
    {"Reserved", [](kavrel_sim_config &c) { c.reserved = 1; }},
    {"NoPoints", [](kavrel_sim_config &c) { c.point_count = 0; }},
    {"TooManyPoints", [](kavrel_sim_config &c) { c.point_count = 4097; }},
    {"ModelTooLongForCm2", [](kavrel_sim_config &c) { std::strcpy(c.model, "SEVENTEEN-LETTERS"); }},
    {"SerialTooLongForCm2", [](kavrel_sim_config &c) { std::strcpy(c.serial_number, "THIRTEEN-LONG"); }},
    {"VersionNotHexBytes", [](kavrel_sim_config &c) { std::strcpy(c.hardware_version, "1.2.300"); }},
    {"CoefficientNotFinite", [](kavrel_sim_config &c) { c.coefficients[2] = std::nan(""); }},
    {"TooCold", [](kavrel_sim_config &c) { c.temperature_c = -200; }},
    {"NirModelOutOfForm",
     [](kavrel_sim_config &c) { c = sim_config(KAVREL_SIM_NIR, "X"), std::strcpy(c.model, "NIR-X"); }},
    {"NirTooManyPoints",
     [](kavrel_sim_config &c) { c = sim_config(KAVREL_SIM_NIR, "X"), c.point_count = 1025; }},
};

void PrintTo(const BadConfig &b, std::ostream *os) {
    *os << b.name;
}

class Attach : public SimTest, public ::testing::WithParamInterface<BadConfig> {};

TEST_P(Attach, RefusesAConfigurationTheProtocolCannotCarry) {
    kavrel_sim_config c = sim_config(KAVREL_SIM_CM2, "X");
    GetParam().spoil(c);
    EXPECT_EQ(kavrel_sim_attach(&c), KAVREL_DIRECT_ERR_INVALID_ARG);
}

INSTANTIATE_TEST_SUITE_P(Each, Attach, ::testing::ValuesIn(kBadConfigs),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(Devices, AttachRefusesATakenSerialAndA65thBridge) {
    for (int i = 0; i < 64; ++i) {
        const kavrel_sim_config c = sim_config(KAVREL_SIM_SILENT, ("B" + std::to_string(i)).c_str());
        ASSERT_EQ(kavrel_sim_attach(&c), KAVREL_DIRECT_OK);
    }
    const kavrel_sim_config taken = sim_config(KAVREL_SIM_CM2, "B7"),
                            more = sim_config(KAVREL_SIM_CM2, "B64");
    EXPECT_EQ(kavrel_sim_attach(&taken), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_sim_attach(&more), KAVREL_DIRECT_ERR_OPEN_FAILED);
    char serial[16];
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(63, serial, sizeof serial), KAVREL_DIRECT_OK);
    EXPECT_STREQ(serial, "B63");
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(64, serial, sizeof serial), KAVREL_DIRECT_ERR_NO_DEVICE);
}

}  // namespace
}  // namespace kavrel::test
