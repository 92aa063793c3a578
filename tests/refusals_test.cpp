// Calls refused before anything is sent: no device open (always first), a
// null output or no room, or an operation with only a CM2 form on an NIR
// instrument.
#include <cmath>

#include "support/fake_bridge.h"
#include "transport/cm2_exchange.h"

namespace kavrel::test {
namespace {

constexpr int32_t NONE = KAVREL_DIRECT_ERR_UNSUPPORTED, GENERIC = KAVREL_DIRECT_ERR_GENERIC,
                  CLOSED = KAVREL_DIRECT_ERR_NOT_OPEN, SENDS = 1;  // SENDS: not refused there, not tried

uint8_t b, page[16];
uint16_t w, s[8];
uint32_t u, eight = 8;
uint64_t q;
double d[8];
char text[16];
kavrel_direct_wavelength_selection selection;

// Three points selected; nine points cached (with a device open).
void select_three() {
    if (g_active_index >= 0) active().selection_valid = 1, active().selected_count = 3;
}
const auto cache_nine = [] { if (g_active_index >= 0) active().wavelength_count = 9; };

struct Refusal {
    const char *name;
    std::function<int32_t()> call;
    int32_t cm2 = ARG, nir = ARG, closed = CLOSED;
};

// clang-format off
// A call, quoted for the failure message, and its results on a CM2
// instrument, on an NIR instrument and with no device open.
#define REFUSED(call, ...) {#call, [] { return kavrel_direct_##call; }, __VA_ARGS__}
#define INVALID(call) {#call, [] { return kavrel_direct_##call; }}  // on both instruments
#define CM2_ONLY(call) REFUSED(call, SENDS, NONE)
#define ALWAYS(call) REFUSED(call, ARG, ARG, ARG)
#define AFTER(prepare, call, ...) {#call, [] { return prepare(), kavrel_direct_##call; }, __VA_ARGS__}
const Refusal kRefusals[] = {
    INVALID(get_device_protocol(nullptr)), INVALID(get_capabilities(nullptr)),
    INVALID(get_integration_time(nullptr)), INVALID(get_average_number(nullptr)),
    INVALID(get_level_output(nullptr)), INVALID(get_temperature(nullptr)),
    INVALID(get_xenon_pulse(nullptr, &u)), INVALID(get_xenon_pulse(&u, nullptr)),
    INVALID(get_xenon_mode(nullptr)), INVALID(get_external_trigger_config(nullptr, &b, &b)),
    INVALID(get_external_trigger_config(&b, nullptr, &b)),
    INVALID(get_external_trigger_config(&b, &b, nullptr)), INVALID(get_dac_voltage(nullptr)),
    INVALID(get_spectrum_capture_status(nullptr)), INVALID(get_hardware_version(nullptr, 8)),
    INVALID(get_hardware_version(text, 1)), INVALID(get_detector_serial_number(nullptr, 8)),
    INVALID(get_detector_serial_number(text, 0)), INVALID(get_device_model(nullptr, 8)),
    INVALID(get_device_model(text, 1)), INVALID(get_serial_number(nullptr, 8)),
    INVALID(get_serial_number(text, 1)), INVALID(set_serial_number(nullptr)),
    INVALID(get_device_info(nullptr)), INVALID(get_usb_baud_rate(nullptr)), INVALID(get_usb_status(nullptr)),
    INVALID(get_stored_integration_time(nullptr)), INVALID(get_stored_average_number(nullptr)),
    INVALID(get_stored_smoothing_width(nullptr)), INVALID(get_slit_width(nullptr)),
    INVALID(get_flash_write_protect(nullptr)), INVALID(get_calibration_coefficients(nullptr)),
    INVALID(get_wavelength_count(nullptr)), INVALID(get_full_wavelength_data(nullptr, 8)),
    INVALID(get_full_wavelength_data(d, 0)), AFTER(cache_nine, get_full_wavelength_data(d, 8), ARG, SENDS),
    INVALID(get_full_wavelength_range(nullptr, d)), INVALID(get_full_wavelength_range(d, nullptr)),
    INVALID(set_selected_wavelength_range(2, 1)), INVALID(set_selected_wavelength_range(1, 1)),
    INVALID(set_selected_wavelength_range(1, NAN)), INVALID(get_selected_wavelength_range(nullptr)),
    REFUSED(get_selected_wavelength_range(&selection), GENERIC, GENERIC),
    INVALID(get_selected_wavelength_data(nullptr, 8)),
    REFUSED(get_selected_wavelength_data(d, 0), GENERIC, GENERIC),
    AFTER(select_three, get_selected_wavelength_data(d, 2), ARG, ARG),
    INVALID(get_full_spectrum_data(nullptr, 8)), INVALID(get_full_spectrum_data(s, 0)),
    AFTER(cache_nine, get_full_spectrum_data(s, 8), ARG, SENDS),
    INVALID(get_selected_spectrum_data(nullptr, 8)),
    REFUSED(get_selected_spectrum_data(s, 0), GENERIC, GENERIC),
    AFTER(select_three, get_selected_spectrum_data(s, 2), ARG, ARG), INVALID(flash_read(1, page, -1)),
    REFUSED(flash_read(1, page, 0), SENDS, ARG), REFUSED(flash_read(1, nullptr, 16), SENDS, ARG),
    INVALID(flash_write(1, page, -1)), INVALID(flash_write(1, nullptr, 3)),
    REFUSED(flash_write(1, page, 0), SENDS, ARG), REFUSED(flash_write(1, page, 2017), ARG, SENDS),
    INVALID(flash_write(1, page, 8188)), INVALID(external_spectrum_control(1, nullptr, 8)),
    INVALID(external_spectrum_control(1, s, 0)), INVALID(external_spectrum_control(1, s, -4)),
    // The raw pass-through: a buffer named by a length must be there.
    INVALID(send_recv(nullptr, 1, page, &eight)), INVALID(send_recv(page, 1, nullptr, &eight)),
    // Operations with only a CM2 form.
    CM2_ONLY(set_xenon_pulse(1, 2)), CM2_ONLY(get_xenon_pulse(&u, &u)), CM2_ONLY(set_xenon_mode(1)),
    CM2_ONLY(get_xenon_mode(&b)), CM2_ONLY(set_external_trigger_config(1, 2, 3)),
    CM2_ONLY(get_external_trigger_config(&b, &b, &b)), CM2_ONLY(set_dac_voltage(1)),
    CM2_ONLY(get_dac_voltage(&w)), CM2_ONLY(get_spectrum_capture_status(&q)),
    CM2_ONLY(get_detector_serial_number(text, 16)), CM2_ONLY(set_usb_baud_rate(1)),
    CM2_ONLY(get_usb_baud_rate(&w)), CM2_ONLY(get_usb_status(&u)), CM2_ONLY(set_serial_number("X")),
    CM2_ONLY(set_stored_integration_time(1)), CM2_ONLY(get_stored_integration_time(&u)),
    CM2_ONLY(set_stored_average_number(1)), CM2_ONLY(get_stored_average_number(&b)),
    CM2_ONLY(get_stored_smoothing_width(&b)), CM2_ONLY(get_slit_width(&b)),
    CM2_ONLY(external_spectrum_control(1, s, 8)),
    // Listing and opening check their arguments before listing, device or none.
    ALWAYS(open_device(-1)), ALWAYS(open_device_by_chip_serial(nullptr)),
    ALWAYS(open_device_by_chip_serial("")), ALWAYS(get_chip_serial_by_index(0, nullptr, 8)),
    ALWAYS(get_chip_serial_by_index(0, text, 1)), ALWAYS(get_chip_serial_by_index(-1, text, 8)),
};
// clang-format on

class Refused : public DeviceTest, public ::testing::WithParamInterface<int> {};

TEST_P(Refused, BeforeAnythingIsSent) {
    const uint32_t protocol = static_cast<uint32_t>(GetParam());
    protocol == KAVREL_DIRECT_PROTOCOL_AUTO ? bridge.attach("REFUSING") : open_with(protocol, "REFUSING");
    for (const Refusal &r : kRefusals) {
        const int32_t expected = protocol == KAVREL_DIRECT_PROTOCOL_CM2   ? r.cm2
                                 : protocol == KAVREL_DIRECT_PROTOCOL_NIR ? r.nir
                                                                          : r.closed;
        if (expected != SENDS) {
            EXPECT_EQ(r.call(), expected) << r.name;
        }
        if (g_active_index >= 0) active().wavelength_count = 0, active().selection_valid = 0;
    }
    EXPECT_EQ(bridge.trace(), "");
}

// The protocol preference's values: no device (AUTO), CM2, NIR.
INSTANTIATE_TEST_SUITE_P(Each, Refused, ::testing::Values(0, 1, 2), [](const auto &info) {
    return info.param == 0 ? "NoDevice" : info.param == 1 ? "Cm2" : "Nir";
});

}  // namespace
}  // namespace kavrel::test
