// CRC-32 of IEEE 802.3: reflected polynomial 0xEDB88320, initial value
// 0xFFFFFFFF, result complemented. Check value 0xCBF43926 over "123456789".
#include <array>

#include "kavrel_direct.h"

namespace kavrel {
namespace {

// Filled on first use. A function-local static is initialised exactly once
// even when two threads ask at the same moment, so the table needs no flag.
const std::array<uint32_t, 256> &crc32_table() {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    return table;
}

}  // namespace
}  // namespace kavrel

extern "C" KAVREL_DIRECT_API uint32_t kavrel_direct_crc32(const uint8_t *bytes, int32_t length) {
    const auto &table = kavrel::crc32_table();
    if (length < 1 || bytes == nullptr) return 0;
    uint32_t c = 0xFFFFFFFFu;
    for (int32_t i = 0; i < length; ++i) c = (c >> 8) ^ table[(c ^ bytes[i]) & 0xFFu];
    return ~c;
}
