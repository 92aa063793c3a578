#include "protocol/crc32.h"

#include "kavrel_direct.h"

// The carry-less-multiply path needs GCC or clang on x86-64 (their target
// attribute compiles it without raising the whole build's instruction set);
// every other build has the portable path only.
#if (defined(__GNUC__) || defined(__clang__)) && defined(__x86_64__)
#define KAVREL_CRC32_CLMUL 1
#include <immintrin.h>
#endif

namespace kavrel::crc32 {
namespace {

constexpr uint32_t kPolynomial = 0xEDB88320u;

// t[0] is the classic byte-at-a-time table; t[k][b] is the CRC
// register after byte b followed by k zero bytes, so eight bytes can be
// looked up independently and their effects combined with XOR.
struct SliceTables {
    uint32_t t[8][256];
};

constexpr SliceTables make_slice_tables() {
    SliceTables s{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1u) ? (c >> 1) ^ kPolynomial : c >> 1;
        s.t[0][i] = c;
    }
    for (int k = 1; k < 8; ++k)
        for (uint32_t i = 0; i < 256; ++i) s.t[k][i] = (s.t[k - 1][i] >> 8) ^ s.t[0][s.t[k - 1][i] & 0xFFu];
    return s;
}

// Computed by the compiler: no first-use filling, nothing to race on.
constexpr SliceTables kTables = make_slice_tables();

// Byte order of the host does not matter: the bytes are assembled in wire
// order, least significant first as the reflected CRC consumes them.
inline uint32_t load_le32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

uint32_t update_slice8(uint32_t reg, const uint8_t *p, size_t length) {
    const auto &t = kTables.t;
    for (; length >= 8; p += 8, length -= 8) {
        const uint32_t lo = load_le32(p) ^ reg;
        const uint32_t hi = load_le32(p + 4);
        reg = t[7][lo & 0xFFu] ^ t[6][(lo >> 8) & 0xFFu] ^ t[5][(lo >> 16) & 0xFFu] ^ t[4][lo >> 24] ^
              t[3][hi & 0xFFu] ^ t[2][(hi >> 8) & 0xFFu] ^ t[1][(hi >> 16) & 0xFFu] ^ t[0][hi >> 24];
    }
    for (; length > 0; ++p, --length) reg = (reg >> 8) ^ t[0][(reg ^ *p) & 0xFFu];
    return reg;
}

#ifdef KAVREL_CRC32_CLMUL

#define KAVREL_CLMUL_TARGET __attribute__((target("pclmul,sse4.1")))

KAVREL_CLMUL_TARGET inline __m128i load16(const uint8_t *at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(at));
}

// Moves x on by the distance whose constants k holds (low half of x times the
// low constant, high half times the high one) and adds the next data.
KAVREL_CLMUL_TARGET inline __m128i fold(__m128i x, __m128i k, __m128i next) {
    return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x, k, 0x00), _mm_clmulepi64_si128(x, k, 0x11)),
                         next);
}

// Folding with carry-less multiplication. Four 128-bit lanes each absorb the
// next 64 bytes: multiplying a lane by x^512 mod P (in two 64-bit halves)
// moves it 64 bytes on, and the new data is added. Then the lanes fold into
// one, 16 bytes a step, and a Barrett reduction takes the last 64 bits to
// the 32-bit register. The constants are bit-reflected powers of x modulo
// the polynomial for those distances. length is a multiple of 16, at least 64.
KAVREL_CLMUL_TARGET uint32_t fold_clmul(uint32_t reg, const uint8_t *p, size_t length) {
    const __m128i k1k2 = _mm_set_epi64x(0x01c6e41596, 0x0154442bd4);  // 512 bits on
    const __m128i k3k4 = _mm_set_epi64x(0x00ccaa009e, 0x01751997d0);  // 128 bits on
    const __m128i k5 = _mm_set_epi64x(0, 0x0163cd6124);               // 64 bits on
    const __m128i poly = _mm_set_epi64x(0x01f7011641, 0x01db710641);  // P and floor(x^64 / P)
    const __m128i low32 = _mm_setr_epi32(~0, 0, ~0, 0);

    __m128i x1 = _mm_xor_si128(load16(p), _mm_cvtsi32_si128(static_cast<int>(reg)));
    __m128i x2 = load16(p + 16);
    __m128i x3 = load16(p + 32);
    __m128i x4 = load16(p + 48);
    p += 64;
    length -= 64;
    for (; length >= 64; p += 64, length -= 64) {
        x1 = fold(x1, k1k2, load16(p));
        x2 = fold(x2, k1k2, load16(p + 16));
        x3 = fold(x3, k1k2, load16(p + 32));
        x4 = fold(x4, k1k2, load16(p + 48));
    }
    x1 = fold(x1, k3k4, x2);
    x1 = fold(x1, k3k4, x3);
    x1 = fold(x1, k3k4, x4);
    for (; length >= 16; p += 16, length -= 16) x1 = fold(x1, k3k4, load16(p));

    // 128 bits to 96, then to 64.
    __m128i x = _mm_xor_si128(_mm_srli_si128(x1, 8), _mm_clmulepi64_si128(x1, k3k4, 0x10));
    x = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x, low32), k5, 0x00), _mm_srli_si128(x, 4));
    // Barrett reduction: q = floor(x / P) through the precomputed quotient,
    // then x - q * P leaves the remainder in bits 32 to 63.
    __m128i q = _mm_clmulepi64_si128(_mm_and_si128(x, low32), poly, 0x10);
    q = _mm_clmulepi64_si128(_mm_and_si128(q, low32), poly, 0x00);
    return static_cast<uint32_t>(_mm_extract_epi32(_mm_xor_si128(x, q), 1));
}

uint32_t update_clmul(uint32_t reg, const uint8_t *p, size_t length) {
    // Below 64 bytes the folding has nothing to fold in parallel.
    if (length >= 64) {
        const size_t folded = length & ~size_t{15};
        reg = fold_clmul(reg, p, folded);
        p += folded;
        length -= folded;
    }
    return update_slice8(reg, p, length);
}

bool cpu_has_clmul() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
}

#endif

}  // namespace

const Path *paths(size_t *count) {
    static const Path all[] = {
        {"slice-by-8", update_slice8, true},
#ifdef KAVREL_CRC32_CLMUL
        {"pclmul", update_clmul, cpu_has_clmul()},
#endif
    };
    *count = sizeof all / sizeof all[0];
    return all;
}

Update fastest() {
    static const Update chosen = [] {
        size_t count = 0;
        const Path *all = paths(&count);
        Update best = all[0].update;
        for (size_t i = 0; i < count; ++i)
            if (all[i].runnable) best = all[i].update;
        return best;
    }();
    return chosen;
}

}  // namespace kavrel::crc32

extern "C" KAVREL_DIRECT_API uint32_t kavrel_direct_crc32(const uint8_t *bytes, int32_t length) {
    if (length < 1 || bytes == nullptr) return 0;
    return ~kavrel::crc32::fastest()(0xFFFFFFFFu, bytes, static_cast<size_t>(length));
}
