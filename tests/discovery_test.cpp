// Listing bridges, reading chip serials, opening and settling the protocol.
#include <string>

#include "support/device_fixture.h"

namespace kavrel::test {
namespace {

using Discovery = DeviceTest;

const Bytes kCm2Probe = cm2_query_bytes(0xC1, 0x000046, 4);
const Bytes kNirProbe = nir_frame({'V'});

std::string scan_output() {
    ::testing::internal::CaptureStdout();
    const uint32_t count = kavrel_direct_scan_devices();
    return std::to_string(count) + "|" + ::testing::internal::GetCapturedStdout();
}

TEST_F(Discovery, NothingAttached) {
    EXPECT_EQ(scan_output(), "0|");
    char serial[64];
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(0, serial, 64), KAVREL_DIRECT_ERR_NO_DEVICE);
    bridge.clear_calls();
    EXPECT_EQ(kavrel_direct_open_device(-1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
}

TEST_F(Discovery, ScanPrintsEveryBridge) {
    bridge.attach("FT1");
    bridge.attach("FT2");
    bridge.instrument(1).description = "Other";
    EXPECT_EQ(scan_output(), "2|[0] Fake Spectrometer (SN: FT1)\n[1] Other (SN: FT2)\n");
}

TEST_F(Discovery, ListingFailuresAreQuiet) {
    bridge.attach("FT1");
    bridge.create_status = 4;
    EXPECT_EQ(scan_output(), "0|");
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_ERR_NO_DEVICE);
    bridge.create_status = 0;
    bridge.get_status = 4;
    EXPECT_EQ(scan_output(), "0|");
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("FT1"), KAVREL_DIRECT_ERR_NO_DEVICE);
}

TEST_F(Discovery, AtMost64BridgesAreListed) {
    for (int i = 0; i < 70; ++i) bridge.attach("S" + std::to_string(i));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(kavrel_direct_scan_devices(), 64u);
    ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(bridge.calls_named("get_device_info_list").back().a, 64u);
    EXPECT_EQ(kavrel_direct_open_device(64), KAVREL_DIRECT_ERR_NO_DEVICE);
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("S65"), KAVREL_DIRECT_ERR_NO_DEVICE);
}

TEST_F(Discovery, ChipSerialIsCutToTheBuffer) {
    bridge.attach("ABCDEFGH");
    char buffer[8] = "xxxxxxx";
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(0, buffer, 1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(0, nullptr, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(-1, buffer, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(0, buffer, 5), KAVREL_DIRECT_OK);
    EXPECT_STREQ(buffer, "ABCD");
    EXPECT_EQ(kavrel_direct_get_chip_serial_by_index(1, buffer, 8), KAVREL_DIRECT_ERR_NO_DEVICE);
}

TEST_F(Discovery, OpenConfiguresTheBridgeInOrder) {
    bridge.attach("FT1");
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    std::string order;
    for (const auto &call : bridge.calls) order += call.name + " ";
    EXPECT_EQ(order,
              "create_device_info_list get_device_info_list open set_timeouts set_latency_timer "
              "set_usb_parameters purge reset_device ");
    EXPECT_EQ(bridge.calls[3].a, 5000u);
    EXPECT_EQ(bridge.calls[3].b, 5000u);
    EXPECT_EQ(bridge.calls[4].a, 1u);
    EXPECT_EQ(bridge.calls[5].a, 65536u);
    EXPECT_EQ(bridge.calls[5].b, 65536u);
    EXPECT_EQ(bridge.calls[6].a, 3u);
    EXPECT_EQ(active().protocol, KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(active().capabilities, 0x7FFFu);
}

TEST_F(Discovery, ForcedNirSendsNoProbe) {
    const int device = bridge.attach("CM2DEV");
    bridge.instrument(device).responder = [](const Bytes &) {
        return at_once(cm2_reply(0xC1, 0x46, Bytes(16, 'M')));
    };
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_NIR);
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    EXPECT_TRUE(bridge.calls_named("write").empty());
    EXPECT_EQ(active().protocol, KAVREL_DIRECT_PROTOCOL_NIR);
}

TEST_F(Discovery, AutomaticDetectionFindsCm2) {
    const int device = bridge.attach("CM2DEV");
    bridge.expect(device, kCm2Probe, at_once(cm2_reply(0xC1, 0x46, Bytes(16, 'M'))));
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().protocol, KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(active().capabilities, KAVREL_DIRECT_CAPABILITIES_CM2);
}

TEST_F(Discovery, AutomaticDetectionFallsBackToNir) {
    const int device = bridge.attach("NIRDEV");
    bridge.expect(device, kCm2Probe, {});
    bridge.expect(device, kNirProbe, at_once(nir_reply({'1', '.', '0'})));
    const double started = bridge.now();
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().protocol, KAVREL_DIRECT_PROTOCOL_NIR);
    EXPECT_EQ(active().capabilities, KAVREL_DIRECT_CAPABILITIES_NIR);
    // The failed CM2 probe costs its 200 ms, the NIR probe its quiet time.
    EXPECT_GE(bridge.now() - started, 200.0 + 500.0);
}

TEST_F(Discovery, SilentInstrumentOpensAsCm2) {
    const int device = bridge.attach("MUTE");
    bridge.expect(device, kCm2Probe, {});
    bridge.expect(device, kNirProbe, {});
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_is_open(), 1);
    EXPECT_EQ(active().protocol, KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(active().capabilities, 0x7FFFu);
}

TEST_F(Discovery, OpeningTheSameBridgeTwiceOnlyReactivatesIt) {
    open_cm2("SAME");
    open_nir("OTHER");
    ASSERT_EQ(g_active_index, 1);
    active().integration_time = 5;
    kavrel_direct_select_device(0);
    g_devices[0].integration_time = 4242;
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(g_active_index, 0);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 2);
    EXPECT_EQ(g_devices[0].integration_time, 4242u);
    EXPECT_TRUE(bridge.calls_named("open").empty());
}

TEST_F(Discovery, FifthDeviceIsRefusedAndClosed) {
    for (int i = 0; i < 4; ++i) open_cm2("D" + std::to_string(i));
    kavrel_direct_select_device(2);
    bridge.attach("D4");
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(kavrel_direct_open_device(4), KAVREL_DIRECT_ERR_OPEN_FAILED);
    EXPECT_EQ(g_active_index, 2);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 4);
    ASSERT_EQ(bridge.calls_named("close").size(), 1u);
    EXPECT_EQ(bridge.calls_named("close")[0].device, 4);
}

TEST_F(Discovery, BridgeThatWillNotOpen) {
    bridge.attach("FT1");
    bridge.open_status = 3;
    EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_ERR_OPEN_FAILED);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 0);
}

TEST_F(Discovery, OpenByChipSerialIsExactAndCaseSensitive) {
    bridge.attach("abc1");
    bridge.attach("ABC1");
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial(""), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("Abc1"), KAVREL_DIRECT_ERR_NO_DEVICE);
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_NIR);
    EXPECT_EQ(kavrel_direct_open_device_by_chip_serial("ABC1"), KAVREL_DIRECT_OK);
    ASSERT_EQ(bridge.calls_named("open").size(), 1u);
    EXPECT_EQ(bridge.calls_named("open")[0].a, 1u);
    EXPECT_STREQ(active().chip_serial, "ABC1");
}

}  // namespace
}  // namespace kavrel::test
