// The CM2 exchange: one register query or write and its reply.
#ifndef KAVREL_TRANSPORT_CM2_EXCHANGE_H
#define KAVREL_TRANSPORT_CM2_EXCHANGE_H

#include <cstdint>

namespace kavrel {

// Register bytes the operations address.
constexpr uint8_t kRegControl = 0xC1;     // settings, status, command blocks
constexpr uint8_t kRegStored = 0xC2;      // stored values, instrument constants
constexpr uint8_t kRegWavelength = 0xC5;  // wavelength table
constexpr uint8_t kRegSpectrum = 0xC6;    // spectra: the time limit grows
constexpr uint8_t kRegFlashPage = 0xC7;   // flash page buffer

// Carries one request to the active device and brings back its answer.
// query nonzero: asks for length 4-byte words; query zero: writes length
// data bytes (at most 2016, one request buffer). The reply's data is copied
// into answer, at most answer_capacity bytes; *answer_length receives the
// number of bytes copied, or the reply's whole data size when answer is null.
// Results: 0; -3 no open device; -5 a write longer than 2016 bytes or a
// negative capacity (nothing sent); -4 write or read failed, reply longer than
// 16384 bytes, or reply code 0xE2 and any unknown code; -9 a read returned
// nothing in time or reply code 0xE0; -8 wrong preamble; -7 CRC wrong or reply
// code 0xE1; -10 reply code 0xE3. On failure answer and *answer_length are
// untouched.
int32_t send_and_recv(uint8_t reg, uint32_t address, const uint8_t *data, uint32_t length, uint8_t *answer,
                      int32_t *answer_length, int32_t query, int32_t answer_capacity);

// A query of words 4-byte words into answer (capacity bytes).
inline int32_t cm2_query(uint8_t reg, uint32_t address, uint32_t words, uint8_t *answer, int32_t capacity,
                         int32_t *answer_length) {
    return send_and_recv(reg, address, nullptr, words, answer, answer_length, 1, capacity);
}

// A write of length data bytes; the reply's data is not wanted.
inline int32_t cm2_write(uint8_t reg, uint32_t address, const uint8_t *data, uint32_t length) {
    return send_and_recv(reg, address, data, length, nullptr, nullptr, 0, 0);
}

}  // namespace kavrel

extern "C" {
// Raw pass-through for diagnosis (internal, not exported): writes
// request_length bytes with no framing and collects whatever comes back until
// 501 reads in a row return nothing. *reply_length holds reply's capacity on
// entry and the number of bytes received on return. Results: 0; -3 no open
// device; -5 null reply_length, or a null request or reply with a nonzero
// length; -4 a write or read failed.
int32_t kavrel_direct_send_recv(const uint8_t *request, uint32_t request_length, uint8_t *reply,
                                uint32_t *reply_length);
}

#endif
