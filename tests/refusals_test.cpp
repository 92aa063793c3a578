// Calls refused before anything is sent: no device open (always first), a
// null output or no room, or an operation with only a CM2 form on an NIR
// instrument.
#include <cmath>
#include <functional>

#include "support/device_fixture.h"

namespace kavrel::test {
namespace {

constexpr int32_t ARG = KAVREL_DIRECT_ERR_INVALID_ARG, NONE = KAVREL_DIRECT_ERR_UNSUPPORTED,
                  GENERIC = KAVREL_DIRECT_ERR_GENERIC, CLOSED = KAVREL_DIRECT_ERR_NOT_OPEN;
constexpr int32_t SENDS = 1;  // not refused on that protocol: not tried here

uint8_t b, page[16];
uint16_t w, s[8];
uint32_t u;
uint64_t q;
double d[8];
char text[16];
kavrel_direct_wavelength_selection selection;

device_slot &slot() {
    return g_devices[g_active_index];
}
// Three points selected; nine points cached (with a device open).
void select_three() {
    if (g_active_index >= 0) slot().selection_valid = 1, slot().selected_count = 3;
}
void cache_nine() {
    if (g_active_index >= 0) slot().wavelength_count = 9;
}

struct Refusal {
    const char *name;
    std::function<int32_t()> call;
    int32_t cm2, nir, closed = CLOSED;
};

// clang-format off
const Refusal kRefusals[] = {
    {"protocol", [] { return kavrel_direct_get_device_protocol(nullptr); }, ARG, ARG},
    {"capabilities", [] { return kavrel_direct_get_capabilities(nullptr); }, ARG, ARG},
    {"integration time", [] { return kavrel_direct_get_integration_time(nullptr); }, ARG, ARG},
    {"average number", [] { return kavrel_direct_get_average_number(nullptr); }, ARG, ARG},
    {"level output", [] { return kavrel_direct_get_level_output(nullptr); }, ARG, ARG},
    {"set xenon pulse", [] { return kavrel_direct_set_xenon_pulse(1, 2); }, SENDS, NONE},
    {"xenon pulse", [] { return kavrel_direct_get_xenon_pulse(&u, &u); }, SENDS, NONE},
    {"xenon pulse, first null", [] { return kavrel_direct_get_xenon_pulse(nullptr, &u); }, ARG, ARG},
    {"xenon pulse, second null", [] { return kavrel_direct_get_xenon_pulse(&u, nullptr); }, ARG, ARG},
    {"set xenon mode", [] { return kavrel_direct_set_xenon_mode(1); }, SENDS, NONE},
    {"xenon mode", [] { return kavrel_direct_get_xenon_mode(&b); }, SENDS, NONE},
    {"xenon mode, null", [] { return kavrel_direct_get_xenon_mode(nullptr); }, ARG, ARG},
    {"set trigger", [] { return kavrel_direct_set_external_trigger_config(1, 2, 3); }, SENDS, NONE},
    {"trigger", [] { return kavrel_direct_get_external_trigger_config(&b, &b, &b); }, SENDS, NONE},
    {"trigger, first null", [] { return kavrel_direct_get_external_trigger_config(nullptr, &b, &b); }, ARG, ARG},
    {"trigger, second null", [] { return kavrel_direct_get_external_trigger_config(&b, nullptr, &b); }, ARG, ARG},
    {"trigger, third null", [] { return kavrel_direct_get_external_trigger_config(&b, &b, nullptr); }, ARG, ARG},
    {"set dac", [] { return kavrel_direct_set_dac_voltage(1); }, SENDS, NONE},
    {"dac", [] { return kavrel_direct_get_dac_voltage(&w); }, SENDS, NONE},
    {"dac, null", [] { return kavrel_direct_get_dac_voltage(nullptr); }, ARG, ARG},
    {"capture status", [] { return kavrel_direct_get_spectrum_capture_status(&q); }, SENDS, NONE},
    {"capture status, null", [] { return kavrel_direct_get_spectrum_capture_status(nullptr); }, ARG, ARG},
    {"temperature", [] { return kavrel_direct_get_temperature(nullptr); }, ARG, ARG},
    {"hardware version, null", [] { return kavrel_direct_get_hardware_version(nullptr, 8); }, ARG, ARG},
    {"hardware version, one byte", [] { return kavrel_direct_get_hardware_version(text, 1); }, ARG, ARG},
    {"detector serial", [] { return kavrel_direct_get_detector_serial_number(text, 16); }, SENDS, NONE},
    {"detector serial, null", [] { return kavrel_direct_get_detector_serial_number(nullptr, 8); }, ARG, ARG},
    {"detector serial, no room", [] { return kavrel_direct_get_detector_serial_number(text, 0); }, ARG, ARG},
    {"model, null", [] { return kavrel_direct_get_device_model(nullptr, 8); }, ARG, ARG},
    {"model, one byte", [] { return kavrel_direct_get_device_model(text, 1); }, ARG, ARG},
    {"set baud rate", [] { return kavrel_direct_set_usb_baud_rate(1); }, SENDS, NONE},
    {"baud rate", [] { return kavrel_direct_get_usb_baud_rate(&w); }, SENDS, NONE},
    {"baud rate, null", [] { return kavrel_direct_get_usb_baud_rate(nullptr); }, ARG, ARG},
    {"usb status", [] { return kavrel_direct_get_usb_status(&u); }, SENDS, NONE},
    {"usb status, null", [] { return kavrel_direct_get_usb_status(nullptr); }, ARG, ARG},
    {"set serial", [] { return kavrel_direct_set_serial_number("X"); }, SENDS, NONE},
    {"set serial, null", [] { return kavrel_direct_set_serial_number(nullptr); }, ARG, ARG},
    {"serial, null", [] { return kavrel_direct_get_serial_number(nullptr, 8); }, ARG, ARG},
    {"serial, one byte", [] { return kavrel_direct_get_serial_number(text, 1); }, ARG, ARG},
    {"device info", [] { return kavrel_direct_get_device_info(nullptr); }, ARG, ARG},
    {"set stored integration time", [] { return kavrel_direct_set_stored_integration_time(1); }, SENDS, NONE},
    {"stored integration time", [] { return kavrel_direct_get_stored_integration_time(&u); }, SENDS, NONE},
    {"stored integration time, null", [] { return kavrel_direct_get_stored_integration_time(nullptr); }, ARG, ARG},
    {"set stored average", [] { return kavrel_direct_set_stored_average_number(1); }, SENDS, NONE},
    {"stored average", [] { return kavrel_direct_get_stored_average_number(&b); }, SENDS, NONE},
    {"stored average, null", [] { return kavrel_direct_get_stored_average_number(nullptr); }, ARG, ARG},
    {"stored smoothing", [] { return kavrel_direct_get_stored_smoothing_width(&b); }, SENDS, NONE},
    {"stored smoothing, null", [] { return kavrel_direct_get_stored_smoothing_width(nullptr); }, ARG, ARG},
    {"slit width", [] { return kavrel_direct_get_slit_width(&b); }, SENDS, NONE},
    {"slit width, null", [] { return kavrel_direct_get_slit_width(nullptr); }, ARG, ARG},
    {"write protect, null", [] { return kavrel_direct_get_flash_write_protect(nullptr); }, ARG, ARG},
    {"coefficients", [] { return kavrel_direct_get_calibration_coefficients(nullptr); }, ARG, ARG},
    {"count", [] { return kavrel_direct_get_wavelength_count(nullptr); }, ARG, ARG},
    {"table, null", [] { return kavrel_direct_get_full_wavelength_data(nullptr, 8); }, ARG, ARG},
    {"table, no room", [] { return kavrel_direct_get_full_wavelength_data(d, 0); }, ARG, ARG},
    {"table, less room than points", [] { return cache_nine(), kavrel_direct_get_full_wavelength_data(d, 8); }, ARG,
     SENDS},
    {"ends, first null", [] { return kavrel_direct_get_full_wavelength_range(nullptr, d); }, ARG, ARG},
    {"ends, last null", [] { return kavrel_direct_get_full_wavelength_range(d, nullptr); }, ARG, ARG},
    {"select, end below start", [] { return kavrel_direct_set_selected_wavelength_range(2, 1); }, ARG, ARG},
    {"select, end at start", [] { return kavrel_direct_set_selected_wavelength_range(1, 1); }, ARG, ARG},
    {"select, NaN", [] { return kavrel_direct_set_selected_wavelength_range(1, std::nan("")); }, ARG, ARG},
    {"selection, null", [] { return kavrel_direct_get_selected_wavelength_range(nullptr); }, ARG, ARG},
    {"selection, none", [] { return kavrel_direct_get_selected_wavelength_range(&selection); }, GENERIC, GENERIC},
    {"selected wavelengths, null", [] { return kavrel_direct_get_selected_wavelength_data(nullptr, 8); }, ARG, ARG},
    {"selected wavelengths, none", [] { return kavrel_direct_get_selected_wavelength_data(d, 0); }, GENERIC,
     GENERIC},
    {"selected wavelengths, no room",
     [] { return select_three(), kavrel_direct_get_selected_wavelength_data(d, 2); }, ARG, ARG},
    {"spectrum, null", [] { return kavrel_direct_get_full_spectrum_data(nullptr, 8); }, ARG, ARG},
    {"spectrum, no room", [] { return kavrel_direct_get_full_spectrum_data(s, 0); }, ARG, ARG},
    {"spectrum, less room than points", [] { return cache_nine(), kavrel_direct_get_full_spectrum_data(s, 8); }, ARG,
     SENDS},
    {"selected spectrum, null", [] { return kavrel_direct_get_selected_spectrum_data(nullptr, 8); }, ARG, ARG},
    {"selected spectrum, none", [] { return kavrel_direct_get_selected_spectrum_data(s, 0); }, GENERIC, GENERIC},
    {"selected spectrum, no room", [] { return select_three(), kavrel_direct_get_selected_spectrum_data(s, 2); }, ARG,
     ARG},
    {"page read, negative length", [] { return kavrel_direct_flash_read(1, page, -1); }, ARG, ARG},
    {"page read, nothing", [] { return kavrel_direct_flash_read(1, page, 0); }, SENDS, ARG},
    {"page read, null", [] { return kavrel_direct_flash_read(1, nullptr, 16); }, SENDS, ARG},
    {"page write, negative length", [] { return kavrel_direct_flash_write(1, page, -1); }, ARG, ARG},
    {"page write, null", [] { return kavrel_direct_flash_write(1, nullptr, 3); }, ARG, ARG},
    {"page write, nothing", [] { return kavrel_direct_flash_write(1, page, 0); }, SENDS, ARG},
    {"page write, beyond one packet", [] { return kavrel_direct_flash_write(1, page, 2017); }, ARG, SENDS},
    {"page write, beyond one command", [] { return kavrel_direct_flash_write(1, page, 8188); }, ARG, ARG},
    {"external spectrum", [] { return kavrel_direct_external_spectrum_control(1, s, 8); }, SENDS, NONE},
    {"external spectrum, null", [] { return kavrel_direct_external_spectrum_control(1, nullptr, 8); }, ARG, ARG},
    {"external spectrum, no room", [] { return kavrel_direct_external_spectrum_control(1, s, 0); }, ARG, ARG},
    {"external spectrum, negative", [] { return kavrel_direct_external_spectrum_control(1, s, -4); }, ARG, ARG},
    // Listing and opening check their arguments before listing.
    {"open, negative index", [] { return kavrel_direct_open_device(-1); }, ARG, ARG, ARG},
    {"open by serial, null", [] { return kavrel_direct_open_device_by_chip_serial(nullptr); }, ARG, ARG, ARG},
    {"open by serial, empty", [] { return kavrel_direct_open_device_by_chip_serial(""); }, ARG, ARG, ARG},
    {"chip serial, null", [] { return kavrel_direct_get_chip_serial_by_index(0, nullptr, 8); }, ARG, ARG, ARG},
    {"chip serial, one byte", [] { return kavrel_direct_get_chip_serial_by_index(0, text, 1); }, ARG, ARG, ARG},
    {"chip serial, negative", [] { return kavrel_direct_get_chip_serial_by_index(-1, text, 8); }, ARG, ARG, ARG},
};
// clang-format on

class Refused : public DeviceTest, public ::testing::WithParamInterface<int> {};

TEST_P(Refused, BeforeAnythingIsSent) {
    const uint32_t protocol = static_cast<uint32_t>(GetParam());
    if (protocol == KAVREL_DIRECT_PROTOCOL_AUTO)
        bridge.attach("REFUSING");
    else
        open_with(protocol, "REFUSING");
    for (const Refusal &r : kRefusals) {
        const int32_t expected = protocol == KAVREL_DIRECT_PROTOCOL_CM2   ? r.cm2
                                 : protocol == KAVREL_DIRECT_PROTOCOL_NIR ? r.nir
                                                                          : r.closed;
        if (expected != SENDS) {
            EXPECT_EQ(r.call(), expected) << r.name;
        }
        if (protocol != KAVREL_DIRECT_PROTOCOL_AUTO) slot().wavelength_count = 0, slot().selection_valid = 0;
    }
    EXPECT_EQ(bridge.trace(), "");
}

INSTANTIATE_TEST_SUITE_P(Each, Refused,
                         ::testing::Values(KAVREL_DIRECT_PROTOCOL_AUTO, KAVREL_DIRECT_PROTOCOL_CM2,
                                           KAVREL_DIRECT_PROTOCOL_NIR),
                         [](const auto &info) {
                             return info.param == 0 ? "NoDevice" : info.param == 1 ? "Cm2" : "Nir";
                         });

}  // namespace
}  // namespace kavrel::test
