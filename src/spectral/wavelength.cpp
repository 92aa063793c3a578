// Wavelength calibration: the calibration coefficients, the point count, the
// wavelength table and its end values, and the selected wavelength range.
#include <utility>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "spectral/transfer_buffer.h"
#include "spectral/wavelength_table.h"
#include "transport/cm2_exchange.h"
#include "transport/device_call.h"
#include "transport/nir_exchange.h"

namespace kavrel {
namespace {

constexpr uint32_t kCoefficientAddress = 0x000020;  // register 0xC1, 8 words
constexpr uint32_t kCoefficientWords = 8;
constexpr int32_t kCoefficientCount = 4;
constexpr int32_t kCoefficientBytes = 8 * kCoefficientCount;
constexpr uint8_t kNirReadCoefficients = 0x78;  // 'x'
// The NIR reply may carry more than the four coefficients; the rest is dropped.
constexpr int32_t kNirCoefficientCapacity = 240;

int32_t read_calibration_coefficients(const device_slot &slot, double (&coefficients)[kCoefficientCount]) {
    uint8_t answer[kNirCoefficientCapacity];
    int32_t length = 0;
    const int32_t rc =
        speaks_nir(slot)
            ? nir_send_command(&kNirReadCoefficients, 1, answer, &length, sizeof answer, kNirQueryQuietMs)
            : cm2_query(kRegControl, kCoefficientAddress, kCoefficientWords, answer, sizeof answer, &length);
    if (rc != KAVREL_DIRECT_OK) return rc;
    if (length < kCoefficientBytes) return KAVREL_DIRECT_ERR_IO;
    for (int k = 0; k < kCoefficientCount; ++k) coefficients[k] = load_be_double(answer + 8 * k);
    return KAVREL_DIRECT_OK;
}

// The table's two end values, smaller first (a NaN at either end is left
// where it is). Only the end entries count, not the extremes in between.
int32_t read_wavelength_ends(double &low, double &high) {
    uint16_t count = 0;
    if (int32_t rc = read_wavelength_count(count)) return rc;
    if (count == 0) return KAVREL_DIRECT_ERR_IO;
    transfer_buffer<double> table;
    if (int32_t rc = read_table_of(count, count, table)) return rc;
    low = table.data()[0];
    high = table.data()[count - 1];
    if (low > high) std::swap(low, high);
    return KAVREL_DIRECT_OK;
}

int32_t select_wavelength_range(double start, double end) {
    double low = 0, high = 0;
    if (int32_t rc = read_wavelength_ends(low, high)) return rc;
    if (start < low || end > high) return KAVREL_DIRECT_ERR_INVALID_ARG;

    uint16_t count = 0;
    if (int32_t rc = read_wavelength_count(count)) return rc;
    if (count == 0 || count > kMaxWavelengthPoints) return KAVREL_DIRECT_ERR_IO;
    transfer_buffer<double> table;
    if (int32_t rc = read_table_of(count, count, table)) return rc;

    // The selection is the whole run from the first to the last entry
    // inside; a NaN entry is never inside.
    const double *entries = table.data();
    int32_t first = -1, last = -1;
    for (int32_t i = 0; i < count; ++i) {
        if (!(start <= entries[i] && entries[i] <= end)) continue;
        if (first < 0) first = i;
        last = i;
    }
    if (first < 0) return KAVREL_DIRECT_ERR_INVALID_ARG;

    device_slot *active = active_slot();
    if (active == nullptr) return KAVREL_DIRECT_ERR_NOT_OPEN;
    active->selection_valid = 1;
    active->requested_start = start;
    active->requested_end = end;
    active->actual_start = entries[first];
    active->actual_end = entries[last];
    active->start_index = static_cast<uint16_t>(first);
    active->end_index = static_cast<uint16_t>(last);
    active->selected_count = static_cast<uint16_t>(last - first + 1);
    return KAVREL_DIRECT_OK;
}

int32_t read_selected_wavelengths(const device_slot &slot, double *wavelengths, int32_t capacity) {
    const uint16_t first = slot.start_index;
    const uint16_t selected = slot.selected_count;
    if (!speaks_nir(slot)) return read_wavelength_run(first, selected, wavelengths, capacity);

    // NIR reads the whole table and cuts the run out of it.
    const int32_t needed = first + selected;
    uint16_t count = 0;
    if (int32_t rc = read_wavelength_count(count)) return rc;
    if (count < needed) return KAVREL_DIRECT_ERR_IO;  // the table shrank under the selection
    transfer_buffer<double> table;
    if (int32_t rc = read_table_of(count, needed, table)) return rc;
    for (int32_t i = 0; i < selected; ++i) wavelengths[i] = table.data()[first + i];
    return KAVREL_DIRECT_OK;
}

}  // namespace
}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_get_calibration_coefficients(double coefficients[4]) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (coefficients == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        double read[kCoefficientCount];
        if (int32_t rc = read_calibration_coefficients(slot, read)) return rc;
        for (int k = 0; k < kCoefficientCount; ++k) coefficients[k] = read[k];
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_wavelength_count(uint16_t *count) {
    return device_call([&](device_slot &) -> int32_t {
        if (count == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        return read_wavelength_count(*count);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_full_wavelength_data(double *wavelengths, int32_t capacity) {
    return device_call([&](device_slot &) -> int32_t {
        if (wavelengths == nullptr || capacity < 1) return KAVREL_DIRECT_ERR_INVALID_ARG;
        int32_t delivered = 0;
        return read_wavelength_table(wavelengths, capacity, delivered);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_full_wavelength_range(double *first, double *last) {
    return device_call([&](device_slot &) -> int32_t {
        if (first == nullptr || last == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        double low = 0, high = 0;
        if (int32_t rc = read_wavelength_ends(low, high)) return rc;
        *first = low;
        *last = high;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_selected_wavelength_range(double start, double end) {
    return device_call([&](device_slot &) -> int32_t {
        if (!(end > start)) return KAVREL_DIRECT_ERR_INVALID_ARG;
        return select_wavelength_range(start, end);
    });
}

KAVREL_DIRECT_API int32_t
kavrel_direct_get_selected_wavelength_range(kavrel_direct_wavelength_selection *selection) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (selection == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        if (!slot.selection_valid) return KAVREL_DIRECT_ERR_GENERIC;
        selection->requested_start = slot.requested_start;
        selection->requested_end = slot.requested_end;
        selection->actual_start = slot.actual_start;
        selection->actual_end = slot.actual_end;
        selection->start_index = slot.start_index;
        selection->end_index = slot.end_index;
        selection->selected_count = slot.selected_count;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_selected_wavelength_data(double *wavelengths, int32_t capacity) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (wavelengths == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        if (!slot.selection_valid) return KAVREL_DIRECT_ERR_GENERIC;
        if (slot.selected_count > capacity) return KAVREL_DIRECT_ERR_INVALID_ARG;
        return read_selected_wavelengths(slot, wavelengths, capacity);
    });
}

}  // extern "C"
