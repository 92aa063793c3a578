// Identity and status: texts, temperature decoding, the device information.
#include <cstring>
#include <string>

#include "support/device_fixture.h"

namespace kavrel::test {
namespace {

using IdentityStatus = DeviceTest;

float nir_temperature(FakeBridge &bridge, int d, const Bytes &raw) {
    bridge.expect(d, nir_frame({0x74}), at_once(nir_reply(raw)));
    float degrees = -999;
    EXPECT_EQ(kavrel_direct_get_temperature(&degrees), KAVREL_DIRECT_OK);
    return degrees;
}

TEST_F(IdentityStatus, NirTemperatureIsSignedByItsTopFiveBits) {
    const int d = open_nir();
    EXPECT_EQ(nir_temperature(bridge, d, {0x01, 0x90}), 25.0f);
    EXPECT_EQ(nir_temperature(bridge, d, {0xFF, 0xF0}), -1.0f);
    EXPECT_EQ(nir_temperature(bridge, d, {0xF8, 0x00}), -128.0f);
    EXPECT_EQ(nir_temperature(bridge, d, {0x80, 0x00}), 0.0f);
    EXPECT_EQ(nir_temperature(bridge, d, {0xF0, 0x00}), 0.0f);  // four top bits are not five
    float degrees = 5;
    bridge.reply_any(d, at_once(nir_reply({0x01})));
    EXPECT_EQ(kavrel_direct_get_temperature(&degrees), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(degrees, 5.0f);
}

TEST_F(IdentityStatus, Cm2TemperatureIsNeverNegative) {
    const int d = open_cm2();
    bridge.expect(d, cm2_query_bytes(0xC1, 0x40, 1),
                  at_once(cm2_reply(0xC1, 0x40, {0x12, 0x34, 0xFF, 0xF0})));
    float degrees = 0;
    EXPECT_EQ(kavrel_direct_get_temperature(&degrees), KAVREL_DIRECT_OK);
    EXPECT_EQ(degrees, 4095.0f);
}

TEST_F(IdentityStatus, HardwareVersionTextIsCutToTheBuffer) {
    const int d = open_cm2();
    const Bytes version = {0x01, 0x02, 0x0A, 0xFF, 9, 9, 9, 9};
    bridge.expect(d, cm2_query_bytes(0xC1, 0x41, 2), at_once(cm2_reply(0xC1, 0x41, version)));
    char text[16];
    EXPECT_EQ(kavrel_direct_get_hardware_version(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "01.02.0A.FF");
    bridge.reply_any(d, at_once(cm2_reply(0xC1, 0x41, version)));
    EXPECT_EQ(kavrel_direct_get_hardware_version(text, 8), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "01.02.0");
    EXPECT_EQ(kavrel_direct_get_hardware_version(text, 1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_hardware_version(nullptr, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
}

TEST_F(IdentityStatus, NirVersionAndModelTexts) {
    const int d = open_nir();
    char text[32];
    bridge.expect(d, nir_frame({0x56}), at_once(nir_reply({'V', '2', '.', '1'})));
    EXPECT_EQ(kavrel_direct_get_hardware_version(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "V2.1");
    bridge.expect(d, nir_frame({0x56}), at_once(nir_reply({})));
    EXPECT_EQ(kavrel_direct_get_hardware_version(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "");

    bridge.expect(d, nir_frame({0xBB}), at_once(nir_reply({0x12, 0x00, 0x00, 0x1A, 0x2B, 0x00, 0x00, 0x00})));
    EXPECT_EQ(kavrel_direct_get_device_model(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "NIR-T2-1A2B");
    // A model query that goes unanswered, or comes back short, still names the family.
    bridge.expect(d, nir_frame({0xBB}), {});
    EXPECT_EQ(kavrel_direct_get_device_model(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "NIR");
    bridge.expect(d, nir_frame({0xBB}), at_once(nir_reply({1, 2, 3})));
    EXPECT_EQ(kavrel_direct_get_device_model(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "NIR");
}

TEST_F(IdentityStatus, Cm2TextRegisters) {
    const int d = open_cm2();
    char text[32];
    bridge.expect(
        d, cm2_query_bytes(0xC1, 0x46, 4),
        at_once(cm2_reply(0xC1, 0x46, Bytes{'U', 'V', '-', '2', '0', '0', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0})));
    EXPECT_EQ(kavrel_direct_get_device_model(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "UV-200");
    bridge.expect(d, cm2_query_bytes(0xC1, 0x44, 2),
                  at_once(cm2_reply(0xC1, 0x44, Bytes{'D', 'E', 'T', '1', '2', '3', '4', '5'})));
    EXPECT_EQ(kavrel_direct_get_detector_serial_number(text, sizeof text), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "DET12345");
    bridge.expect(
        d, cm2_query_bytes(0xC2, 0x04, 3),
        at_once(cm2_reply(0xC2, 0x04, Bytes{'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L'})));
    EXPECT_EQ(kavrel_direct_get_serial_number(text, 5), KAVREL_DIRECT_OK);
    EXPECT_STREQ(text, "ABCD");
    // Short answers leave the caller's text as it was.
    std::strcpy(text, "keep");
    bridge.reply_any(d, at_once(cm2_reply(0xC1, 0x46, Bytes(12, 'x'))));
    EXPECT_EQ(kavrel_direct_get_device_model(text, sizeof text), KAVREL_DIRECT_ERR_IO);
    EXPECT_STREQ(text, "keep");
}

TEST_F(IdentityStatus, SerialNumberIsWrittenAsTwelvePaddedBytes) {
    const int d = open_cm2();
    const Bytes ack = cm2_reply(0xC2, 4, {});
    bridge.expect(d, cm2_write_bytes(0xC2, 0x04, {'A', 'B', 'C', 0, 0, 0, 0, 0, 0, 0, 0, 0}), at_once(ack));
    EXPECT_EQ(kavrel_direct_set_serial_number("ABC"), KAVREL_DIRECT_OK);
    bridge.expect(
        d, cm2_write_bytes(0xC2, 0x04, Bytes{'1', '2', '3', '4', '5', '6', '7', '8', '9', '0', 'A', 'B'}),
        at_once(ack));
    EXPECT_EQ(kavrel_direct_set_serial_number("1234567890ABCDE"), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_set_serial_number(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
}

TEST_F(IdentityStatus, UsbRegisters) {
    const int d = open_cm2();
    bridge.expect(d, cm2_write_bytes(0xC1, 0x43, {0, 0, 0x12, 0x34}), at_once(cm2_reply(0xC1, 0x43, {})));
    EXPECT_EQ(kavrel_direct_set_usb_baud_rate(0x1234), KAVREL_DIRECT_OK);
    uint16_t rate = 0;
    bridge.expect(d, cm2_query_bytes(0xC1, 0x43, 1),
                  at_once(cm2_reply(0xC1, 0x43, {0xFF, 0xFF, 0x00, 0x60})));
    EXPECT_EQ(kavrel_direct_get_usb_baud_rate(&rate), KAVREL_DIRECT_OK);
    EXPECT_EQ(rate, 0x60);
    uint32_t status = 9;
    bridge.expect(d, cm2_query_bytes(0xC1, 0x50, 1), at_once(cm2_reply(0xC1, 0x50, {0, 0, 0, 0xAA})));
    EXPECT_EQ(kavrel_direct_get_usb_status(&status), KAVREL_DIRECT_OK);
    EXPECT_EQ(status, 1u);
    bridge.expect(d, cm2_query_bytes(0xC1, 0x50, 1), at_once(cm2_reply(0xC1, 0x50, {0, 0, 0, 0xAB})));
    EXPECT_EQ(kavrel_direct_get_usb_status(&status), KAVREL_DIRECT_OK);
    EXPECT_EQ(status, 0u);
}

TEST_F(IdentityStatus, NirDeviceInfoAsksModelThenVersion) {
    const int d = open_nir();
    bridge.expect(d, nir_frame({0xBB}), at_once(nir_reply({0x03, 0, 0, 0x00, 0x42, 0, 0, 0})));
    bridge.expect(d, nir_frame({0x56}), at_once(nir_reply({'1', '.', '7'})));
    kavrel_direct_device_info info;
    std::memset(&info, 0x5A, sizeof info);
    EXPECT_EQ(kavrel_direct_get_device_info(&info), KAVREL_DIRECT_OK);
    EXPECT_EQ(info.protocol, KAVREL_DIRECT_PROTOCOL_NIR);
    EXPECT_EQ(info.capabilities, KAVREL_DIRECT_CAPABILITIES_NIR);
    EXPECT_STREQ(info.protocol_name, "NIR_LEGACY");
    EXPECT_STREQ(info.model, "NIR-T3-0042");
    EXPECT_STREQ(info.serial_number, "NIR");
    EXPECT_STREQ(info.hardware_version, "1.7");
    // Every byte past a text is zero.
    EXPECT_EQ(info.hardware_version[63], 0);
    EXPECT_EQ(info.protocol_name[31], 0);
}

TEST_F(IdentityStatus, Cm2DeviceInfoKeepsGoingPastAFailedRequest) {
    const int d = open_cm2();
    bridge.expect(d, cm2_query_bytes(0xC1, 0x46, 4), at_once(cm2_reply(0xC1, 0x46, Bytes(16, 'M'))));
    bridge.expect(d, cm2_query_bytes(0xC2, 0x04, 3), at_once(cm2_reply(0xC2, 0x04, Bytes(12, 'S'), 0xE2)));
    bridge.expect(d, cm2_query_bytes(0xC1, 0x41, 2),
                  at_once(cm2_reply(0xC1, 0x41, {1, 0, 0, 2, 0, 0, 0, 0})));
    kavrel_direct_device_info info;
    EXPECT_EQ(kavrel_direct_get_device_info(&info), KAVREL_DIRECT_OK);
    EXPECT_STREQ(info.protocol_name, "UVVIS_CM2");
    EXPECT_STREQ(info.model, "MMMMMMMMMMMMMMMM");
    EXPECT_STREQ(info.serial_number, "");
    EXPECT_STREQ(info.hardware_version, "01.00.00.02");
    EXPECT_EQ(kavrel_direct_get_device_info(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
}

}  // namespace
}  // namespace kavrel::test
