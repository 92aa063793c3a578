// Spectrum acquisition: the whole spectrum, one 16-bit sample per detector
// point, and the part of it in the selected wavelength range.
//
// The instrument integrates first and answers afterwards, so the read waits
// as long as the cached integration time and average number say (the CM2
// exchange grows its limit for the spectrum register by itself; the NIR
// exchange is given it as its quiet time).
#include <algorithm>
#include <cstring>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "spectral/transfer_buffer.h"
#include "spectral/wavelength_table.h"
#include "transport/cm2_exchange.h"
#include "transport/device_call.h"
#include "transport/nir_exchange.h"
#include "transport/timing.h"

namespace kavrel {
namespace {

constexpr uint8_t kNirAcquireSpectrum = 0x53;  // 'S'
constexpr uint32_t kSpectrumWords = 1024;      // 4096 bytes: at most 2048 samples
constexpr int32_t kMaxSamples = 2 * kSpectrumWords;
constexpr int32_t kSampleBytes = 2;  // big-endian

// The NIR spectrum frame may wrap its samples in marks: a long or a short
// start mark and an end mark, each recognised only where the data is long
// enough that the mark cannot be all of it.
constexpr uint8_t kLongStartMark[] = {0xAA, 0x55, 0xBB, 0x44, 0xCC, 0x33, 0xDD, 0x22};
constexpr uint8_t kShortStartMark[] = {0xAA, 0x55, 0xBB, 0x44};
constexpr uint8_t kEndMark[] = {0xDD, 0xDD, 0xAA, 0xAA};
constexpr int32_t kLongStartNeeds = 12;
constexpr int32_t kShortStartNeeds = 8;
constexpr int32_t kEndNeeds = 4;

struct sample_span {
    int32_t offset;  // first sample byte
    int32_t bytes;   // sample bytes, 0 or more
};

sample_span find_samples(const uint8_t *data, int32_t length) {
    int32_t head = 0;
    if (length >= kLongStartNeeds && std::memcmp(data, kLongStartMark, sizeof kLongStartMark) == 0)
        head = sizeof kLongStartMark;
    else if (length >= kShortStartNeeds && std::memcmp(data, kShortStartMark, sizeof kShortStartMark) == 0)
        head = sizeof kShortStartMark;
    int32_t tail = 0;
    if (length >= kEndNeeds && std::memcmp(data + length - sizeof kEndMark, kEndMark, sizeof kEndMark) == 0)
        tail = sizeof kEndMark;
    return {head, length - head - tail};
}

void samples_to_host(const uint8_t *raw, int32_t count, uint16_t *samples) {
    for (int32_t i = 0; i < count; ++i) samples[i] = load_be16(raw + kSampleBytes * i);
}

int32_t nir_read_spectrum(const device_slot &slot, uint16_t *samples, int32_t capacity, int32_t &delivered) {
    transfer_buffer<uint8_t> raw;
    if (!raw.allocate(kNirReceiveLimit)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    const uint32_t limit = spectrum_time_limit_ms(slot.integration_time, slot.average_number);
    int32_t length = 0;
    if (int32_t rc = nir_send_command(&kNirAcquireSpectrum, 1, raw.data(), &length, raw.bytes(), limit))
        return rc;
    const sample_span span = find_samples(raw.data(), length);
    if (span.bytes <= 0 || span.bytes % kSampleBytes != 0) return KAVREL_DIRECT_ERR_IO;
    const int32_t count = span.bytes / kSampleBytes;
    if (count > capacity) return KAVREL_DIRECT_ERR_INVALID_ARG;
    samples_to_host(raw.data() + span.offset, count, samples);
    // The spectrum has one sample per point: its length is the point count.
    if (device_slot *active = active_slot()) active->wavelength_count = static_cast<uint16_t>(count);
    delivered = count;
    return KAVREL_DIRECT_OK;
}

int32_t cm2_read_spectrum(const device_slot &slot, uint16_t *samples, int32_t capacity, int32_t &delivered) {
    if (int32_t rc = require_room_for_points(slot.wavelength_count, capacity)) return rc;
    // The query asks for the largest spectrum; the exchange cuts the answer
    // at the samples the caller has room for.
    transfer_buffer<uint8_t> raw;
    if (!raw.allocate(static_cast<size_t>(std::min(capacity, kMaxSamples)) * kSampleBytes))
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    int32_t length = 0;
    if (int32_t rc = cm2_query(kRegSpectrum, 0, kSpectrumWords, raw.data(), raw.bytes(), &length)) return rc;
    delivered = length / kSampleBytes;
    samples_to_host(raw.data(), delivered, samples);
    return KAVREL_DIRECT_OK;
}

// Works on the active slot as it is now: the selected spectrum reads the
// count first, and the CM2 path must find it cached.
int32_t read_full_spectrum(uint16_t *samples, int32_t capacity, int32_t &delivered) {
    device_slot *slot;
    if (int32_t rc = guard(slot)) return rc;
    return speaks_nir(*slot) ? nir_read_spectrum(*slot, samples, capacity, delivered)
                             : cm2_read_spectrum(*slot, samples, capacity, delivered);
}

int32_t read_selected_spectrum(const device_slot &slot, uint16_t *samples) {
    const uint16_t first = slot.start_index;
    const uint16_t selected = slot.selected_count;
    const int32_t needed = first + selected;
    uint16_t count = 0;
    if (int32_t rc = read_wavelength_count(count)) return rc;
    // A table that shrank under the selection cannot fill it.
    if (count < needed) return KAVREL_DIRECT_ERR_IO;
    transfer_buffer<uint16_t> spectrum;
    if (!spectrum.allocate(count)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    int32_t delivered = 0;
    if (int32_t rc = read_full_spectrum(spectrum.data(), count, delivered)) return rc;
    // Samples the instrument did not send are never handed on.
    if (delivered < needed) return KAVREL_DIRECT_ERR_IO;
    std::copy(spectrum.data() + first, spectrum.data() + needed, samples);
    return KAVREL_DIRECT_OK;
}

}  // namespace
}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_get_full_spectrum_data(uint16_t *samples, int32_t capacity) {
    return device_call([&](device_slot &) -> int32_t {
        if (samples == nullptr || capacity < 1) return KAVREL_DIRECT_ERR_INVALID_ARG;
        int32_t delivered = 0;
        return read_full_spectrum(samples, capacity, delivered);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_selected_spectrum_data(uint16_t *samples, int32_t capacity) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (samples == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        if (!slot.selection_valid) return KAVREL_DIRECT_ERR_GENERIC;
        if (slot.selected_count > capacity) return KAVREL_DIRECT_ERR_INVALID_ARG;
        return read_selected_spectrum(slot, samples);
    });
}

}  // extern "C"
