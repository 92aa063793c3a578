// Stored values, flash write protection and reset; and the refusal of every
// CM2-only setting on an NIR instrument.
#include <functional>
#include <string>

#include "support/device_fixture.h"

namespace kavrel::test {
namespace {

using StoredValues = DeviceTest;

TEST_F(StoredValues, Cm2RegistersOfTheStoredValues) {
    const int d = open_cm2();
    const Bytes ack = cm2_reply(0xC2, 0, {});
    bridge.expect(d, cm2_write_bytes(0xC2, 0x00, {0x00, 0x00, 0x75, 0x30}), at_once(ack));
    EXPECT_EQ(kavrel_direct_set_stored_integration_time(30000), KAVREL_DIRECT_OK);
    bridge.expect(d, cm2_write_bytes(0xC2, 0x01, {0, 0, 0, 0}), at_once(ack));
    EXPECT_EQ(kavrel_direct_set_stored_average_number(0), KAVREL_DIRECT_OK);
    bridge.expect(d, cm2_write_bytes(0xC2, 0x02, {0, 0, 0, 5}), at_once(ack));
    EXPECT_EQ(kavrel_direct_set_stored_smoothing_width(5), KAVREL_DIRECT_OK);
    // Stored values are the instrument's; the caches do not follow them.
    EXPECT_EQ(active().integration_time, 10000u);
    EXPECT_EQ(active().average_number, 1);

    uint32_t time = 0;
    uint8_t value = 0;
    bridge.expect(d, cm2_query_bytes(0xC2, 0x00, 1), at_once(cm2_reply(0xC2, 0, {0, 1, 0, 0})));
    EXPECT_EQ(kavrel_direct_get_stored_integration_time(&time), KAVREL_DIRECT_OK);
    EXPECT_EQ(time, 65536u);
    EXPECT_EQ(active().integration_time, 10000u);
    const std::pair<uint32_t, std::function<int32_t(uint8_t *)>> byte_getters[] = {
        {0x01, kavrel_direct_get_stored_average_number},
        {0x02, kavrel_direct_get_stored_smoothing_width},
        {0x03, kavrel_direct_get_slit_width},
    };
    for (const auto &[address, getter] : byte_getters) {
        bridge.expect(d, cm2_query_bytes(0xC2, address, 1),
                      at_once(cm2_reply(0xC2, address, {9, 9, 9, 0x21})));
        value = 0;
        EXPECT_EQ(getter(&value), KAVREL_DIRECT_OK) << address;
        EXPECT_EQ(value, 0x21) << address;
    }
    bridge.reply_any(d, at_once(cm2_reply(0xC2, 3, {})));
    value = 7;
    EXPECT_EQ(kavrel_direct_get_slit_width(&value), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(kavrel_direct_get_slit_width(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
}

TEST_F(StoredValues, SmoothingWidthOnNirIsAcceptedWithoutTraffic) {
    open_nir();
    EXPECT_EQ(kavrel_direct_set_stored_smoothing_width(3), KAVREL_DIRECT_OK);
    uint8_t width = 0;
    EXPECT_EQ(kavrel_direct_get_stored_smoothing_width(&width), KAVREL_DIRECT_ERR_UNSUPPORTED);
    EXPECT_TRUE(bridge.calls.empty());
}

TEST_F(StoredValues, FlashWriteProtectionInBothProtocols) {
    const int c = open_cm2();
    bridge.expect(c, cm2_write_bytes(0xC1, 0x12, {0, 0, 0, 0xEA}), at_once(cm2_reply(0xC1, 0x12, {})));
    EXPECT_EQ(kavrel_direct_set_flash_write_protect(), KAVREL_DIRECT_OK);
    uint32_t open = 9;
    for (const auto &[byte, expected] : {std::pair<uint8_t, uint32_t>{0xEA, 1}, {0x00, 0}, {0xEB, 0}}) {
        bridge.expect(c, cm2_query_bytes(0xC1, 0x12, 1), at_once(cm2_reply(0xC1, 0x12, {0, 0, 0, byte})));
        EXPECT_EQ(kavrel_direct_get_flash_write_protect(&open), KAVREL_DIRECT_OK);
        EXPECT_EQ(open, expected);
    }

    kavrel_direct_close_all_devices();
    const int n = open_nir("NIR-FP");
    bridge.expect(n, nir_frame({0xA5, 0xEA}), at_once(nir_reply({})));
    EXPECT_EQ(kavrel_direct_set_flash_write_protect(), KAVREL_DIRECT_OK);
    bridge.expect(n, nir_frame({0x3F, 0xA5}), at_once(nir_reply({0xEA})));
    EXPECT_EQ(kavrel_direct_get_flash_write_protect(&open), KAVREL_DIRECT_OK);
    EXPECT_EQ(open, 1u);
    bridge.expect(n, nir_frame({0x3F, 0xA5}), at_once(nir_reply({})));
    EXPECT_EQ(kavrel_direct_get_flash_write_protect(&open), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(kavrel_direct_get_flash_write_protect(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
}

void select_something(device_slot &slot) {
    slot.wavelength_count = 512;
    slot.selection_valid = 1;
    slot.start_index = 3;
    slot.end_index = 9;
    slot.selected_count = 7;
    slot.requested_start = 400.0;
    slot.integration_time = 4000;
    slot.average_number = 8;
}

TEST_F(StoredValues, ResetClearsTheWavelengthStateOnlyWhenItSucceeds) {
    const int d = open_cm2();
    select_something(active());
    bridge.expect(d, cm2_write_bytes(0xC1, 0x13, {0, 0, 0, 0xAA}), {});
    EXPECT_EQ(kavrel_direct_reset_device(), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(active().wavelength_count, 512);
    EXPECT_EQ(active().selection_valid, 1u);

    bridge.expect(d, cm2_write_bytes(0xC1, 0x13, {0, 0, 0, 0xAA}), at_once(cm2_reply(0xC1, 0x13, {})));
    EXPECT_EQ(kavrel_direct_reset_device(), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().wavelength_count, 0);
    EXPECT_EQ(active().selection_valid, 0u);
    EXPECT_EQ(active().selected_count, 0);
    EXPECT_EQ(active().requested_start, 0.0);
    EXPECT_EQ(active().integration_time, 4000u);
    EXPECT_EQ(active().average_number, 8);
    EXPECT_EQ(kavrel_direct_is_open(), 1);
    kavrel_direct_wavelength_selection selection;
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_range(&selection), KAVREL_DIRECT_ERR_GENERIC);
}

TEST_F(StoredValues, NirResetWaitsTheQueryQuietTime) {
    const int d = open_nir();
    select_something(active());
    bridge.expect(d, nir_frame({0x52}), at_once(nir_reply({})));
    const double start = bridge.now();
    EXPECT_EQ(kavrel_direct_reset_device(), KAVREL_DIRECT_OK);
    EXPECT_GE(bridge.now() - start, 500.0);
    EXPECT_EQ(active().selection_valid, 0u);
}

// Every operation with only a CM2 form refuses an NIR instrument before a
// byte goes out, even with arguments that are otherwise fine.
TEST_F(StoredValues, Cm2OnlySettingsRefuseNirWithoutTraffic) {
    open_nir();
    uint8_t b = 0;
    uint16_t w = 0;
    uint32_t u = 0;
    uint64_t q = 0;
    char text[16];
    const std::pair<const char *, std::function<int32_t()>> operations[] = {
        {"set_xenon_pulse", [] { return kavrel_direct_set_xenon_pulse(1, 2); }},
        {"get_xenon_pulse", [&] { return kavrel_direct_get_xenon_pulse(&u, &u); }},
        {"set_xenon_mode", [] { return kavrel_direct_set_xenon_mode(1); }},
        {"get_xenon_mode", [&] { return kavrel_direct_get_xenon_mode(&b); }},
        {"set_external_trigger_config", [] { return kavrel_direct_set_external_trigger_config(1, 2, 3); }},
        {"get_external_trigger_config",
         [&] { return kavrel_direct_get_external_trigger_config(&b, &b, &b); }},
        {"set_dac_voltage", [] { return kavrel_direct_set_dac_voltage(1); }},
        {"get_dac_voltage", [&] { return kavrel_direct_get_dac_voltage(&w); }},
        {"get_spectrum_capture_status", [&] { return kavrel_direct_get_spectrum_capture_status(&q); }},
        {"get_detector_serial_number", [&] { return kavrel_direct_get_detector_serial_number(text, 16); }},
        {"set_usb_baud_rate", [] { return kavrel_direct_set_usb_baud_rate(1); }},
        {"get_usb_baud_rate", [&] { return kavrel_direct_get_usb_baud_rate(&w); }},
        {"get_usb_status", [&] { return kavrel_direct_get_usb_status(&u); }},
        {"set_serial_number", [] { return kavrel_direct_set_serial_number("X"); }},
        {"set_stored_integration_time", [] { return kavrel_direct_set_stored_integration_time(1); }},
        {"get_stored_integration_time", [&] { return kavrel_direct_get_stored_integration_time(&u); }},
        {"set_stored_average_number", [] { return kavrel_direct_set_stored_average_number(1); }},
        {"get_stored_average_number", [&] { return kavrel_direct_get_stored_average_number(&b); }},
        {"get_stored_smoothing_width", [&] { return kavrel_direct_get_stored_smoothing_width(&b); }},
        {"get_slit_width", [&] { return kavrel_direct_get_slit_width(&b); }},
    };
    for (const auto &[name, call] : operations) EXPECT_EQ(call(), KAVREL_DIRECT_ERR_UNSUPPORTED) << name;
    EXPECT_TRUE(bridge.calls.empty());
}

}  // namespace
}  // namespace kavrel::test
