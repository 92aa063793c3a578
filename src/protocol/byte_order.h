// Multi-byte values on the wire. Both protocols send every value most
// significant byte first; the one exception, the wavelength table's
// little-endian floats, has its own reader.
#ifndef KAVREL_PROTOCOL_BYTE_ORDER_H
#define KAVREL_PROTOCOL_BYTE_ORDER_H

#include <cstdint>
#include <cstring>

namespace kavrel {

inline uint16_t load_be16(const uint8_t *p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t load_be32(const uint8_t *p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

inline uint64_t load_be64(const uint8_t *p) {
    return (static_cast<uint64_t>(load_be32(p)) << 32) | load_be32(p + 4);
}

inline void store_be16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

inline void store_be24(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 16);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v);
}

inline void store_be32(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// A single-precision float sent least significant byte first.
inline float load_le_float(const uint8_t *p) {
    const uint32_t bits = (static_cast<uint32_t>(p[3]) << 24) | (static_cast<uint32_t>(p[2]) << 16) |
                          (static_cast<uint32_t>(p[1]) << 8) | p[0];
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// An 8-byte big-endian value reinterpreted as an IEEE-754 double.
inline double load_be_double(const uint8_t *p) {
    const uint64_t bits = load_be64(p);
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

}  // namespace kavrel

#endif
