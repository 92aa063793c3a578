// Wire encodings of spectral data, and a model spectrometer that answers
// every request, the spectral ones from its own table, for tests whose
// tables vary (selection cases, allocation failures).
#ifndef KAVREL_TESTS_SPECTRAL_MODEL_H
#define KAVREL_TESTS_SPECTRAL_MODEL_H

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include "protocol/byte_order.h"
#include "support/fake_bridge.h"

namespace kavrel::test {

// Values as the instruments send them, most significant byte first (big)
// or last: samples and calibration coefficients big-endian, wavelength
// entries (floats) little-endian.
template <typename T>
Bytes encode(const std::vector<T> &values, bool big = true) {
    using Bits = std::conditional_t<sizeof(T) == 2, uint16_t,
                                    std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>;
    Bytes out;
    for (const T &value : values) {
        Bits bits;
        std::memcpy(&bits, &value, sizeof bits);
        for (size_t i = 0; i < sizeof bits; ++i)
            out.push_back(static_cast<uint8_t>(bits >> 8 * (big ? sizeof bits - 1 - i : i)));
    }
    return out;
}
inline Bytes le_floats(const std::vector<float> &values) {
    return encode(values, false);
}
inline Bytes be_samples(const std::vector<uint16_t> &values) {
    return encode(values, true);
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

struct SpectralModel {
    std::vector<float> table;

    // CM2: every write is acknowledged; queries of the point count and the
    // table are served from the model, and any other query gets the words
    // asked for, all 0xAA (so a command block's status reads back done).
    std::vector<Chunk> answer_cm2(const Bytes &request) const {
        const uint8_t reg = request[21];
        const uint32_t address = static_cast<uint32_t>(request[22] << 16) | load_be16(&request[23]);
        if (request[13] != 0x0D) return at_once(cm2_reply(reg, address, {}));
        const size_t words = load_be16(&request[15]);
        Bytes data(4 * words, 0xAA);
        if (reg == 0xC2 && address == 0x0B) {
            data = {0, 0, static_cast<uint8_t>(table.size() >> 8), static_cast<uint8_t>(table.size())};
        } else if (reg == 0xC5) {
            const auto first = table.begin() + std::min<long>(address, static_cast<long>(table.size()));
            data = le_floats({first, first + std::min<long>(static_cast<long>(words), table.end() - first)});
        }
        return at_once(cm2_reply(reg, address, data));
    }

    // NIR: the table, a spectrum of as many samples, and 40 bytes of 0xAA
    // for any other command.
    std::vector<Chunk> answer_nir(const Bytes &frame) const {
        if (frame[0] == 0x3F && frame[1] == 0x53) return at_once(nir_reply(le_floats(table)));
        return at_once(nir_reply(Bytes(frame[0] == 0x53 ? 2 * table.size() : 40, 0xAA)));
    }

    // Makes bridge device answer as this model, in the given protocol.
    void serve(FakeBridge &bridge, int device, bool nir) const {
        bridge.instrument(device).responder = [this, nir](const Bytes &written) {
            return nir ? answer_nir(written) : answer_cm2(written);
        };
    }
};

}  // namespace kavrel::test

#endif
