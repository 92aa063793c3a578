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
#include <type_traits>

#include "fuzz_bridge.h"
#include "kavrel_direct.h"
#include "transport/cm2_exchange.h"

using namespace kavrel::fuzz;

namespace {

constexpr size_t kRecordBytes = 9;

// With KAVREL_FUZZ_TRACE set, every operation and its result go to stderr:
// how to read what an input does, a crash's input above all.
const char *g_operation = "open";

// A result the header lists, with every output given left alone unless the
// call succeeded.
template <typename... T>
int32_t check(int32_t rc, const Output<T> &...outputs) {
    static const bool tracing = std::getenv("KAVREL_FUZZ_TRACE") != nullptr;
    if (tracing) std::fprintf(stderr, "  %s: %d\n", g_operation, static_cast<int>(rc));
    require(rc <= KAVREL_DIRECT_OK && rc >= KAVREL_DIRECT_ERR_UNSUPPORTED);
    require(rc == KAVREL_DIRECT_OK || (outputs.untouched() && ...));
    return rc;
}

// Counts and capacities: mostly around the sizes the protocols know (2048
// points, 4096 spectrum bytes, 8187 NIR flash bytes), now and then anything.
int32_t count_arg(uint32_t v) {
    return size_arg(v, 9000);
}

// Getters: N values per pointer (four calibration coefficients).
template <size_t N, typename... T>
void get_all(int32_t (*call)(T *...)) {
    [call](const Output<T> &...out) { check(call(out.get()...), out...); }(Output<T>(N)...);
}

// Arrays and texts: a buffer of exactly the capacity declared; a text is
// terminated within it.
template <typename T>
void fill(int32_t (*call)(T *, int32_t), int32_t capacity) {
    const Output<T> out(room(capacity));
    if (check(call(out.get(), capacity), out) == KAVREL_DIRECT_OK && std::is_same_v<T, char>)
        require(std::memchr(out.get(), '\0', out.n) != nullptr);
}

// Setters of one value take it cut to its type.
template <typename T>
void set_from(int32_t (*call)(T), uint32_t a) {
    check(call(static_cast<T>(a)));
}

// The table's entries for the common shapes of operation.
template <auto Call>
struct Op {
    static void get(uint32_t, uint32_t) { get_all<1>(Call); }
    static void array(uint32_t a, uint32_t) { fill(Call, count_arg(a)); }
    static void text(uint32_t a, uint32_t) { fill(Call, size_arg(a, 80)); }
    static void set(uint32_t a, uint32_t) { set_from(Call, a); }
    static void command(uint32_t, uint32_t) { check(Call()); }
};

double wavelength_arg(uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

template <size_t N>
bool terminated(const char (&text)[N]) {
    return std::memchr(text, '\0', N) != nullptr;
}

void device_info(uint32_t, uint32_t) {
    const Output<kavrel_direct_device_info> info(1);
    const kavrel_direct_device_info &i = *info.get();
    if (check(kavrel_direct_get_device_info(info.get()), info) == KAVREL_DIRECT_OK)
        require(terminated(i.protocol_name) && terminated(i.model) && terminated(i.serial_number) &&
                terminated(i.hardware_version));
}

void flash_read(uint32_t a, uint32_t b) {
    uint32_t protocol = 0;
    kavrel_direct_get_device_protocol(&protocol);
    const int32_t length = count_arg(b);
    // A CM2 page is read in whole words: the buffer holds the length rounded
    // up to a word, at most 1024 bytes.
    const bool words = protocol != KAVREL_DIRECT_PROTOCOL_NIR && length > 0 && length <= 1024;
    const int32_t holds = words ? (length + 3) / 4 * 4 : length;
    const Output<uint8_t> buffer(room(holds));
    const int32_t rc = kavrel_direct_flash_read(static_cast<uint16_t>(a), buffer.get(), length);
    check(rc < 0 ? rc : 0, buffer);
    require(rc < 0 || rc <= holds);
}

void flash_write(uint32_t a, uint32_t b) {
    const int32_t length = count_arg(b);
    const Output<uint8_t> data(room(length));
    check(kavrel_direct_flash_write(static_cast<uint16_t>(a), data.get(), length));
}

void external_spectrum(uint32_t a, uint32_t b) {
    const int32_t count = count_arg(b);
    const Output<uint16_t> spectrum(room(count));
    const int32_t rc =
        kavrel_direct_external_spectrum_control(static_cast<uint16_t>(a), spectrum.get(), count);
    check(rc < 0 ? rc : 0, spectrum);
    require(rc < 0 || (rc % 2 == 0 && rc / 2 <= count));  // twice the number of values stored
}

void chip_serial(uint32_t a, uint32_t b) {
    const int32_t size = size_arg(b, 24);
    const Output<char> buffer(room(size));
    check(kavrel_direct_get_chip_serial_by_index(count_arg(a) % 80, buffer.get(), size), buffer);
}

void open_by_serial(uint32_t a, uint32_t) {
    char serial[16];
    std::snprintf(serial, sizeof serial, "FZ%04u", static_cast<unsigned>(a % 80));
    check(kavrel_direct_open_device_by_chip_serial((a & 0x100) != 0 ? "" : serial));
}

// A terminated text of a fuzzer-chosen length on the heap.
void set_serial(uint32_t a, uint32_t) {
    const Output<char> serial(a % 24 + 1);
    for (size_t i = 0; i + 1 < serial.n; ++i) serial.get()[i] = static_cast<char>('A' + i % 26);
    serial.get()[serial.n - 1] = '\0';
    check(kavrel_direct_set_serial_number(serial.get()));
}

// The raw pass-through, which keeps what arrived even when a later read fails.
void send_recv(uint32_t a, uint32_t b) {
    const Output<uint8_t> request(a % 64);
    uint32_t length = b % 20000;
    const Output<uint8_t> reply(length);
    check(kavrel_direct_send_recv(request.get(), static_cast<uint32_t>(request.n), reply.get(), &length));
    require(length <= reply.n);
}

struct Operation {
    const char *name;
    void (*run)(uint32_t a, uint32_t b);
};

#define OP(kind, name) \
    { #name, Op < kavrel_direct_##name> ::kind }
#define SET_GET(name) OP(set, set_##name), OP(get, get_##name)

// The order is the input format: an operation byte picks its row.
// clang-format off
const Operation kOperations[] = {
    // The device table.
    {"scan", [](uint32_t, uint32_t) { require(kavrel_direct_scan_devices() <= 64); }},
    {"chip_serial", chip_serial},
    {"open", [](uint32_t a, uint32_t) { check(kavrel_direct_open_device(count_arg(a) % 80)); }},
    {"open_by_serial", open_by_serial},
    {"close", [](uint32_t, uint32_t) { kavrel_direct_close_device(); }},
    {"close_all", [](uint32_t, uint32_t) { kavrel_direct_close_all_devices(); }},
    {"select", [](uint32_t a, uint32_t) { check(kavrel_direct_select_device(count_arg(a) % 6)); }},
    {"preference", [](uint32_t a, uint32_t) { set_from(kavrel_direct_set_protocol_preference, a % 4); }},
    OP(get, get_device_protocol), OP(get, get_capabilities),
    // Acquisition settings.
    SET_GET(integration_time), SET_GET(average_number), SET_GET(level_output),
    {"set_xenon_pulse", [](uint32_t a, uint32_t b) { check(kavrel_direct_set_xenon_pulse(a, b)); }},
    OP(get, get_xenon_pulse), SET_GET(xenon_mode),
    {"set_trigger", [](uint32_t a, uint32_t) {
         const auto byte = [a](int n) { return static_cast<uint8_t>(a >> 8 * n); };
         check(kavrel_direct_set_external_trigger_config(byte(0), byte(1), byte(2)));
     }},
    OP(get, get_external_trigger_config), SET_GET(dac_voltage), OP(get, get_spectrum_capture_status),
    // Identity and status.
    OP(get, get_temperature), OP(text, get_hardware_version), OP(text, get_detector_serial_number),
    OP(text, get_device_model), SET_GET(usb_baud_rate), OP(get, get_usb_status),
    {"set_serial", set_serial}, OP(text, get_serial_number), {"device_info", device_info},
    // Stored defaults and maintenance.
    SET_GET(stored_integration_time), SET_GET(stored_average_number), SET_GET(stored_smoothing_width),
    OP(get, get_slit_width), OP(command, set_flash_write_protect), OP(get, get_flash_write_protect),
    OP(command, reset_device),
    // Spectral data and memory.
    {"coefficients", [](uint32_t, uint32_t) { get_all<4>(kavrel_direct_get_calibration_coefficients); }},
    OP(get, get_wavelength_count), OP(array, get_full_wavelength_data), OP(get, get_full_wavelength_range),
    {"select_range", [](uint32_t a, uint32_t b) {
         check(kavrel_direct_set_selected_wavelength_range(wavelength_arg(a), wavelength_arg(b)));
     }},
    OP(get, get_selected_wavelength_range), OP(array, get_selected_wavelength_data),
    OP(array, get_full_spectrum_data), OP(array, get_selected_spectrum_data),
    {"flash_read", flash_read}, {"flash_write", flash_write}, {"external_spectrum", external_spectrum},
    {"send_recv", send_recv},
};
// clang-format on
static_assert(std::size(kOperations) == 58, "the seeds pick operations by their row");

// What holds between any two calls, whatever the instruments sent.
void check_table() {
    const int32_t open = kavrel_direct_get_open_device_count();
    const int32_t active = kavrel_direct_is_open();
    uint32_t protocol = 0;
    require(open >= 0 && open <= 4 && (active == 0 || (active == 1 && open > 0)));
    require(active == 0 ||
            (kavrel_direct_get_device_protocol(&protocol) == KAVREL_DIRECT_OK &&
             (protocol == KAVREL_DIRECT_PROTOCOL_CM2 || protocol == KAVREL_DIRECT_PROTOCOL_NIR)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    const uint8_t setup = in.byte();
    size_t record_bytes = in.byte() * kRecordBytes;
    Input calls{in.take(record_bytes), record_bytes};

    // Up to 70 bridges, past the 64 a listing holds.
    FuzzBridge bridge(setup % 71, in);
    g_operation = "open";
    check(kavrel_direct_set_protocol_preference(static_cast<int32_t>((setup >> 6) % 3)));
    check(kavrel_direct_open_device(0));
    check_table();
    for (size_t i = 0; i < record_bytes / kRecordBytes; ++i) {
        const Operation &operation = kOperations[calls.byte() % std::size(kOperations)];
        const uint32_t a = calls.be(4), b = calls.be(4);
        g_operation = operation.name;
        operation.run(a, b);
        check_table();
    }
    return 0;
}
