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

// An operation's call on the outputs o, named by its text; CM2_OP: only
// CM2 instruments have it, SPECTRAL_OP: spectral.
#define OPERATION(call, cm2_only, spectral) \
    { #call, []([[maybe_unused]] Outputs &o) { return kavrel_direct_##call; }, cm2_only, spectral }
#define EVERY_OP(call) OPERATION(call, false, false)
#define CM2_OP(call) OPERATION(call, true, false)
#define SPECTRAL_OP(call) OPERATION(call, false, true)
// clang-format off
inline const Operation kEveryOperation[] = {
    EVERY_OP(set_integration_time(20000)), EVERY_OP(get_integration_time(o.u32)),
    EVERY_OP(set_average_number(3)), EVERY_OP(get_average_number(o.u8)), EVERY_OP(set_level_output(1)),
    EVERY_OP(get_level_output(o.u8)), CM2_OP(set_xenon_pulse(1, 2)),
    CM2_OP(get_xenon_pulse(o.u32, o.u32 + 1)), CM2_OP(set_xenon_mode(1)), CM2_OP(get_xenon_mode(o.u8)),
    CM2_OP(set_external_trigger_config(1, 2, 3)),
    CM2_OP(get_external_trigger_config(o.u8, o.u8 + 1, o.u8 + 2)), CM2_OP(set_dac_voltage(0x123)),
    CM2_OP(get_dac_voltage(&o.u16)), CM2_OP(get_spectrum_capture_status(&o.u64)),
    EVERY_OP(get_temperature(&o.degrees)), EVERY_OP(get_hardware_version(o.text, 40)),
    CM2_OP(get_detector_serial_number(o.text, 40)), EVERY_OP(get_device_model(o.text, 40)),
    CM2_OP(set_usb_baud_rate(0x30)), CM2_OP(get_usb_baud_rate(&o.u16)), CM2_OP(get_usb_status(o.u32)),
    CM2_OP(set_serial_number("SN0001")), EVERY_OP(get_serial_number(o.text, 40)),
    EVERY_OP(get_device_info(&o.info)), CM2_OP(set_stored_integration_time(5)),
    CM2_OP(get_stored_integration_time(o.u32)), CM2_OP(set_stored_average_number(2)),
    CM2_OP(get_stored_average_number(o.u8)), EVERY_OP(set_stored_smoothing_width(2)),
    CM2_OP(get_stored_smoothing_width(o.u8)), CM2_OP(get_slit_width(o.u8)),
    EVERY_OP(set_flash_write_protect()), EVERY_OP(get_flash_write_protect(o.u32)),
    EVERY_OP(get_calibration_coefficients(o.coefficients)), SPECTRAL_OP(get_wavelength_count(&o.u16)),
    SPECTRAL_OP(get_full_wavelength_data(o.wavelengths, 4096)),
    SPECTRAL_OP(get_full_wavelength_range(&o.low, &o.high)),
    SPECTRAL_OP(set_selected_wavelength_range(g_select_from, g_select_to)),
    SPECTRAL_OP(get_selected_wavelength_range(&o.selection)),
    SPECTRAL_OP(get_selected_wavelength_data(o.wavelengths, 4096)),
    SPECTRAL_OP(get_full_spectrum_data(o.samples, 4096)),
    SPECTRAL_OP(get_selected_spectrum_data(o.samples, 4096)), EVERY_OP(flash_write(3, o.page, 4)),
    EVERY_OP(flash_read(3, o.page, 16)),
    OPERATION(external_spectrum_control(1, o.samples, 4096), true, true), EVERY_OP(reset_device()),
};
// clang-format on

}  // namespace kavrel::test

#endif
