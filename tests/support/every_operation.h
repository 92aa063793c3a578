// Every device operation of the library as one line of a table, with room
// for every output any of them writes: for the tests that run them all
// alike (every allocation failing in turn, the soak with injected faults).
#ifndef KAVREL_TESTS_EVERY_OPERATION_H
#define KAVREL_TESTS_EVERY_OPERATION_H

#include <cstring>

#include "kavrel_direct.h"

namespace kavrel::test {

// Room for the largest instrument (4096 points), so that no call fails for
// want of it; filled with a pattern before a call.
struct Outputs {
    uint32_t u32[2];
    uint8_t u8[3];
    uint16_t u16;
    uint64_t u64;
    float degrees;
    char text[40];
    kavrel_direct_device_info info;
    kavrel_direct_wavelength_selection selection;
    double coefficients[4];
    double low, high;
    uint8_t page[16];
    double wavelengths[4096];
    uint16_t samples[4096];

    void fill() { std::memset(this, 0xA5, sizeof *this); }
    bool operator==(const Outputs &other) const { return std::memcmp(this, &other, sizeof *this) == 0; }
    bool untouched() const {
        Outputs pattern;
        pattern.fill();
        return *this == pattern;
    }
};

// The wavelength range the selection operation asks for.
inline double g_select_from = 405, g_select_to = 435;

struct Operation {
    const char *name;
    int32_t (*call)(Outputs &o);
    bool cm2_only;
    bool spectral;  // sized by what the instrument reports: may also give -5 (and -1 without a selection)
};

// An operation's call on the outputs o, then cm2_only and spectral.
#define EVERY_OP(name, call, ...) \
    { name, []([[maybe_unused]] Outputs &o) { return kavrel_direct_##call; }, __VA_ARGS__ }
// clang-format off
inline const Operation kEveryOperation[] = {
    EVERY_OP("set integration time", set_integration_time(20000), false, false),
    EVERY_OP("integration time", get_integration_time(o.u32), false, false),
    EVERY_OP("set average number", set_average_number(3), false, false),
    EVERY_OP("average number", get_average_number(o.u8), false, false),
    EVERY_OP("set level output", set_level_output(1), false, false),
    EVERY_OP("level output", get_level_output(o.u8), false, false),
    EVERY_OP("set xenon pulse", set_xenon_pulse(1, 2), true, false),
    EVERY_OP("xenon pulse", get_xenon_pulse(o.u32, o.u32 + 1), true, false),
    EVERY_OP("set xenon mode", set_xenon_mode(1), true, false),
    EVERY_OP("xenon mode", get_xenon_mode(o.u8), true, false),
    EVERY_OP("set trigger", set_external_trigger_config(1, 2, 3), true, false),
    EVERY_OP("trigger", get_external_trigger_config(o.u8, o.u8 + 1, o.u8 + 2), true, false),
    EVERY_OP("set dac", set_dac_voltage(0x123), true, false),
    EVERY_OP("dac", get_dac_voltage(&o.u16), true, false),
    EVERY_OP("capture status", get_spectrum_capture_status(&o.u64), true, false),
    EVERY_OP("temperature", get_temperature(&o.degrees), false, false),
    EVERY_OP("hardware version", get_hardware_version(o.text, 40), false, false),
    EVERY_OP("detector serial", get_detector_serial_number(o.text, 40), true, false),
    EVERY_OP("model", get_device_model(o.text, 40), false, false),
    EVERY_OP("set baud rate", set_usb_baud_rate(0x30), true, false),
    EVERY_OP("baud rate", get_usb_baud_rate(&o.u16), true, false),
    EVERY_OP("usb status", get_usb_status(o.u32), true, false),
    EVERY_OP("set serial", set_serial_number("SN0001"), true, false),
    EVERY_OP("serial", get_serial_number(o.text, 40), false, false),
    EVERY_OP("device info", get_device_info(&o.info), false, false),
    EVERY_OP("set stored integration time", set_stored_integration_time(5), true, false),
    EVERY_OP("stored integration time", get_stored_integration_time(o.u32), true, false),
    EVERY_OP("set stored average number", set_stored_average_number(2), true, false),
    EVERY_OP("stored average number", get_stored_average_number(o.u8), true, false),
    EVERY_OP("set stored smoothing", set_stored_smoothing_width(2), false, false),
    EVERY_OP("stored smoothing", get_stored_smoothing_width(o.u8), true, false),
    EVERY_OP("slit width", get_slit_width(o.u8), true, false),
    EVERY_OP("open write protect", set_flash_write_protect(), false, false),
    EVERY_OP("write protect", get_flash_write_protect(o.u32), false, false),
    EVERY_OP("coefficients", get_calibration_coefficients(o.coefficients), false, false),
    EVERY_OP("count", get_wavelength_count(&o.u16), false, true),
    EVERY_OP("whole table", get_full_wavelength_data(o.wavelengths, 4096), false, true),
    EVERY_OP("end values", get_full_wavelength_range(&o.low, &o.high), false, true),
    EVERY_OP("set selection", set_selected_wavelength_range(g_select_from, g_select_to), false, true),
    EVERY_OP("selection", get_selected_wavelength_range(&o.selection), false, true),
    EVERY_OP("selected wavelengths", get_selected_wavelength_data(o.wavelengths, 4096), false, true),
    EVERY_OP("whole spectrum", get_full_spectrum_data(o.samples, 4096), false, true),
    EVERY_OP("selected spectrum", get_selected_spectrum_data(o.samples, 4096), false, true),
    EVERY_OP("flash write", flash_write(3, o.page, 4), false, false),
    EVERY_OP("flash read", flash_read(3, o.page, 16), false, false),
    EVERY_OP("external spectrum", external_spectrum_control(1, o.samples, 4096), true, true),
    EVERY_OP("reset", reset_device(), false, false),
};
// clang-format on

}  // namespace kavrel::test

#endif
