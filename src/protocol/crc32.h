// CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320, initial value
// 0xFFFFFFFF, result complemented), in every way this build can compute it.
//
// Every reply the library receives is checked with it, so it runs over up to
// 16 KiB per exchange. The portable path takes eight bytes a step through
// eight tables; on x86-64 a carry-less-multiply path folds 64 bytes a step
// where the processor has PCLMULQDQ. kavrel_direct_crc32 uses the fastest
// path the processor can run, chosen once per process.
#ifndef KAVREL_PROTOCOL_CRC32_H
#define KAVREL_PROTOCOL_CRC32_H

#include <cstddef>
#include <cstdint>

namespace kavrel::crc32 {

// Advances the CRC register (the value before the final complement) over
// length bytes. A whole CRC is ~update(0xFFFFFFFF, bytes, length).
using Update = uint32_t (*)(uint32_t reg, const uint8_t *bytes, size_t length);

struct Path {
    const char *name;
    Update update;
    // False when this processor lacks the instructions the path needs.
    bool runnable;
};

// The paths built in, portable first; *count receives their number. Tests
// and benchmarks run each one; the library uses fastest().
const Path *paths(size_t *count);
// The last runnable path of paths().
Update fastest();

}  // namespace kavrel::crc32

#endif
