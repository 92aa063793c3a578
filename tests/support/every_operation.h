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
    bool untouched() const {
        const auto *bytes = reinterpret_cast<const uint8_t *>(this);
        for (size_t i = 0; i < sizeof *this; ++i)
            if (bytes[i] != 0xA5) return false;
        return true;
    }
    bool operator==(const Outputs &other) const { return std::memcmp(this, &other, sizeof *this) == 0; }
};

// The wavelength range the selection operation asks for.
inline double g_select_from = 405, g_select_to = 435;

struct Operation {
    const char *name;
    int32_t (*call)(Outputs &o);
    bool cm2_only;
    bool spectral;  // sized by what the instrument reports: may also give -5 (and -1 without a selection)
};

inline const uint8_t kPageBytes[4] = {1, 2, 3, 4};

inline const Operation kEveryOperation[] = {
    {"set integration time", [](Outputs &) { return kavrel_direct_set_integration_time(20000); }, false,
     false},
    {"integration time", [](Outputs &o) { return kavrel_direct_get_integration_time(o.u32); }, false, false},
    {"set average number", [](Outputs &) { return kavrel_direct_set_average_number(3); }, false, false},
    {"average number", [](Outputs &o) { return kavrel_direct_get_average_number(o.u8); }, false, false},
    {"set level output", [](Outputs &) { return kavrel_direct_set_level_output(1); }, false, false},
    {"level output", [](Outputs &o) { return kavrel_direct_get_level_output(o.u8); }, false, false},
    {"set xenon pulse", [](Outputs &) { return kavrel_direct_set_xenon_pulse(1, 2); }, true, false},
    {"xenon pulse", [](Outputs &o) { return kavrel_direct_get_xenon_pulse(o.u32, o.u32 + 1); }, true, false},
    {"set xenon mode", [](Outputs &) { return kavrel_direct_set_xenon_mode(1); }, true, false},
    {"xenon mode", [](Outputs &o) { return kavrel_direct_get_xenon_mode(o.u8); }, true, false},
    {"set trigger", [](Outputs &) { return kavrel_direct_set_external_trigger_config(1, 2, 3); }, true,
     false},
    {"trigger",
     [](Outputs &o) { return kavrel_direct_get_external_trigger_config(o.u8, o.u8 + 1, o.u8 + 2); }, true,
     false},
    {"set dac", [](Outputs &) { return kavrel_direct_set_dac_voltage(0x123); }, true, false},
    {"dac", [](Outputs &o) { return kavrel_direct_get_dac_voltage(&o.u16); }, true, false},
    {"capture status", [](Outputs &o) { return kavrel_direct_get_spectrum_capture_status(&o.u64); }, true,
     false},
    {"temperature", [](Outputs &o) { return kavrel_direct_get_temperature(&o.degrees); }, false, false},
    {"hardware version", [](Outputs &o) { return kavrel_direct_get_hardware_version(o.text, 40); }, false,
     false},
    {"detector serial", [](Outputs &o) { return kavrel_direct_get_detector_serial_number(o.text, 40); }, true,
     false},
    {"model", [](Outputs &o) { return kavrel_direct_get_device_model(o.text, 40); }, false, false},
    {"set baud rate", [](Outputs &) { return kavrel_direct_set_usb_baud_rate(0x30); }, true, false},
    {"baud rate", [](Outputs &o) { return kavrel_direct_get_usb_baud_rate(&o.u16); }, true, false},
    {"usb status", [](Outputs &o) { return kavrel_direct_get_usb_status(o.u32); }, true, false},
    {"set serial", [](Outputs &) { return kavrel_direct_set_serial_number("SN0001"); }, true, false},
    {"serial", [](Outputs &o) { return kavrel_direct_get_serial_number(o.text, 40); }, false, false},
    {"device info", [](Outputs &o) { return kavrel_direct_get_device_info(&o.info); }, false, false},
    {"set stored integration time", [](Outputs &) { return kavrel_direct_set_stored_integration_time(5); },
     true, false},
    {"stored integration time", [](Outputs &o) { return kavrel_direct_get_stored_integration_time(o.u32); },
     true, false},
    {"set stored average number", [](Outputs &) { return kavrel_direct_set_stored_average_number(2); }, true,
     false},
    {"stored average number", [](Outputs &o) { return kavrel_direct_get_stored_average_number(o.u8); }, true,
     false},
    {"set stored smoothing", [](Outputs &) { return kavrel_direct_set_stored_smoothing_width(2); }, false,
     false},
    {"stored smoothing", [](Outputs &o) { return kavrel_direct_get_stored_smoothing_width(o.u8); }, true,
     false},
    {"slit width", [](Outputs &o) { return kavrel_direct_get_slit_width(o.u8); }, true, false},
    {"open write protect", [](Outputs &) { return kavrel_direct_set_flash_write_protect(); }, false, false},
    {"write protect", [](Outputs &o) { return kavrel_direct_get_flash_write_protect(o.u32); }, false, false},
    {"coefficients", [](Outputs &o) { return kavrel_direct_get_calibration_coefficients(o.coefficients); },
     false, false},
    {"count", [](Outputs &o) { return kavrel_direct_get_wavelength_count(&o.u16); }, false, true},
    {"whole table", [](Outputs &o) { return kavrel_direct_get_full_wavelength_data(o.wavelengths, 4096); },
     false, true},
    {"end values", [](Outputs &o) { return kavrel_direct_get_full_wavelength_range(&o.low, &o.high); }, false,
     true},
    {"set selection",
     [](Outputs &) { return kavrel_direct_set_selected_wavelength_range(g_select_from, g_select_to); }, false,
     true},
    {"selection", [](Outputs &o) { return kavrel_direct_get_selected_wavelength_range(&o.selection); }, false,
     true},
    {"selected wavelengths",
     [](Outputs &o) { return kavrel_direct_get_selected_wavelength_data(o.wavelengths, 4096); }, false, true},
    {"whole spectrum", [](Outputs &o) { return kavrel_direct_get_full_spectrum_data(o.samples, 4096); },
     false, true},
    {"selected spectrum",
     [](Outputs &o) { return kavrel_direct_get_selected_spectrum_data(o.samples, 4096); }, false, true},
    {"flash write", [](Outputs &) { return kavrel_direct_flash_write(3, kPageBytes, 4); }, false, false},
    {"flash read", [](Outputs &o) { return kavrel_direct_flash_read(3, o.page, 16); }, false, false},
    {"external spectrum",
     [](Outputs &o) { return kavrel_direct_external_spectrum_control(1, o.samples, 4096); }, true, true},
    {"reset", [](Outputs &) { return kavrel_direct_reset_device(); }, false, false},
};

}  // namespace kavrel::test

#endif
