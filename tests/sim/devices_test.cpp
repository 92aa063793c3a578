// Finding, opening and unplugging simulated instruments, and the faults they
// and their bridges commit: each gives the result code the library
// documents, and the instrument answers the next clean request.
#include <algorithm>
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
    ASSERT_EQ(kavrel_direct_get_chip_serial_by_index(1, serial, sizeof serial), OK);
    EXPECT_STREQ(serial, "KSIM0002");
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

// CM2 answers its probe within milliseconds; NIR first lets the CM2 probe
// time out (200 ms), then answers and falls quiet (500 ms, read in 50 ms
// polls); a device that answers neither costs both and opens as CM2.
TEST_F(Devices, OpeningSettlesTheProtocol) {
    const struct {
        uint32_t instrument, protocol, capabilities;
        double probe_ms;  // the probes' time on the virtual clock, at least
    } kinds[] = {{CM2, 1, 0x7FFF, 0}, {NIR, 2, 0x1FF, 700}, {KAVREL_SIM_SILENT, 1, 0x7FFF, 700}};
    for (const auto &k : kinds) {
        const std::string serial = "SIM-" + protocol_name(k.instrument);
        const double start = kavrel_sim_now_ms();
        attach_and_open(k.instrument, serial.c_str());
        const double spent = kavrel_sim_now_ms() - start;
        uint32_t protocol = 0, capabilities = 0;
        EXPECT_EQ(kavrel_direct_get_device_protocol(&protocol), OK);
        EXPECT_EQ(kavrel_direct_get_capabilities(&capabilities), OK);
        EXPECT_EQ(protocol, k.protocol) << serial;
        EXPECT_EQ(capabilities, k.capabilities) << serial;
        EXPECT_GE(spent, k.probe_ms) << serial;
        EXPECT_LT(spent, k.probe_ms + 100) << serial;
    }
}

TEST_F(Devices, FourOpenAtOnceEachAnsweringForItselfUntilUnplugged) {
    for (int i = 0; i < 5; ++i) {
        kavrel_sim_config c = sim_config(i % 2 ? NIR : CM2, ("SIM-" + std::to_string(i)).c_str());
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
    char serial[16];
    EXPECT_EQ(kavrel_direct_scan_devices(), 4u);
    ASSERT_EQ(kavrel_direct_get_chip_serial_by_index(1, serial, sizeof serial), OK);
    EXPECT_STREQ(serial, "SIM-2");
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
TEST_F(Devices, UnpluggingEndsAnAcquisitionInAnotherThread) {
    attach_and_open(NIR, "SIM-W");
    const kavrel_sim_config c = attach_and_open(CM2, "SIM-T");
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

TEST_F(Devices, AttachRefusesAConfigurationTheProtocolCannotCarry) {
    const std::pair<const char *, void (*)(kavrel_sim_config &)> spoilers[] = {
        {"no chip serial", [](kavrel_sim_config &c) { c.chip_serial[0] = '\0'; }},
        {"text not terminated", [](kavrel_sim_config &c) { std::memset(c.model, 'M', sizeof c.model); }},
        {"unknown kind", [](kavrel_sim_config &c) { c.instrument = 3; }},
        {"unknown speed", [](kavrel_sim_config &c) { c.bridge_speed = 2; }},
        {"reserved", [](kavrel_sim_config &c) { c.reserved = 1; }},
        {"no points", [](kavrel_sim_config &c) { c.point_count = 0; }},
        {"too many points", [](kavrel_sim_config &c) { c.point_count = 4097; }},
        {"model too long for CM2", [](kavrel_sim_config &c) { std::strcpy(c.model, "SEVENTEEN-LETTERS"); }},
        {"serial too long for CM2",
         [](kavrel_sim_config &c) { std::strcpy(c.serial_number, "THIRTEEN-LONG"); }},
        {"version not hex bytes", [](kavrel_sim_config &c) { std::strcpy(c.hardware_version, "1.2.300"); }},
        {"coefficient not finite", [](kavrel_sim_config &c) { c.coefficients[2] = std::nan(""); }},
        {"too cold", [](kavrel_sim_config &c) { c.temperature_c = -200; }},
        {"NIR model out of form",
         [](kavrel_sim_config &c) { c = sim_config(NIR, "X"), std::strcpy(c.model, "NIR-X"); }},
        {"NIR too many points", [](kavrel_sim_config &c) { c = sim_config(NIR, "X"), c.point_count = 1025; }},
    };
    for (const auto &[name, spoil] : spoilers) {
        kavrel_sim_config c = sim_config(CM2, "X");
        spoil(c);
        EXPECT_EQ(kavrel_sim_attach(&c), KAVREL_DIRECT_ERR_INVALID_ARG) << name;
    }
    // A taken chip serial, and a 65th bridge.
    for (int i = 0; i < 64; ++i) {
        const kavrel_sim_config c = sim_config(KAVREL_SIM_SILENT, ("B" + std::to_string(i)).c_str());
        ASSERT_EQ(kavrel_sim_attach(&c), OK);
    }
    const kavrel_sim_config taken = sim_config(CM2, "B7"), more = sim_config(CM2, "B64");
    EXPECT_EQ(kavrel_sim_attach(&taken), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_sim_attach(&more), KAVREL_DIRECT_ERR_OPEN_FAILED);
    char serial[16];
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(63, serial, sizeof serial), OK);
    EXPECT_STREQ(serial, "B63");
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(64, serial, sizeof serial), KAVREL_DIRECT_ERR_NO_DEVICE);
}

enum class Request { setting, flash_page, external_spectrum };
constexpr uint32_t kSetting = 123456;

// The request a fault is tried on: its result code (a byte count is success).
int32_t make(Request request) {
    uint32_t time = 0;
    uint8_t page[16];
    std::vector<uint16_t> s(2048);
    if (request == Request::flash_page) return std::min(kavrel_direct_flash_read(3, page, sizeof page), OK);
    if (request == Request::external_spectrum)
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

constexpr Request kFlash = Request::flash_page, kExternal = Request::external_spectrum;
constexpr int32_t kTimeout = KAVREL_DIRECT_ERR_TIMEOUT, kCrc = KAVREL_DIRECT_ERR_CRC,
                  kIo = KAVREL_DIRECT_ERR_IO;

const FaultCase kFaultCases[] = {
    {"NoAnswer", CM2, KAVREL_SIM_FAULT_NO_ANSWER, 0, kTimeout},
    {"DelayWithinTheLimit", CM2, KAVREL_SIM_FAULT_DELAY, 150, OK},
    {"DelayPastTheLimit", CM2, KAVREL_SIM_FAULT_DELAY, 400, kTimeout},
    {"TruncatedHead", CM2, KAVREL_SIM_FAULT_TRUNCATE, 20, kTimeout},
    {"TruncatedBody", CM2, KAVREL_SIM_FAULT_TRUNCATE, 30, kTimeout},
    {"BadCrc", CM2, KAVREL_SIM_FAULT_BAD_CRC, 0, kCrc},
    {"BadPreamble", CM2, KAVREL_SIM_FAULT_BAD_PREAMBLE, 0, KAVREL_DIRECT_ERR_PARSE},
    {"ReplyCommandTimeout", CM2, KAVREL_SIM_FAULT_REPLY_CODE, 0xE0, kTimeout},
    {"ReplyCrcMismatch", CM2, KAVREL_SIM_FAULT_REPLY_CODE, 0xE1, kCrc},
    {"ReplyInvalidCommand", CM2, KAVREL_SIM_FAULT_REPLY_CODE, 0xE2, kIo},
    {"ReplyWriteProtect", CM2, KAVREL_SIM_FAULT_REPLY_CODE, 0xE3, KAVREL_DIRECT_ERR_WRITE_PROTECT},
    {"TrickleWithinTheLimit", CM2, KAVREL_SIM_FAULT_TRICKLE, 5, OK},
    {"TrickleStalls", CM2, KAVREL_SIM_FAULT_TRICKLE, 250, kTimeout},
    {"FlashHandshakeFails", CM2, KAVREL_SIM_FAULT_HANDSHAKE_FAILED, 0, kIo, kFlash},
    {"FlashHandshakeStuck", CM2, KAVREL_SIM_FAULT_HANDSHAKE_STUCK, 0, kTimeout, kFlash},
    {"ExternalHandshakeFails", CM2, KAVREL_SIM_FAULT_HANDSHAKE_FAILED, 0, kIo, kExternal},
    {"ExternalHandshakeStuck", CM2, KAVREL_SIM_FAULT_HANDSHAKE_STUCK, 0, kTimeout, kExternal},
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

class Faults : public SimTest, public ::testing::WithParamInterface<FaultCase> {
protected:
    void open(uint32_t kind) {
        attach_and_open(kind, "SIM-F");
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
    return std::string(info.param.name) + "_" + protocol_name(info.param.instrument);
});

TEST_F(Faults, LastTheirCountOrUntilClearedAndNeedAKnownKindAndBridge) {
    open(CM2);
    inject(KAVREL_SIM_FAULT_BAD_CRC, 2);
    EXPECT_EQ(make(Request::setting), kCrc);
    EXPECT_EQ(make(Request::setting), kCrc);
    EXPECT_EQ(make(Request::setting), OK);
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

// The instrument answers requests in order, so a reply later than the read
// limit is what the next exchange reads, if it begins before the reply has
// arrived; the library does not compare the echoed register.
TEST_F(Faults, ALateReplyAnswersTheNextRequest) {
    open(CM2);
    inject(KAVREL_SIM_FAULT_DELAY, 1, 300);
    uint32_t time = 0;
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), kTimeout);
    uint8_t level = 0;
    EXPECT_EQ(kavrel_direct_get_level_output(&level), OK);
    EXPECT_EQ(level, static_cast<uint8_t>(kSetting)) << "byte 3 of the integration time's late reply";
    kavrel_sim_sleep_ms(100);
    EXPECT_EQ(make(Request::setting), OK);
}

}  // namespace
}  // namespace kavrel::test
