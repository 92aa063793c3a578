#include "settings.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace kavrel::cli {

uint64_t parse_unsigned(const std::string &text, uint64_t max, const std::string &what) {
    char *end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno == ERANGE || value > max)
        fail(kExitUsage, format("%s: expected a whole number from 0 to %llu, got \"%s\"", what.c_str(),
                                static_cast<unsigned long long>(max), text.c_str()));
    return value;
}

double parse_double(const std::string &text, const std::string &what) {
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value))
        fail(kExitUsage, what + ": expected a number, got \"" + text + "\"");
    return value;
}

uint32_t parse_duration_us(const std::string &text, bool bare_is_us, const std::string &what) {
    char *end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const std::string unit(end);
    double scale = 0;
    if (unit == "us" || unit == "\u00B5s") scale = 1;
    if (unit == "ms") scale = 1e3;
    if (unit == "s") scale = 1e6;
    if (unit.empty() && bare_is_us) scale = 1;
    if (end == text.c_str() || !std::isfinite(number) || number < 0 || scale == 0)
        fail(kExitUsage, what + ": expected a duration such as 10ms, 2500us or 1.5s, got \"" + text + "\"");
    const double us = std::round(number * scale);
    if (us > 4294967295.0) fail(kExitUsage, what + ": at most 4294967295us (about 71 minutes)");
    return static_cast<uint32_t>(us);
}

namespace {

Ask ask_for(const Session &session, const Setting &s, bool is_set) {
    Ask ask;
    ask.what = std::string(is_set ? "setting " : "reading ") + s.name + (s.cm2_only ? ", CM2 only" : "");
    ask.limit_ms = session.register_limit_ms(is_set);
    return ask;
}

template <typename T>
Reading number_reading(T value) {
    return {value, std::to_string(value)};
}

template <typename T>
std::function<Reading(Session &, const Setting &)> get_number(int32_t (*read)(T *)) {
    return [read](Session &session, const Setting &s) {
        T value{};
        session.check(read(&value), ask_for(session, s, false));
        return number_reading(value);
    };
}

template <typename T>
std::function<void(Session &, const Setting &, const std::vector<std::string> &)> set_number(int32_t (*write)(T),
                                                                                           uint64_t max) {
    return [write, max](Session &session, const Setting &s, const std::vector<std::string> &values) {
        const auto value = static_cast<T>(parse_unsigned(values[0], max, s.name));
        session.check(write(value), ask_for(session, s, true));
    };
}

std::function<Reading(Session &, const Setting &)> get_text(int32_t (*read)(char *, int32_t)) {
    return [read](Session &session, const Setting &s) {
        char text[128] = {};
        session.check(read(text, sizeof text), ask_for(session, s, false));
        return Reading{text, text};
    };
}

std::function<void(Session &, const Setting &, const std::vector<std::string> &)> set_duration(
    int32_t (*write)(uint32_t)) {
    return [write](Session &session, const Setting &s, const std::vector<std::string> &values) {
        session.check(write(parse_duration_us(values[0], true, s.name)), ask_for(session, s, true));
    };
}

std::vector<Setting> make_settings() {
    using Values = std::vector<std::string>;
    return {
        {"integration_time", "us", false, "integration time (set takes 10ms, 2500us, 1s)", 1, "DURATION",
         get_number(kavrel_direct_get_integration_time), set_duration(kavrel_direct_set_integration_time)},
        {"average_number", "spectra", false, "spectra averaged per acquisition", 1, "N",
         get_number(kavrel_direct_get_average_number), set_number(kavrel_direct_set_average_number, 255)},
        {"level_output", "level", false, "level output", 1, "LEVEL", get_number(kavrel_direct_get_level_output),
         set_number(kavrel_direct_set_level_output, 255)},
        {"xenon_pulse", "", true, "the two xenon lamp pulse parameters", 2, "FIRST SECOND",
         [](Session &session, const Setting &s) {
             uint32_t first = 0, second = 0;
             session.check(kavrel_direct_get_xenon_pulse(&first, &second), ask_for(session, s, false));
             return Reading{{first, second}, std::to_string(first) + " " + std::to_string(second)};
         },
         [](Session &session, const Setting &s, const Values &v) {
             const auto first = static_cast<uint32_t>(parse_unsigned(v[0], 0xFFFFFFFFu, s.name));
             const auto second = static_cast<uint32_t>(parse_unsigned(v[1], 0xFFFFFFFFu, s.name));
             session.check(kavrel_direct_set_xenon_pulse(first, second), ask_for(session, s, true));
         }},
        {"xenon_mode", "mode", true, "xenon lamp mode", 1, "MODE", get_number(kavrel_direct_get_xenon_mode),
         set_number(kavrel_direct_set_xenon_mode, 255)},
        {"external_trigger", "", true, "the three external trigger values", 3, "FIRST SECOND THIRD",
         [](Session &session, const Setting &s) {
             uint8_t a = 0, b = 0, c = 0;
             session.check(kavrel_direct_get_external_trigger_config(&a, &b, &c), ask_for(session, s, false));
             return Reading{{a, b, c}, std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(c)};
         },
         [](Session &session, const Setting &s, const Values &v) {
             uint8_t t[3];
             for (size_t i = 0; i < 3; ++i) t[i] = static_cast<uint8_t>(parse_unsigned(v[i], 255, s.name));
             session.check(kavrel_direct_set_external_trigger_config(t[0], t[1], t[2]), ask_for(session, s, true));
         }},
        {"dac_voltage", "12-bit value", true, "DAC value, 0 to 4095", 1, "VALUE",
         get_number(kavrel_direct_get_dac_voltage), set_number(kavrel_direct_set_dac_voltage, 4095)},
        {"capture_status", "bits", true, "64-bit spectrum capture status word", 0, "",
         [](Session &session, const Setting &s) {
             uint64_t status = 0;
             session.check(kavrel_direct_get_spectrum_capture_status(&status), ask_for(session, s, false));
             return Reading{status, format("0x%016llX", static_cast<unsigned long long>(status))};
         },
         nullptr},
        {"temperature", "degC", false, "detector temperature", 0, "",
         [](Session &session, const Setting &s) {
             float degrees = 0;
             session.check(kavrel_direct_get_temperature(&degrees), ask_for(session, s, false));
             return Reading{degrees, format("%.4g", static_cast<double>(degrees))};
         },
         nullptr},
        {"model", "text", false, "device model", 0, "", get_text(kavrel_direct_get_device_model), nullptr},
        {"hardware_version", "text", false, "hardware version", 0, "", get_text(kavrel_direct_get_hardware_version),
         nullptr},
        {"serial_number", "text", false, "instrument serial number (set: CM2 only, up to 12 characters)", 1,
         "TEXT", get_text(kavrel_direct_get_serial_number),
         [](Session &session, const Setting &s, const Values &v) {
             if (v[0].size() > 12) fail(kExitUsage, "serial_number: at most 12 characters");
             session.check(kavrel_direct_set_serial_number(v[0].c_str()), ask_for(session, s, true));
         }},
        {"detector_serial_number", "text", true, "detector serial number", 0, "",
         get_text(kavrel_direct_get_detector_serial_number), nullptr},
        {"usb_baud_rate", "value", true, "USB baud-rate value", 1, "VALUE", get_number(kavrel_direct_get_usb_baud_rate),
         set_number(kavrel_direct_set_usb_baud_rate, 0xFFFF)},
        {"usb_status", "0 or 1", true, "1 when the USB status is set", 0, "", get_number(kavrel_direct_get_usb_status),
         nullptr},
        {"stored_integration_time", "us", true, "stored default integration time", 1, "DURATION",
         get_number(kavrel_direct_get_stored_integration_time),
         set_duration(kavrel_direct_set_stored_integration_time)},
        {"stored_average_number", "spectra", true, "stored default average number", 1, "N",
         get_number(kavrel_direct_get_stored_average_number), set_number(kavrel_direct_set_stored_average_number, 255)},
        {"stored_smoothing_width", "points", true, "stored smoothing width", 1, "N",
         get_number(kavrel_direct_get_stored_smoothing_width),
         set_number(kavrel_direct_set_stored_smoothing_width, 255)},
        {"slit_width", "value", true, "slit width", 0, "", get_number(kavrel_direct_get_slit_width), nullptr},
        {"flash_write_protect", "open/closed", false, "flash write protection (set: only `open`; nothing closes it)",
         1, "open",
         [](Session &session, const Setting &s) {
             uint32_t is_open = 0;
             session.check(kavrel_direct_get_flash_write_protect(&is_open), ask_for(session, s, false));
             const char *text = is_open != 0 ? "open" : "closed";
             return Reading{text, text};
         },
         [](Session &session, const Setting &s, const Values &v) {
             if (v[0] != "open") fail(kExitUsage, "flash_write_protect: the only value is `open`");
             session.check(kavrel_direct_set_flash_write_protect(), ask_for(session, s, true));
         }},
        {"wavelength_count", "points", false, "number of wavelength points", 0, "",
         get_number(kavrel_direct_get_wavelength_count), nullptr},
        {"protocol", "name", false, "protocol the instrument speaks", 0, "",
         [](Session &session, const Setting &s) {
             uint32_t protocol = 0;
             session.check(kavrel_direct_get_device_protocol(&protocol), ask_for(session, s, false));
             const char *name = protocol == KAVREL_DIRECT_PROTOCOL_NIR ? "NIR_LEGACY" : "UVVIS_CM2";
             return Reading{name, name};
         },
         nullptr},
        {"capabilities", "bits", false, "capability mask", 0, "",
         [](Session &session, const Setting &s) {
             uint32_t mask = 0;
             session.check(kavrel_direct_get_capabilities(&mask), ask_for(session, s, false));
             return Reading{mask, format("0x%04lX", static_cast<unsigned long>(mask))};
         },
         nullptr},
    };
}

}  // namespace

const std::vector<Setting> &settings() {
    static const std::vector<Setting> table = make_settings();
    return table;
}

const Setting &find_setting(const std::string &name) {
    for (const Setting &s : settings())
        if (name == s.name) return s;
    std::string names;
    for (const Setting &s : settings()) names += (names.empty() ? "" : ", ") + std::string(s.name);
    fail(kExitUsage, "no setting named \"" + name + "\"; `kavrel get --list` shows them: " + names);
}

}  // namespace kavrel::cli
