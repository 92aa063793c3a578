#include "spectral/wavelength_table.h"

#include <algorithm>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "transport/cm2_exchange.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"

namespace kavrel {
namespace {

constexpr uint32_t kCountAddress = 0x00000B;  // register 0xC2; the count is bytes 2-3
constexpr int32_t kCountBytes = 4;
constexpr uint8_t kNirWavelengthTable = 0x53;  // 'S', asked for as "?S"
// Wavelength entries are single-precision floats, least significant byte first.
constexpr int32_t kEntryBytes = 4;
constexpr int32_t kMaxTableBytes = kMaxWavelengthPoints * kEntryBytes;  // 8192

void cache_wavelength_count(uint16_t count) {
    if (device_slot *slot = active_slot()) slot->wavelength_count = count;
}

void widen_entries(const uint8_t *raw, int32_t entries, double *wavelengths) {
    for (int32_t i = 0; i < entries; ++i) wavelengths[i] = load_le_float(raw + kEntryBytes * i);
}

// The NIR table reply: the whole table, its length telling the point count.
int32_t nir_read_raw_table(transfer_buffer<uint8_t> &raw, int32_t &entries) {
    if (!raw.allocate(kMaxTableBytes)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    const uint8_t command[] = {kNirQuery, kNirWavelengthTable};
    int32_t length = 0;
    if (int32_t rc =
            nir_send_command(command, sizeof command, raw.data(), &length, raw.bytes(), kNirQueryQuietMs))
        return rc;
    if (length == 0 || length % kEntryBytes != 0) return KAVREL_DIRECT_ERR_IO;
    entries = length / kEntryBytes;
    return KAVREL_DIRECT_OK;
}

}  // namespace

int32_t read_wavelength_count(uint16_t &count) {
    device_slot *slot;
    if (int32_t rc = guard(slot)) return rc;
    if (speaks_nir(*slot)) {
        transfer_buffer<uint8_t> raw;
        int32_t entries = 0;
        if (int32_t rc = nir_read_raw_table(raw, entries)) return rc;
        count = static_cast<uint16_t>(entries);  // at most 2048: the reply is cut at 8192 bytes
    } else {
        uint8_t answer[kCountBytes];
        int32_t length = 0;
        if (int32_t rc = cm2_query(kRegStored, kCountAddress, 1, answer, sizeof answer, &length)) return rc;
        if (length < kCountBytes) return KAVREL_DIRECT_ERR_IO;
        count = load_be16(answer + 2);
    }
    cache_wavelength_count(count);
    return KAVREL_DIRECT_OK;
}

int32_t require_room_for_points(uint16_t cached_count, int32_t capacity) {
    uint16_t count = cached_count;
    if (count == 0)
        if (int32_t rc = read_wavelength_count(count)) return rc;
    return count > capacity ? KAVREL_DIRECT_ERR_INVALID_ARG : KAVREL_DIRECT_OK;
}

int32_t read_wavelength_table(double *wavelengths, int32_t capacity, int32_t &delivered) {
    device_slot *slot;
    if (int32_t rc = guard(slot)) return rc;
    if (speaks_nir(*slot)) {
        transfer_buffer<uint8_t> raw;
        int32_t entries = 0;
        if (int32_t rc = nir_read_raw_table(raw, entries)) return rc;
        if (entries > capacity) return KAVREL_DIRECT_ERR_INVALID_ARG;
        widen_entries(raw.data(), entries, wavelengths);
        cache_wavelength_count(static_cast<uint16_t>(entries));
        delivered = entries;
        return KAVREL_DIRECT_OK;
    }

    if (int32_t rc = require_room_for_points(slot->wavelength_count, capacity)) return rc;
    // The query asks for the largest table; only the entries the caller has
    // room for are kept, the exchange cuts the answer there.
    transfer_buffer<uint8_t> raw;
    if (!raw.allocate(static_cast<size_t>(std::min(capacity, kMaxWavelengthPoints)) * kEntryBytes))
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    int32_t length = 0;
    if (int32_t rc = cm2_query(kRegWavelength, 0, kMaxWavelengthPoints, raw.data(), raw.bytes(), &length))
        return rc;
    delivered = length / kEntryBytes;
    widen_entries(raw.data(), delivered, wavelengths);
    return KAVREL_DIRECT_OK;
}

int32_t read_table_of(uint16_t count, int32_t needed, transfer_buffer<double> &table) {
    if (!table.allocate(count)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    int32_t delivered = 0;
    if (int32_t rc = read_wavelength_table(table.data(), count, delivered)) return rc;
    return delivered < needed ? KAVREL_DIRECT_ERR_IO : KAVREL_DIRECT_OK;
}

// Only the entries of a selected run, read straight from the instrument: the
// CM2 table is addressed by entry.
int32_t read_wavelength_run(uint16_t first, uint16_t count, double *wavelengths, int32_t capacity) {
    transfer_buffer<uint8_t> raw;
    if (!raw.allocate(static_cast<size_t>(count) * kEntryBytes)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    int32_t length = 0;
    if (int32_t rc = cm2_query(kRegWavelength, first, count, raw.data(), raw.bytes(), &length)) return rc;
    widen_entries(raw.data(), std::min(capacity, length / kEntryBytes), wavelengths);
    return KAVREL_DIRECT_OK;
}

}  // namespace kavrel
