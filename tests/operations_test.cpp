// Every device operation on each protocol as one row: the requests it must
// send, the instrument's replies, the result and what the call handed out.
#include <cmath>
#include <limits>

#include "support/fake_bridge.h"

namespace kavrel::test {
namespace {

using Out = std::string;
using Call = std::function<int32_t(Out &)>;
struct Traffic {
    Bytes request, reply;  // an empty reply: silence
};
using Script = std::vector<Traffic>;
struct Row {
    const char *name;
    bool nir;
    Call call;
    Script traffic;
    int32_t result;
    Out out = "";
    double ms = -1;  // virtual time the call takes; -1: not compared
    friend void PrintTo(const Row &row, std::ostream *os) { *os << (row.nir ? "Nir" : "Cm2") << row.name; }
};

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Requests and replies: CM2 query, write, reply and acknowledgement; NIR command and reply.
const auto Q = cm2_query_bytes;
const auto N = nir_frame;
const auto W = cm2_write_bytes;
const auto R = [](const Bytes &data, uint8_t code = 0xAC) { return cm2_reply(0xC1, 0, data, code); };
const Bytes ACK = R({});
const auto A = [](const Bytes &data) { return nir_reply(data); };
// The head, then t n times.
Script repeat(Script head, int n, const Traffic &t) {
    head.insert(head.end(), static_cast<size_t>(n), t);
    return head;
}

// The outputs on success; on failure "" while they are left alone.
template <typename... T>
Call get(int32_t (*fn)(T *...)) {
    return [fn](Out &out) {
        std::tuple<T...> v, before;
        std::memset(static_cast<void *>(&v), 0xA5, sizeof v);
        before = v;
        const int32_t rc = std::apply([&](T &...x) { return fn(&x...); }, v);
        out = rc == OK ? std::apply([](T &...x) { return str(x...); }, v) : v != before ? "written" : "";
        return rc;
    };
}

Call text(int32_t (*fn)(char *, int32_t), int32_t size = 32) {
    return [=](Out &out) {
        char buffer[64] = "untouched";
        const int32_t rc = fn(buffer, size);
        out = rc == OK ? buffer : std::strcmp(buffer, "untouched") != 0 ? "written" : "";
        return rc;
    };
}

// The values an array call wrote, "." for an element left alone, up to the
// first one left alone after the last written.
template <typename T>
Call fill(int32_t (*fn)(T *, int32_t), int32_t capacity = 8) {
    return [=](Out &out) {
        const T untouched = std::is_integral_v<T> ? T(0xBEEF) : T(-7);
        std::vector<T> v(8, untouched);
        const int32_t rc = fn(v.data(), capacity);
        size_t end = 0;
        for (size_t i = 0; i < v.size(); ++i)
            if (!(v[i] == untouched)) end = i + 1;
        for (size_t i = 0; i < std::min(v.size(), end + (end > 0)); ++i)
            out += (i ? " " : "") + (v[i] == untouched ? std::string(".") : str(v[i]));
        return rc;
    };
}

// Runs prepare on the slot first; appends the slot's caches: integration
// time, average number, point count, whether a selection is held.
Call after(void (*prepare)(device_slot &), Call call) {
    return [=](Out &out) { return prepare(active()), call(out); };
}
Call cached(Call call) {
    return [=](Out &out) {
        const int32_t rc = call(out);
        const device_slot &s = active();
        out += "|" + str(s.integration_time, s.average_number, s.wavelength_count, s.selection_valid);
        return rc;
    };
}
const auto select_two = [](device_slot &s) {
    s.selection_valid = s.start_index = 1, s.end_index = s.selected_count = 2;
};
const auto select_three = [](device_slot &s) { s.selection_valid = s.start_index = 1, s.selected_count = 3; };
const auto count_4 = [](device_slot &s) { s.wavelength_count = 4; };

Call selection_after(double start, double end) {
    return [=](Out &out) {
        const int32_t rc = kavrel_direct_set_selected_wavelength_range(start, end);
        kavrel_direct_wavelength_selection s{};
        if (kavrel_direct_get_selected_wavelength_range(&s) == OK)
            out = str(s.requested_start, s.requested_end, s.actual_start, s.actual_end, s.start_index,
                      s.end_index, s.selected_count);
        return rc;
    };
}

// How many values a page read or an external spectrum put at the start of
// its buffer, and the first.
template <typename T>
Call leading(int32_t (*fn)(uint16_t, T *, int32_t), uint16_t page_or_control, int32_t room) {
    return [=](Out &out) {
        std::vector<T> v(3000, static_cast<T>(0xBEEF));
        const int32_t rc = fn(page_or_control, v.data(), room);
        out = str(std::find(v.begin(), v.end(), v.back()) - v.begin(), v[0]);
        return rc;
    };
}
const auto page_read = [](uint16_t page, int32_t n) { return leading(kavrel_direct_flash_read, page, n); };
const auto external = [](uint16_t control, int32_t count) {
    return leading(kavrel_direct_external_spectrum_control, control, count);
};
Call page_write(uint16_t page, const Bytes &data, int32_t n) {
    return [=](Out &) { return kavrel_direct_flash_write(page, data.empty() ? nullptr : data.data(), n); };
}

// Four values, with no room named.
const Call kCoefficients =
    fill<double>([](double *k, int32_t) { return kavrel_direct_get_calibration_coefficients(k); });

const Call kDeviceInfo = [](Out &out) {
    kavrel_direct_device_info i;
    std::memset(&i, 0x5A, sizeof i);
    const int32_t rc = kavrel_direct_get_device_info(&i);
    out = str(i.protocol, i.capabilities) + " " + i.protocol_name + "|" + i.model + "|" + i.serial_number +
          "|" + i.hardware_version;
    // Every byte past a text is zero.
    EXPECT_EQ(i.protocol_name[31] | i.model[31] | i.serial_number[31] | i.hardware_version[63], 0);
    return rc;
};

#define DO(call) [](Out &) { return kavrel_direct_##call; }
#define GET(name) get(kavrel_direct_get_##name)
#define TEXT(name, ...) text(kavrel_direct_get_##name, __VA_ARGS__)
#define FILL(name, ...) fill(kavrel_direct_get_##name, __VA_ARGS__)

const Bytes kTable3 = le_floats({1, 2, 3}), kCount3 = R({0, 0, 0, 3}), kCount4 = R({0, 0, 0, 4});
const Bytes kLong(8187, 0x44);
const Bytes kShortMark{0xAA, 0x55, 0xBB, 0x44}, kLongMark{0xAA, 0x55, 0xBB, 0x44, 0xCC, 0x33, 0xDD, 0x22},
    kEndMark{0xDD, 0xDD, 0xAA, 0xAA};
const Traffic kCountQuery{Q(0xC2, 0x0B, 1), kCount3}, kNirTable{N({0x3F, 0x53}), A(kTable3)},
    kTable4{Q(0xC5, 0, 2048), R(le_floats({400, 410, 420, 430}))};
const Traffic kOpenProtection{W(0xC1, 0x12, {0, 0, 0, 0xEA}), ACK};
Traffic block(uint32_t address, Bytes head) {
    head.resize(8, 0);
    return {W(0xC1, address, head), ACK};
}
Traffic poll(uint32_t address, uint8_t state) {  // a command block's status
    return {Q(0xC1, address, 2), R({0xC0, state, 0, 0, 0, 0, 0, 0})};
}

// An NIR spectrum frame, read with 99 points cached; the point count after.
Row frame(const char *name, const Bytes &data, int32_t result, const char *out) {
    const Call read = [](Out &o) {
        active().wavelength_count = 99;
        const int32_t rc = fill(kavrel_direct_get_full_spectrum_data)(o);
        return o += "|" + str(active().wavelength_count), rc;
    };
    return {name, NIR, read, {{N({0x53}), A(data)}}, result, out};
}

// clang-format off
const Row kRows[] = {
    // Acquisition settings: a one-byte setting sits in byte 3 of its word.
    {"SetIntegrationTime", CM2, cached(DO(set_integration_time(0x12345))),
     {{W(0xC1, 0, {0, 1, 0x23, 0x45}), ACK}}, OK, "|74565 1 0 0"},
    {"SetAverageNumber", CM2, cached(DO(set_average_number(7))), {{W(0xC1, 0x10, {0, 0, 0, 7}), ACK}}, OK,
     "|10000 7 0 0"},
    {"SetXenonPulse", CM2, DO(set_xenon_pulse(1, 2)), {{W(0xC1, 0x01, {0, 0, 0, 1, 0, 0, 0, 2}), ACK}}, OK},
    {"SetDacInTheTopTwelveBits", CM2, DO(set_dac_voltage(0x1234)), {{W(0xC1, 0x64, {0x23, 0x40, 0, 0}), ACK}},
     OK},
    {"AverageNumberZero", CM2, cached(GET(average_number)), {{Q(0xC1, 0x10, 1), R({9, 9, 9, 0})}}, OK,
     "0|10000 1 0 0"},
    {"LevelOutput", CM2, GET(level_output), {{Q(0xC1, 0x11, 1), R({9, 9, 9, 2})}}, OK, "2"},
    {"XenonPulseShort", CM2, GET(xenon_pulse), {{Q(0xC1, 1, 2), R({0, 0, 0, 9})}}, IO},
    {"XenonMode", CM2, GET(xenon_mode), {{Q(0xC1, 0x03, 1), R({1, 1, 1, 4})}}, OK, "4"},
    {"Trigger", CM2, GET(external_trigger_config), {{Q(0xC1, 0x51, 1), R({7, 8, 0xFF, 9})}}, OK, "7 8 9"},
    {"CaptureStatus", CM2, GET(spectrum_capture_status), {{Q(0xC1, 0x52, 2), R({1, 2, 3, 4, 5, 6, 7, 8})}},
     OK, "72623859790382856"},
    // NIR sets wait 300 ms of quiet, queries 500.
    {"SetIntegrationTime", NIR, cached(DO(set_integration_time(100000))),
     {{N({0x69, 0, 1, 0x86, 0xA0}), A({})}}, OK, "|100000 1 0 0", 375},
    // 0 goes to the instrument as 0 but counts as 1 for the time limit.
    {"SetAverageNumberZero", NIR, cached(DO(set_average_number(0))), {{N({0x41, 0, 0}), A({})}}, OK,
     "|10000 1 0 0"},
    {"SetLevelOutput", NIR, DO(set_level_output(5)), {{N({0x40, 5}), A({})}}, OK},
    {"IntegrationTime", NIR, cached(GET(integration_time)), {{N({0x3F, 0x69}), A({0, 0, 0x27, 0x11})}}, OK,
     "10001|10001 1 0 0", 595},
    {"IntegrationTimeShort", NIR, GET(integration_time), {{N({0x3F, 0x69}), A({0, 0, 1})}}, IO},
    {"LevelOutput", NIR, GET(level_output), {{N({0x3F, 0x40}), A({7})}}, OK, "7"},

    // Identity and status. NIR temperatures are signed by their top five bits.
    {"TemperatureTopBit", NIR, GET(temperature), {{N({0x74}), A({0x80, 0x00})}}, OK, "0"},
    {"TemperatureFourTopBits", NIR, GET(temperature), {{N({0x74}), A({0xF0, 0x00})}}, OK, "0"},
    {"TemperatureNeverNegative", CM2, GET(temperature), {{Q(0xC1, 0x40, 1), R({0x12, 0x34, 0xFF, 0xF0})}}, OK,
     "4095"},
    {"HardwareVersionCut", CM2, TEXT(hardware_version, 8),
     {{Q(0xC1, 0x41, 2), R({1, 2, 0x0A, 0xFF, 9, 9, 9, 9})}}, OK, "01.02.0"},
    {"HardwareVersionCut", NIR, TEXT(hardware_version, 3), {{N({0x56}), A({'V', '2', '.', '1'})}}, OK, "V2"},
    {"Model", NIR, TEXT(device_model, 32), {{N({0xBB}), A({0x12, 0, 0, 0x1A, 0x2B, 0, 0, 0})}}, OK,
     "NIR-T2-1A2B"},
    // A model query unanswered still names the family.
    {"ModelUnanswered", NIR, TEXT(device_model, 32), {{N({0xBB}), {}}}, OK, "NIR"},
    {"DetectorSerialInOneByte", CM2, TEXT(detector_serial_number, 1), {{Q(0xC1, 0x44, 2), R(Bytes(8, 'D'))}},
     OK, ""},
    {"SerialNumberCut", CM2, TEXT(serial_number, 5),
     {{Q(0xC2, 4, 3), R({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J', 'K', 'L'})}}, OK, "ABCD"},
    {"SerialNumber", NIR, TEXT(serial_number, 32), {}, OK, "NIR"},
    // Twelve bytes: a longer serial is cut, with no terminator.
    {"SetSerialNumberLong", CM2, DO(set_serial_number("1234567890ABCDE")),
     {{W(0xC2, 4, {'1', '2', '3', '4', '5', '6', '7', '8', '9', '0', 'A', 'B'}), ACK}}, OK},
    // Padded with 0 from the terminator on, whatever lies behind it.
    {"SetSerialNumberShort", CM2, DO(set_serial_number("AB\0CDEFGHIJKLMN")),
     {{W(0xC2, 4, {'A', 'B', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), ACK}}, OK},
    {"UsbBaudRate", CM2, GET(usb_baud_rate), {{Q(0xC1, 0x43, 1), R({0xFF, 0xFF, 0, 0x60})}}, OK, "96"},
    {"UsbStatusSet", CM2, GET(usb_status), {{Q(0xC1, 0x50, 1), R({0, 0, 0, 0xAA})}}, OK, "1"},
    {"DeviceInfo", NIR, kDeviceInfo,
     {{N({0xBB}), A({3, 0, 0, 0, 0x42, 0, 0, 0})}, {N({0x56}), A({'1', '.', '7'})}}, OK,
     "2 511 NIR_LEGACY|NIR-T3-0042|NIR|1.7"},
    // Each request that fails leaves only its own field empty.
    {"DeviceInfoPastAFailedRequest", CM2, kDeviceInfo,
     {{Q(0xC1, 0x46, 4), R(Bytes(16, 'M'))}, {Q(0xC2, 4, 3), R(Bytes(12, 'S'), 0xE2)},
     {Q(0xC1, 0x41, 2), R({1, 0, 0, 2, 0, 0, 0, 0})}}, OK, "1 32767 UVVIS_CM2|MMMMMMMMMMMMMMMM||01.00.00.02"},

    // Stored values. An NIR instrument keeps none: a smoothing width is taken
    // and nothing sent.
    {"SetStoredSmoothingWidthSendsNothing", NIR, DO(set_stored_smoothing_width(3)), {}, OK},
    {"StoredIntegrationTime", CM2, cached(GET(stored_integration_time)), {{Q(0xC2, 0, 1), R({0, 1, 0, 0})}},
     OK, "65536|10000 1 0 0"},
    {"StoredAverageNumber", CM2, GET(stored_average_number), {{Q(0xC2, 1, 1), R({9, 9, 9, 0x21})}}, OK, "33"},
    {"StoredSmoothingWidth", CM2, GET(stored_smoothing_width), {{Q(0xC2, 2, 1), R({9, 9, 9, 0x22})}}, OK,
     "34"},
    {"SlitWidth", CM2, GET(slit_width), {{Q(0xC2, 3, 1), R({9, 9, 9, 0x23})}}, OK, "35"},
    {"WriteProtectOpen", CM2, GET(flash_write_protect), {{Q(0xC1, 0x12, 1), R({0, 0, 0, 0xEA})}}, OK, "1"},
    {"OpenWriteProtect", NIR, DO(set_flash_write_protect()), {{N({0xA5, 0xEA}), A({})}}, OK, "", 375},
    {"WriteProtectOpen", NIR, GET(flash_write_protect), {{N({0x3F, 0xA5}), A({0xEA})}}, OK, "1"},
    // A reset forgets the wavelength state, only when it succeeds.
    {"ResetUnanswered", CM2, cached(after(select_two, DO(reset_device()))),
     {{W(0xC1, 0x13, {0, 0, 0, 0xAA}), {}}}, TIMEOUT, "|10000 1 0 1"},
    {"Reset", CM2,
     cached(after([](device_slot &s) { select_two(s), s.wavelength_count = 9, s.average_number = 8; },
     DO(reset_device()))), {{W(0xC1, 0x13, {0, 0, 0, 0xAA}), ACK}}, OK, "|10000 8 0 0"},
    {"Reset", NIR, cached(after(select_two, DO(reset_device()))), {{N({0x52}), A({})}}, OK, "|10000 1 0 0",
     595},

    // Spectra. CM2 asks the point count first when it is not cached.
    {"Spectrum", CM2, cached(FILL(full_spectrum_data, 3)),
     {kCountQuery, {Q(0xC6, 0, 1024), R(be_samples({0x0102, 0xFFFE, 7}))}}, OK, "258 65534 7 .|10000 1 3 0"},
    {"SpectrumCutAtTheRoom", CM2, cached(after(count_4, FILL(full_spectrum_data, 5))),
     {{Q(0xC6, 0, 1024), R(be_samples({1, 2, 3, 4, 5, 6}))}}, OK, "1 2 3 4 5 .|10000 1 4 0"},
    // The selected part always asks the count, then the whole spectrum.
    {"SelectedSpectrum", CM2, after(select_two, FILL(selected_spectrum_data, 2)),
     {{Q(0xC2, 0x0B, 1), kCount4}, {Q(0xC6, 0, 1024), R(be_samples({10, 11, 12, 13}))}}, OK, "11 12 ."},
    {"SelectedSpectrumOfTooFewPoints", CM2, after(select_two, FILL(selected_spectrum_data, 2)),
     {{Q(0xC2, 0x0B, 1), R({0, 0, 0, 2})}}, IO},
    // NIR: the table's length is the count; the frame may carry marks.
    {"SelectedSpectrum", NIR, after(select_two, FILL(selected_spectrum_data, 2)),
     {kNirTable, {N({0x53}), A(concat({kShortMark, be_samples({4, 5, 6}), kEndMark}))}}, OK, "5 6 ."},
    {"SelectedSpectrumLongerThanTheTable", NIR, after(select_two, FILL(selected_spectrum_data, 2)),
     {kNirTable, {N({0x53}), A(be_samples({4, 5, 6, 7}))}}, ARG},
    {"SelectedSpectrumShort", NIR, after(select_two, FILL(selected_spectrum_data, 2)),
     {kNirTable, {N({0x53}), A(be_samples({4, 5}))}}, IO},
    // The spectrum's time limit is the NIR quiet time.
    {"SpectrumWaitsItsLimit", NIR, FILL(full_spectrum_data, 8), {{N({0x53}), A(be_samples({1}))}}, OK, "1 .",
     1090},
    {"SpectrumLimitCapped", NIR,
     after([](device_slot &s) { s.integration_time = 1200000, s.average_number = 100; },
     FILL(full_spectrum_data, 8)), {{N({0x53}), {}}}, TIMEOUT, "", 120005},
    frame("ShortMarks", concat({kShortMark, {1, 2, 3, 4}, kEndMark}), OK, "258 772 .|2"),
    frame("SamplesLikeTheLongMark", concat({kShortMark, {0xCC, 0x33, 0xDD, 0x22, 5, 6}, kEndMark}), OK,
     "1286 .|1"),
    frame("LongMarks", concat({kLongMark, {1, 2, 3, 4, 5, 6}, kEndMark}), OK, "258 772 1286 .|3"),
    frame("TooShortForTheLongMark", concat({kLongMark, {0x12, 0x34}}), OK, "52275 56610 4660 .|3"),
    frame("FourthByteNotAMark", {0xAA, 0x55, 0xBB, 0x45, 1, 2, 3, 4}, OK, "43605 47941 258 772 .|4"),
    frame("ShortMarkTooShortToCount", {0xAA, 0x55, 0xBB, 0x44, 1, 2}, OK, "43605 47940 258 .|3"),
    frame("OddLength", {1, 2, 3}, IO, "|99"),
    frame("MoreSamplesThanRoom", Bytes(18, 1), ARG, "|99"),

    // Wavelength calibration.
    {"Coefficients", CM2, kCoefficients,
     {{Q(0xC1, 0x20, 8), R(encode<double>({1.5, -2.25e-3, 3.0e-7, 400.125}))}}, OK,
     "1.5 -0.00225 3e-07 400.125 ."},
    {"CoefficientsOfALongerReply", NIR, kCoefficients,
     {{N({0x78}), A(concat({encode<double>({1, 2, 3, -4}), Bytes(8, 0xFF)}))}}, OK, "1 2 3 -4 ."},
    {"CountOfNoWholeEntry", NIR, GET(wavelength_count), {{N({0x3F, 0x53}), A(Bytes(10, 1))}}, IO},
    {"Table", CM2, cached(FILL(full_wavelength_data, 3)),
     {kCountQuery, {Q(0xC5, 0, 2048), R(le_floats({400.5f, 500.25f, -1.0f}))}}, OK,
     "400.5 500.25 -1 .|10000 1 3 0"},
    {"TableLongerThanTheRoom", NIR, cached(after(count_4, FILL(full_wavelength_data, 3))),
     {{N({0x3F, 0x53}), A(le_floats({1, 2, 3, 4, 5}))}}, ARG, "|10000 1 4 0"},
    {"TableOfNoWholeEntry", NIR, FILL(full_wavelength_data, 8), {{N({0x3F, 0x53}), A(Bytes(10, 0))}}, IO},
    // The end entries, smaller first: not the extremes in between.
    {"Ends", CM2, GET(full_wavelength_range),
     {kCountQuery, {Q(0xC5, 0, 2048), R(le_floats({800, 123, 500}))}}, OK, "500 800"},
    {"EndsWithNaN", NIR, GET(full_wavelength_range),
     repeat({}, 2, {N({0x3F, 0x53}), A(le_floats({kNaN, 5}))}), OK, "nan 5"},
    {"EndsOfNoPoints", CM2, GET(full_wavelength_range), {{Q(0xC2, 0x0B, 1), R({0, 0, 0, 0})}}, IO},
    // Setting a range reads the ends, then the count and the table again.
    {"Select", CM2, selection_after(405, 425),
     {{Q(0xC2, 0x0B, 1), kCount4}, kTable4, {Q(0xC2, 0x0B, 1), kCount4}, kTable4}, OK,
     "405 425 410 420 1 2 2"},
    {"Select", NIR, selection_after(1000, 1200),
     repeat({}, 4, {N({0x3F, 0x53}), A(le_floats({1000, 1100, 1200}))}), OK, "1000 1200 1000 1200 0 2 3"},
    // CM2 reads only the run, by entry address; NIR the whole table.
    {"SelectedWavelengths", CM2, after(select_three, FILL(selected_wavelength_data, 3)),
     {{Q(0xC5, 1, 3), R(le_floats({7.5f, 8.5f}))}}, OK, "7.5 8.5 ."},
    {"SelectedWavelengths", NIR, after(select_two, FILL(selected_wavelength_data, 2)),
     repeat({}, 2, kNirTable), OK, "2 3 ."},

    // Flash pages. CM2: a command block, polls 50 ms apart until done, then
    // the page buffer in whole words, at most 1024 bytes.
    {"PageRead", CM2, page_read(0x0A0B, 10),
     {block(0x4A, {0xC0, 0xDD, 0x0A, 0x0B}), poll(0x4A, 0x00), poll(0x4A, 0xDD), poll(0x4A, 0xAA),
     {Q(0xC7, 0, 3), R(Bytes(16, 0x61))}}, 12, "12 97", 100},
    {"PageReadAtMost1024", CM2, page_read(1, 1500),
     {block(0x4A, {0xC0, 0xDD, 0, 1}), poll(0x4A, 0xAA), {Q(0xC7, 0, 256), R(Bytes(1040, 0x61))}}, 1024,
     "1024 97", 0},
    {"PageReadShort", CM2, page_read(1, 8),
     {block(0x4A, {0xC0, 0xDD, 0, 1}), poll(0x4A, 0xAA), {Q(0xC7, 0, 2), R({1, 2, 3, 4})}}, 4, "4 1"},
    {"PageReadStatusShort", CM2, page_read(3, 16),
     {block(0x4A, {0xC0, 0xDD, 0, 3}), {Q(0xC1, 0x4A, 2), R({0, 0xAA, 0, 0})}}, IO, "0 239"},
    {"PageReadGivesUp", CM2, page_read(3, 16),
     repeat({block(0x4A, {0xC0, 0xDD, 0, 3})}, 50, poll(0x4A, 0)), TIMEOUT, "0 239", 2500},
    // The write opens the protection, fills the buffer, and commands the page
    // with the CRC-32 of the caller's bytes.
    {"PageWrite", CM2, page_write(0x0102, {'a', 'b', 'c'}, 3),
     {kOpenProtection, {W(0xC7, 0, {'a', 'b', 'c'}), ACK},
     block(0x4A, {0xCF, 0xDD, 1, 2, 0x35, 0x24, 0x41, 0xC2}), poll(0x4A, 0x01), poll(0x4A, 0xAA)}, OK, "",
     50},
    {"PageWriteEmpty", CM2, page_write(9, {}, 0),
     {kOpenProtection, {W(0xC7, 0, {}), ACK}, block(0x4A, {0xCF, 0xDD, 0, 9}), poll(0x4A, 0xAA)}, OK},
    {"PageWriteGivesUp", CM2, page_write(3, {1, 2, 3, 4}, 4),
     repeat({kOpenProtection, {W(0xC7, 0, {1, 2, 3, 4}), ACK},
     block(0x4A, {0xCF, 0xDD, 0, 3, 0xB6, 0x3C, 0xFB, 0xCD})}, 50, poll(0x4A, 0)), TIMEOUT, "", 2500},
    // NIR: one command each way, a second of quiet.
    {"PageRead", NIR, page_read(0x0102, 16), {{N({0x3F, 0xAF, 1, 2}), A(Bytes(20, 0x33))}}, 16, "16 51",
     1090},
    {"PageWriteLongest", NIR, page_write(7, kLong, 8187), {{N(concat({{0xAF, 0, 7}, kLong})), A({})}}, OK},

    // An external spectrum: a start block, polls 10 ms apart, then the
    // spectrum, of which at most count values are stored.
    {"ExternalSpectrum", CM2, external(0x1234, 3),
     {block(0x4C, {0xC0, 0xDD, 0x12, 0x34}), poll(0x4C, 0), poll(0x4C, 0xAA),
     {Q(0xC6, 0, 1024), R({0x01, 0x02, 0xFF, 0xFE})}}, 4, "2 258", 10},
    {"ExternalSpectrumWhole", CM2, external(7, 3000),
     {block(0x4C, {0xC0, 0xDD, 0, 7}), poll(0x4C, 0xAA), {Q(0xC6, 0, 1024), R(Bytes(4096, 0x21))}}, 4096,
     "2048 8481"},
    {"ExternalSpectrumGivesUp", CM2, external(1, 3),
     repeat({block(0x4C, {0xC0, 0xDD, 0, 1})}, 200, poll(0x4C, 0x55)), TIMEOUT, "0 48879", 2000},
};
// clang-format on

class Operations : public DeviceTest, public ::testing::WithParamInterface<Row> {};

TEST_P(Operations, SendTheirRequestsAndDecodeTheReplies) {
    const Row &row = GetParam();
    const int device = row.nir ? open_nir() : open_cm2();
    for (const Traffic &t : row.traffic)
        bridge.expect(device, t.request, t.reply.empty() ? std::vector<Chunk>{} : at_once(t.reply));
    const double start = bridge.now_ms();
    Out out;
    EXPECT_EQ(row.call(out), row.result);
    EXPECT_EQ(out, row.out);
    EXPECT_EQ(row.ms >= 0 ? bridge.now_ms() - start : -1, row.ms);
}

INSTANTIATE_TEST_SUITE_P(Rows, Operations, ::testing::ValuesIn(kRows), ::testing::PrintToStringParamName());

// Selecting a range on tables of every shape, on an instrument that answers
// any table request. A set that fails keeps the selection before it whole.
class Selection : public DeviceTest, public ::testing::WithParamInterface<bool> {};

TEST_P(Selection, Cases) {
    SpectralModel model;
    model.serve(bridge, GetParam() ? open_nir() : open_cm2(), GetParam());
    const std::vector<float> rising{400, 410, 420, 430, 440};
    std::vector<float> many(2049, 500);
    many[0] = 400;
    const struct {
        std::vector<float> table;
        double start, end;
        Out selection;  // result; requested ends, actual ends, first and last index, count
    } cases[] = {
        {rising, 400, 440, "0 400 440 400 440 0 4 5"},
        {rising, 405, 425, "0 405 425 410 420 1 2 2"},
        {rising, 419, 421, "0 419 421 420 420 2 2 1"},
        {rising, 411, 419, "-5"},  // between two entries
        {rising, 420, 420, "-5"},
        {rising, 430, 420, "-5"},
        {rising, std::nan(""), 420, "-5"},
        {rising, 399.5, 420, "-5"},
        {rising, 400, 440.5, "-5"},
        {{440, 430, 420, 410, 400}, 405, 425, "0 405 425 420 410 2 3 2"},
        {{400, kNaN, 420, 430}, 400, 420, "0 400 420 400 420 0 2 3"},  // a NaN is never inside
        {{400, kNaN, 420, 430}, 401, 425, "0 401 425 420 420 2 2 1"},
        {{400, 420, 500, 410, 430}, 405, 425, "0 405 425 420 410 1 3 3"},  // the run spans the outsider
        // NIR cuts the reply at 2048 entries; CM2 finds a short table.
        {many, 400, 500, GetParam() ? "0 400 500 400 500 0 2047 2048" : "-4"},
    };
    for (const auto &c : cases) {
        model.table = {1, 2, 3};
        ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(1, 2), OK);
        model.table = c.table;
        Out out;
        const int32_t rc = selection_after(c.start, c.end)(out);
        EXPECT_EQ(str(rc) + " " + out, c.selection.size() > 2 ? c.selection : c.selection + " 1 2 1 2 0 1 2")
            << c.start << " to " << c.end;
    }
    model.table = rising;
    ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(405, 435), OK);
    Out run;
    fill(kavrel_direct_get_selected_wavelength_data, 3)(run);
    EXPECT_EQ(run, "410 420 430 .");
}

INSTANTIATE_TEST_SUITE_P(Both, Selection, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Nir" : "Cm2"; });

}  // namespace
}  // namespace kavrel::test
