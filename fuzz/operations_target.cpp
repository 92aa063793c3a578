// Every exported operation against instruments that answer with the
// fuzzer's bytes, with fuzzer-chosen counts, capacities, ranges and lengths
// and caller buffers of exactly the size declared.
//
// The input: a byte choosing how many bridges are attached and the protocol
// preference bridge 0 is opened with, a byte with the number of operations,
// that many records of an operation byte and two 32-bit arguments, then the
// reply stream of fuzz_bridge.h that answers every write of every operation.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "fuzz_bridge.h"
#include "kavrel_direct.h"
#include "transport/cm2_exchange.h"

using namespace kavrel::fuzz;

namespace {

constexpr size_t kRecordBytes = 9;

// With KAVREL_FUZZ_TRACE set, every operation and its result go to stderr:
// how to read what an input does, a crash's input above all.
const char *g_operation = "open";
bool tracing() {
    static const bool on = std::getenv("KAVREL_FUZZ_TRACE") != nullptr;
    return on;
}

bool is_result(int32_t rc) {
    if (tracing()) std::fprintf(stderr, "  %s: %d\n", g_operation, static_cast<int>(rc));
    return rc <= KAVREL_DIRECT_OK && rc >= KAVREL_DIRECT_ERR_UNSUPPORTED;
}

// Counts and capacities: mostly around the sizes the protocols know (2048
// points, 4096 spectrum bytes, 8187 NIR flash bytes), now and then anything.
int32_t count_arg(uint32_t v) {
    return (v & 0x80000000u) != 0 ? static_cast<int32_t>(v) : static_cast<int32_t>(v % 9000);
}

size_t room(int32_t n) {
    return n > 0 ? static_cast<size_t>(n) : 0;
}

// An output written on success only.
template <typename T>
void written_on_success(int32_t rc, const Output<T> &out) {
    require(is_result(rc));
    require(rc == KAVREL_DIRECT_OK || out.untouched());
}

template <typename T>
void get_one(int32_t (*get)(T *)) {
    const Output<T> out(1);
    written_on_success(get(out.get()), out);
}

template <typename T>
void get_array(int32_t (*get)(T *, int32_t), uint32_t a) {
    const int32_t capacity = count_arg(a);
    const Output<T> out(room(capacity));
    written_on_success(get(out.get(), capacity), out);
}

void get_text(int32_t (*get)(char *, int32_t), uint32_t a) {
    const int32_t size = (a & 0x80000000u) != 0 ? static_cast<int32_t>(a) : static_cast<int32_t>(a % 80);
    const Output<char> out(room(size));
    const int32_t rc = get(out.get(), size);
    written_on_success(rc, out);
    if (rc == KAVREL_DIRECT_OK) require(std::memchr(out.get(), '\0', out.size()) != nullptr);
}

void set(int32_t rc) {
    require(is_result(rc));
}

// A text of a fuzzer-chosen length on the heap, terminated.
Output<char> text_arg(uint32_t a) {
    Output<char> text(a % 24 + 1);
    for (size_t i = 0; i + 1 < text.size(); ++i) text.get()[i] = static_cast<char>('A' + i % 26);
    text.get()[text.size() - 1] = '\0';
    return text;
}

double wavelength_arg(uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

void get_device_info() {
    const Output<kavrel_direct_device_info> info(1);
    const int32_t rc = kavrel_direct_get_device_info(info.get());
    written_on_success(rc, info);
    if (rc != KAVREL_DIRECT_OK) return;
    const kavrel_direct_device_info &i = *info.get();
    require(std::memchr(i.protocol_name, '\0', sizeof i.protocol_name) &&
            std::memchr(i.model, '\0', sizeof i.model) &&
            std::memchr(i.serial_number, '\0', sizeof i.serial_number) &&
            std::memchr(i.hardware_version, '\0', sizeof i.hardware_version));
}

void flash_read(uint32_t a, uint32_t b) {
    uint32_t protocol = 0;
    kavrel_direct_get_device_protocol(&protocol);
    const int32_t length = count_arg(b);
    // A CM2 page is read in whole words: the buffer holds the length rounded
    // up to a word, at most 1024 bytes.
    const bool words = protocol != KAVREL_DIRECT_PROTOCOL_NIR;
    const int32_t holds = words && length > 0 && length <= 1024 ? (length + 3) / 4 * 4 : length;
    const Output<uint8_t> buffer(room(holds));
    const int32_t rc = kavrel_direct_flash_read(static_cast<uint16_t>(a), buffer.get(), length);
    if (rc >= 0) require(rc <= holds);
    written_on_success(rc < 0 ? rc : 0, buffer);
}

void flash_write(uint32_t a, uint32_t b) {
    const int32_t length = count_arg(b);
    const Output<uint8_t> data(room(length));
    set(kavrel_direct_flash_write(static_cast<uint16_t>(a), data.get(), length));
}

void external_spectrum(uint32_t a, uint32_t b) {
    const int32_t count = count_arg(b);
    const Output<uint16_t> spectrum(room(count));
    const int32_t rc =
        kavrel_direct_external_spectrum_control(static_cast<uint16_t>(a), spectrum.get(), count);
    // Twice the number of values stored.
    if (rc >= 0) require(rc % 2 == 0 && rc / 2 <= count);
    written_on_success(rc < 0 ? rc : 0, spectrum);
}

void chip_serial(uint32_t a, uint32_t b) {
    const int32_t size = (b & 0x80000000u) != 0 ? static_cast<int32_t>(b) : static_cast<int32_t>(b % 24);
    const Output<char> buffer(room(size));
    written_on_success(kavrel_direct_get_chip_serial_by_index(count_arg(a) % 80, buffer.get(), size), buffer);
}

// The raw pass-through, which keeps what arrived even when a later read fails.
void send_recv(uint32_t a, uint32_t b) {
    const Output<uint8_t> request(a % 64);
    uint32_t length = b % 20000;
    const Output<uint8_t> reply(length);
    const int32_t rc =
        kavrel_direct_send_recv(request.get(), static_cast<uint32_t>(request.size()), reply.get(), &length);
    require(is_result(rc) && length <= reply.size());
}

struct Operation {
    const char *name;
    void (*run)(uint32_t a, uint32_t b);
};

const Operation kOperations[] = {
    // The device table.
    {"scan", [](uint32_t, uint32_t) { require(kavrel_direct_scan_devices() <= 64); }},
    {"chip_serial", chip_serial},
    {"open", [](uint32_t a, uint32_t) { set(kavrel_direct_open_device(count_arg(a) % 80)); }},
    {"open_by_serial",
     [](uint32_t a, uint32_t) {
         char serial[16];
         std::snprintf(serial, sizeof serial, "FZ%04u", static_cast<unsigned>(a % 80));
         set(kavrel_direct_open_device_by_chip_serial((a & 0x100) != 0 ? "" : serial));
     }},
    {"close", [](uint32_t, uint32_t) { kavrel_direct_close_device(); }},
    {"close_all", [](uint32_t, uint32_t) { kavrel_direct_close_all_devices(); }},
    {"select", [](uint32_t a, uint32_t) { set(kavrel_direct_select_device(count_arg(a) % 6)); }},
    {"preference",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_protocol_preference(static_cast<int32_t>(a % 4))); }},
    {"protocol", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_device_protocol); }},
    {"capabilities", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_capabilities); }},
    // Acquisition settings.
    {"set_integration_time", [](uint32_t a, uint32_t) { set(kavrel_direct_set_integration_time(a)); }},
    {"integration_time", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_integration_time); }},
    {"set_average_number",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_average_number(static_cast<uint8_t>(a))); }},
    {"average_number", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_average_number); }},
    {"set_level_output",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_level_output(static_cast<uint8_t>(a))); }},
    {"level_output", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_level_output); }},
    {"set_xenon_pulse", [](uint32_t a, uint32_t b) { set(kavrel_direct_set_xenon_pulse(a, b)); }},
    {"xenon_pulse",
     [](uint32_t, uint32_t) {
         const Output<uint32_t> first(1), second(1);
         const int32_t rc = kavrel_direct_get_xenon_pulse(first.get(), second.get());
         written_on_success(rc, first);
         written_on_success(rc, second);
     }},
    {"set_xenon_mode",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_xenon_mode(static_cast<uint8_t>(a))); }},
    {"xenon_mode", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_xenon_mode); }},
    {"set_trigger",
     [](uint32_t a, uint32_t) {
         set(kavrel_direct_set_external_trigger_config(static_cast<uint8_t>(a), static_cast<uint8_t>(a >> 8),
                                                       static_cast<uint8_t>(a >> 16)));
     }},
    {"trigger",
     [](uint32_t, uint32_t) {
         const Output<uint8_t> first(1), second(1), third(1);
         const int32_t rc = kavrel_direct_get_external_trigger_config(first.get(), second.get(), third.get());
         written_on_success(rc, first);
         written_on_success(rc, second);
         written_on_success(rc, third);
     }},
    {"set_dac", [](uint32_t a, uint32_t) { set(kavrel_direct_set_dac_voltage(static_cast<uint16_t>(a))); }},
    {"dac", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_dac_voltage); }},
    {"capture_status", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_spectrum_capture_status); }},
    // Identity and status.
    {"temperature", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_temperature); }},
    {"hardware_version", [](uint32_t a, uint32_t) { get_text(kavrel_direct_get_hardware_version, a); }},
    {"detector_serial", [](uint32_t a, uint32_t) { get_text(kavrel_direct_get_detector_serial_number, a); }},
    {"model", [](uint32_t a, uint32_t) { get_text(kavrel_direct_get_device_model, a); }},
    {"set_baud_rate",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_usb_baud_rate(static_cast<uint16_t>(a))); }},
    {"baud_rate", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_usb_baud_rate); }},
    {"usb_status", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_usb_status); }},
    {"set_serial",
     [](uint32_t a, uint32_t) {
         const Output<char> serial = text_arg(a);
         set(kavrel_direct_set_serial_number(serial.get()));
     }},
    {"serial", [](uint32_t a, uint32_t) { get_text(kavrel_direct_get_serial_number, a); }},
    {"device_info", [](uint32_t, uint32_t) { get_device_info(); }},
    // Stored defaults and maintenance.
    {"set_stored_integration_time",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_stored_integration_time(a)); }},
    {"stored_integration_time",
     [](uint32_t, uint32_t) { get_one(kavrel_direct_get_stored_integration_time); }},
    {"set_stored_average_number",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_stored_average_number(static_cast<uint8_t>(a))); }},
    {"stored_average_number", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_stored_average_number); }},
    {"set_stored_smoothing",
     [](uint32_t a, uint32_t) { set(kavrel_direct_set_stored_smoothing_width(static_cast<uint8_t>(a))); }},
    {"stored_smoothing", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_stored_smoothing_width); }},
    {"slit_width", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_slit_width); }},
    {"open_write_protect", [](uint32_t, uint32_t) { set(kavrel_direct_set_flash_write_protect()); }},
    {"write_protect", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_flash_write_protect); }},
    {"reset", [](uint32_t, uint32_t) { set(kavrel_direct_reset_device()); }},
    // Spectral data and memory.
    {"coefficients",
     [](uint32_t, uint32_t) {
         const Output<double> coefficients(4);
         written_on_success(kavrel_direct_get_calibration_coefficients(coefficients.get()), coefficients);
     }},
    {"wavelength_count", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_wavelength_count); }},
    {"wavelengths", [](uint32_t a, uint32_t) { get_array(kavrel_direct_get_full_wavelength_data, a); }},
    {"wavelength_ends",
     [](uint32_t, uint32_t) {
         const Output<double> first(1), last(1);
         const int32_t rc = kavrel_direct_get_full_wavelength_range(first.get(), last.get());
         written_on_success(rc, first);
         written_on_success(rc, last);
     }},
    {"select_range",
     [](uint32_t a, uint32_t b) {
         set(kavrel_direct_set_selected_wavelength_range(wavelength_arg(a), wavelength_arg(b)));
     }},
    {"selection", [](uint32_t, uint32_t) { get_one(kavrel_direct_get_selected_wavelength_range); }},
    {"selected_wavelengths",
     [](uint32_t a, uint32_t) { get_array(kavrel_direct_get_selected_wavelength_data, a); }},
    {"spectrum", [](uint32_t a, uint32_t) { get_array(kavrel_direct_get_full_spectrum_data, a); }},
    {"selected_spectrum",
     [](uint32_t a, uint32_t) { get_array(kavrel_direct_get_selected_spectrum_data, a); }},
    {"flash_read", flash_read},
    {"flash_write", flash_write},
    {"external_spectrum", external_spectrum},
    {"send_recv", send_recv},
};

// What holds between any two calls, whatever the instruments sent.
void check_table() {
    const int32_t open = kavrel_direct_get_open_device_count();
    require(open >= 0 && open <= 4);
    const int32_t active = kavrel_direct_is_open();
    require(active == 0 || (active == 1 && open > 0));
    uint32_t protocol = 0;
    if (active == 1) {
        require(kavrel_direct_get_device_protocol(&protocol) == KAVREL_DIRECT_OK);
        require(protocol == KAVREL_DIRECT_PROTOCOL_CM2 || protocol == KAVREL_DIRECT_PROTOCOL_NIR);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in(data, size);
    const uint8_t setup = in.byte();
    size_t records = in.byte();
    size_t record_bytes = records * kRecordBytes;
    Input calls(in.take(record_bytes), record_bytes);
    records = record_bytes / kRecordBytes;

    // Up to 70 bridges, past the 64 a listing holds.
    FuzzBridge bridge(setup % 71, in);
    g_operation = "open";
    set(kavrel_direct_set_protocol_preference(static_cast<int32_t>((setup >> 6) % 3)));
    set(kavrel_direct_open_device(0));
    check_table();
    for (size_t i = 0; i < records; ++i) {
        const uint8_t which = calls.byte();
        const uint32_t a = calls.be32(), b = calls.be32();
        const Operation &operation = kOperations[which % std::size(kOperations)];
        g_operation = operation.name;
        operation.run(a, b);
        check_table();
    }
    return 0;
}

namespace {

constexpr uint8_t kTwoBridgesAuto = 2, kTwoBridgesCm2 = 73, kTwoBridgesNir = 144;

uint32_t float_bits(float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// An input under construction: operations and the replies their writes get.
class Script {
public:
    explicit Script(uint8_t setup) : setup_(setup) {}
    Script &reply(const Bytes &bytes) {
        put_chunk(stream_, bytes);
        return *this;
    }
    Script &call(const char *name, uint32_t a = 0, uint32_t b = 0) {
        size_t index = 0;
        while (std::strcmp(kOperations[index].name, name) != 0) ++index;
        calls_.push_back(static_cast<uint8_t>(index));
        put_be32(calls_, a);
        put_be32(calls_, b);
        return *this;
    }
    Bytes bytes() const {
        Bytes out{setup_, static_cast<uint8_t>(calls_.size() / kRecordBytes)};
        out.insert(out.end(), calls_.begin(), calls_.end());
        out.insert(out.end(), stream_.begin(), stream_.end());
        return out;
    }

private:
    uint8_t setup_;
    Bytes calls_, stream_;
};

Bytes table_bytes() {
    Bytes out;
    for (float wavelength : {400.0f, 410.0f, 420.0f, 430.0f, 440.0f}) put_be32(out, float_bits(wavelength));
    // Least significant byte first on the wire.
    for (size_t i = 0; i < out.size(); i += 4)
        std::swap(out[i], out[i + 3]), std::swap(out[i + 1], out[i + 2]);
    return out;
}

const Bytes kSamples = {0, 10, 0, 11, 0, 12, 0, 13, 0, 14};
const Bytes kDone = {0xC0, 0xAA, 0, 0, 0, 0, 0, 0};

}  // namespace

std::vector<Seed> kavrel::fuzz::seeds() {
    const Bytes count = cm2_answer(0xC2, 0x0B, {0, 0, 0, 5}), table = cm2_answer(0xC5, 0, table_bytes());
    const Bytes nir_table = nir_answer(table_bytes());
    Bytes nir_spectrum = {0xAA, 0x55, 0xBB, 0x44};
    nir_spectrum.insert(nir_spectrum.end(), kSamples.begin(), kSamples.end());
    nir_spectrum.insert(nir_spectrum.end(), {0xDD, 0xDD, 0xAA, 0xAA});
    const uint32_t from = float_bits(405), to = float_bits(435);
    return {
        {"cm2_settings", Script(kTwoBridgesCm2)
                             .call("temperature")
                             .reply(cm2_answer(0xC1, 0x40, {0, 0, 0x01, 0x90}))
                             .call("model", 20)
                             .reply(cm2_answer(0xC1, 0x46, Bytes(16, 'M')))
                             .call("set_integration_time", 20000)
                             .reply(cm2_answer(0xC1, 0, {}))
                             .call("device_info")
                             .reply(cm2_answer(0xC1, 0x46, Bytes(16, 'M')))
                             .reply(cm2_answer(0xC2, 0x04, Bytes(12, 'S')))
                             .reply(cm2_answer(0xC1, 0x41, {1, 2, 3, 4, 0, 0, 0, 0}))
                             .bytes()},
        {"cm2_spectral", Script(kTwoBridgesCm2)
                             .call("wavelength_count")
                             .reply(count)
                             .call("wavelengths", 8)
                             .reply(table)
                             .call("spectrum", 8)
                             .reply(cm2_answer(0xC6, 0, kSamples))
                             .call("select_range", from, to)
                             .reply(count)
                             .reply(table)
                             .reply(count)
                             .reply(table)
                             .call("selected_spectrum", 3)
                             .reply(count)
                             .reply(cm2_answer(0xC6, 0, kSamples))
                             .bytes()},
        {"cm2_flash", Script(kTwoBridgesCm2)
                          .call("flash_read", 3, 16)
                          .reply(cm2_answer(0xC1, 0x4A, {}))
                          .reply(cm2_answer(0xC1, 0x4A, kDone))
                          .reply(cm2_answer(0xC7, 0, Bytes(16, 0x5A)))
                          .call("flash_write", 3, 8)
                          .reply(cm2_answer(0xC1, 0x12, {}))
                          .reply(cm2_answer(0xC7, 0, {}))
                          .reply(cm2_answer(0xC1, 0x4A, {}))
                          .reply(cm2_answer(0xC1, 0x4A, kDone))
                          .call("external_spectrum", 1, 8)
                          .reply(cm2_answer(0xC1, 0x4C, {}))
                          .reply(cm2_answer(0xC1, 0x4C, kDone))
                          .reply(cm2_answer(0xC6, 0, kSamples))
                          .bytes()},
        {"nir_settings", Script(kTwoBridgesNir)
                             .call("temperature")
                             .reply(nir_answer({0x01, 0x90}))
                             .call("model", 20)
                             .reply(nir_answer({0x13, 0, 0, 0x12, 0x34, 0, 0, 0}))
                             .call("hardware_version", 20)
                             .reply(nir_answer({'V', '1', '.', '2'}))
                             .call("set_integration_time", 20000)
                             .reply(nir_answer({}))
                             .bytes()},
        {"nir_spectral", Script(kTwoBridgesNir)
                             .call("spectrum", 8)
                             .reply(nir_answer(nir_spectrum))
                             .call("select_range", from, to)
                             .reply(nir_table)
                             .reply(nir_table)
                             .reply(nir_table)
                             .reply(nir_table)
                             .call("selected_wavelengths", 3)
                             .reply(nir_table)
                             .reply(nir_table)
                             .call("flash_read", 3, 16)
                             .reply(nir_answer(Bytes(16, 0x5A)))
                             .bytes()},
        {"probe_then_switch", Script(kTwoBridgesAuto)
                                  .reply({})
                                  .reply(nir_answer({'1', '.', '0'}))
                                  .call("open", 1)
                                  .reply(cm2_answer(0xC1, 0x46, Bytes(16, 'M')))
                                  .call("select", 0)
                                  .call("temperature")
                                  .reply(nir_answer({0x01, 0x90}))
                                  .bytes()},
    };
}
