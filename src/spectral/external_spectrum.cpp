// An externally controlled spectrum: the instrument is handed a control
// value, reports through a command block when its spectrum is ready, and the
// spectrum is then read like an acquired one. CM2 only.
#include <algorithm>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "spectral/command_block.h"
#include "spectral/transfer_buffer.h"
#include "transport/cm2_exchange.h"
#include "transport/device_call.h"

namespace kavrel {
namespace {

constexpr uint8_t kStartExternal = 0xC0;   // byte 0 of the start block
constexpr uint32_t kSpectrumWords = 1024;  // 4096 bytes
constexpr int32_t kMaxSpectrumBytes = 4 * kSpectrumWords;

int32_t read_external_spectrum(uint16_t control, uint16_t *spectrum, int32_t count) {
    uint8_t block[kCommandBlockBytes] = {kStartExternal, kCommandPending};
    store_be16(block + 2, control);
    if (int32_t rc = run_command_block(kExternalSpectrumHandshake, block)) return rc;

    // Room for count values, no more than one answer can bring; the exchange
    // cuts a longer answer at the room.
    transfer_buffer<uint8_t> raw;
    const int32_t room = count >= kMaxSpectrumBytes / 2 ? kMaxSpectrumBytes : 2 * count;
    if (!raw.allocate(static_cast<size_t>(room))) return KAVREL_DIRECT_ERR_INVALID_ARG;
    int32_t length = 0;
    if (int32_t rc = cm2_query(kRegSpectrum, 0, kSpectrumWords, raw.data(), raw.bytes(), &length)) return rc;
    const int32_t values = std::min(length / 2, count);
    for (int32_t i = 0; i < values; ++i) spectrum[i] = load_be16(raw.data() + 2 * i);
    return 2 * values;
}

}  // namespace
}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_external_spectrum_control(uint16_t control, uint16_t *spectrum,
                                                                  int32_t count) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (spectrum == nullptr || count < 1) return KAVREL_DIRECT_ERR_INVALID_ARG;
        if (int32_t rc = require_cm2(slot)) return rc;
        return read_external_spectrum(control, spectrum, count);
    });
}

}  // extern "C"
