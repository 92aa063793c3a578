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
#include <tuple>
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

bool is_result(int32_t rc) {
    static const bool tracing = std::getenv("KAVREL_FUZZ_TRACE") != nullptr;
    if (tracing) std::fprintf(stderr, "  %s: %d\n", g_operation, static_cast<int>(rc));
    return rc <= KAVREL_DIRECT_OK && rc >= KAVREL_DIRECT_ERR_UNSUPPORTED;
}

void set(int32_t rc) {
    require(is_result(rc));
}

// Counts and capacities: mostly around the sizes the protocols know (2048
// points, 4096 spectrum bytes, 8187 NIR flash bytes), now and then anything.
int32_t count_arg(uint32_t v) {
    return size_arg(v, 9000);
}

// An output written on success only.
template <typename T>
void written_on_success(int32_t rc, const Output<T> &out) {
    require(is_result(rc));
    require(rc == KAVREL_DIRECT_OK || out.untouched());
}

// Getters: one value per pointer (four calibration coefficients).
template <size_t N, typename... T>
void get_all(int32_t (*call)(T *...)) {
    const std::tuple<Output<T>...> outputs{Output<T>(N)...};
    std::apply(
        [call](const auto &...out) {
            const int32_t rc = call(out.get()...);
            (written_on_success(rc, out), ...);
        },
        outputs);
}

// Arrays and texts: a buffer of exactly the capacity declared; a text is
// terminated within it.
template <typename T>
void fill(int32_t (*call)(T *, int32_t), int32_t capacity) {
    const Output<T> out(room(capacity));
    const int32_t rc = call(out.get(), capacity);
    written_on_success(rc, out);
    if constexpr (std::is_same_v<T, char>)
        if (rc == KAVREL_DIRECT_OK) require(std::memchr(out.get(), '\0', out.size()) != nullptr);
}

// Setters of one value take it cut to its type.
template <typename T>
void set_from(int32_t (*call)(T), uint32_t a) {
    set(call(static_cast<T>(a)));
}

// The table's entries for the common shapes of operation.
template <auto Call>
struct Op {
    static void get(uint32_t, uint32_t) { get_all<1>(Call); }
    static void array(uint32_t a, uint32_t) { fill(Call, count_arg(a)); }
    static void text(uint32_t a, uint32_t) { fill(Call, size_arg(a, 80)); }
    static void set(uint32_t a, uint32_t) { set_from(Call, a); }
    static void command(uint32_t, uint32_t) { ::set(Call()); }
};

double wavelength_arg(uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

void device_info(uint32_t, uint32_t) {
    const Output<kavrel_direct_device_info> info(1);
    const int32_t rc = kavrel_direct_get_device_info(info.get());
    written_on_success(rc, info);
    const kavrel_direct_device_info &i = *info.get();
    require(rc != KAVREL_DIRECT_OK || (std::memchr(i.protocol_name, '\0', sizeof i.protocol_name) &&
                                       std::memchr(i.model, '\0', sizeof i.model) &&
                                       std::memchr(i.serial_number, '\0', sizeof i.serial_number) &&
                                       std::memchr(i.hardware_version, '\0', sizeof i.hardware_version)));
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
    const int32_t size = size_arg(b, 24);
    const Output<char> buffer(room(size));
    written_on_success(kavrel_direct_get_chip_serial_by_index(count_arg(a) % 80, buffer.get(), size), buffer);
}

void open_by_serial(uint32_t a, uint32_t) {
    char serial[16];
    std::snprintf(serial, sizeof serial, "FZ%04u", static_cast<unsigned>(a % 80));
    set(kavrel_direct_open_device_by_chip_serial((a & 0x100) != 0 ? "" : serial));
}

// A terminated text of a fuzzer-chosen length on the heap.
void set_serial(uint32_t a, uint32_t) {
    const Output<char> serial(a % 24 + 1);
    for (size_t i = 0; i + 1 < serial.size(); ++i) serial.get()[i] = static_cast<char>('A' + i % 26);
    serial.get()[serial.size() - 1] = '\0';
    set(kavrel_direct_set_serial_number(serial.get()));
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
    {"open_by_serial", open_by_serial},
    {"close", [](uint32_t, uint32_t) { kavrel_direct_close_device(); }},
    {"close_all", [](uint32_t, uint32_t) { kavrel_direct_close_all_devices(); }},
    {"select", [](uint32_t a, uint32_t) { set(kavrel_direct_select_device(count_arg(a) % 6)); }},
    {"preference", [](uint32_t a, uint32_t) { set_from(kavrel_direct_set_protocol_preference, a % 4); }},
    {"protocol", Op<kavrel_direct_get_device_protocol>::get},
    {"capabilities", Op<kavrel_direct_get_capabilities>::get},
    // Acquisition settings.
    {"set_integration_time", Op<kavrel_direct_set_integration_time>::set},
    {"integration_time", Op<kavrel_direct_get_integration_time>::get},
    {"set_average_number", Op<kavrel_direct_set_average_number>::set},
    {"average_number", Op<kavrel_direct_get_average_number>::get},
    {"set_level_output", Op<kavrel_direct_set_level_output>::set},
    {"level_output", Op<kavrel_direct_get_level_output>::get},
    {"set_xenon_pulse", [](uint32_t a, uint32_t b) { set(kavrel_direct_set_xenon_pulse(a, b)); }},
    {"xenon_pulse", Op<kavrel_direct_get_xenon_pulse>::get},
    {"set_xenon_mode", Op<kavrel_direct_set_xenon_mode>::set},
    {"xenon_mode", Op<kavrel_direct_get_xenon_mode>::get},
    {"set_trigger",
     [](uint32_t a, uint32_t) {
         set(kavrel_direct_set_external_trigger_config(static_cast<uint8_t>(a), static_cast<uint8_t>(a >> 8),
                                                       static_cast<uint8_t>(a >> 16)));
     }},
    {"trigger", Op<kavrel_direct_get_external_trigger_config>::get},
    {"set_dac", Op<kavrel_direct_set_dac_voltage>::set},
    {"dac", Op<kavrel_direct_get_dac_voltage>::get},
    {"capture_status", Op<kavrel_direct_get_spectrum_capture_status>::get},
    // Identity and status.
    {"temperature", Op<kavrel_direct_get_temperature>::get},
    {"hardware_version", Op<kavrel_direct_get_hardware_version>::text},
    {"detector_serial", Op<kavrel_direct_get_detector_serial_number>::text},
    {"model", Op<kavrel_direct_get_device_model>::text},
    {"set_baud_rate", Op<kavrel_direct_set_usb_baud_rate>::set},
    {"baud_rate", Op<kavrel_direct_get_usb_baud_rate>::get},
    {"usb_status", Op<kavrel_direct_get_usb_status>::get},
    {"set_serial", set_serial},
    {"serial", Op<kavrel_direct_get_serial_number>::text},
    {"device_info", device_info},
    // Stored defaults and maintenance.
    {"set_stored_integration_time", Op<kavrel_direct_set_stored_integration_time>::set},
    {"stored_integration_time", Op<kavrel_direct_get_stored_integration_time>::get},
    {"set_stored_average_number", Op<kavrel_direct_set_stored_average_number>::set},
    {"stored_average_number", Op<kavrel_direct_get_stored_average_number>::get},
    {"set_stored_smoothing", Op<kavrel_direct_set_stored_smoothing_width>::set},
    {"stored_smoothing", Op<kavrel_direct_get_stored_smoothing_width>::get},
    {"slit_width", Op<kavrel_direct_get_slit_width>::get},
    {"open_write_protect", Op<kavrel_direct_set_flash_write_protect>::command},
    {"write_protect", Op<kavrel_direct_get_flash_write_protect>::get},
    {"reset", Op<kavrel_direct_reset_device>::command},
    // Spectral data and memory.
    {"coefficients", [](uint32_t, uint32_t) { get_all<4>(kavrel_direct_get_calibration_coefficients); }},
    {"wavelength_count", Op<kavrel_direct_get_wavelength_count>::get},
    {"wavelengths", Op<kavrel_direct_get_full_wavelength_data>::array},
    {"wavelength_ends", Op<kavrel_direct_get_full_wavelength_range>::get},
    {"select_range",
     [](uint32_t a, uint32_t b) {
         set(kavrel_direct_set_selected_wavelength_range(wavelength_arg(a), wavelength_arg(b)));
     }},
    {"selection", Op<kavrel_direct_get_selected_wavelength_range>::get},
    {"selected_wavelengths", Op<kavrel_direct_get_selected_wavelength_data>::array},
    {"spectrum", Op<kavrel_direct_get_full_spectrum_data>::array},
    {"selected_spectrum", Op<kavrel_direct_get_selected_spectrum_data>::array},
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
