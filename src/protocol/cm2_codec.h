// CM2 packet builders and the layout constants the exchange relies on.
//
// A packet is an 8-byte preamble (AA x7, AB), a 20-byte header (VER, TA, SA,
// SRV, FSN, LN, SN, PIO register and 24-bit address, ANS), data in 4-byte
// words and a big-endian CRC-32 over everything after the preamble.
#ifndef KAVREL_PROTOCOL_CM2_CODEC_H
#define KAVREL_PROTOCOL_CM2_CODEC_H

#include <cstdint>

#include "kavrel_direct.h"

namespace kavrel::cm2 {

constexpr int32_t kHeadBytes = 28;       // preamble + header
constexpr int32_t kMinPacketBytes = 32;  // head + CRC, no data
constexpr int32_t kRequestBufferBytes = 2048;
constexpr int32_t kMaxWriteData = kRequestBufferBytes - kMinPacketBytes;  // 2016
constexpr int32_t kMaxPacketBytes = KAVREL_DIRECT_CM2_MAX_PACKET;         // 16384
constexpr int32_t kDataLenOffset = 17;
constexpr int32_t kReplyCodeOffset = 27;

constexpr uint8_t kSrvQuery = 0x0D;
constexpr uint8_t kSrvWriteAck = 0xAD;
constexpr uint8_t kSrvWriteNoAck = 0x3D;
constexpr uint8_t kSrvResponseWriteAck = 0xEA;
constexpr uint8_t kSrvResponseData = 0xE0;

constexpr uint8_t kReplyAck = 0xAC;
constexpr uint8_t kReplyTimeout = 0xE0;
constexpr uint8_t kReplyCrcMismatch = 0xE1;
constexpr uint8_t kReplyInvalidCommand = 0xE2;
constexpr uint8_t kReplyWriteProtect = 0xE3;

// The reply checks, shared by the exported parser and by the exchange, which
// runs them on its receive buffer instead of taking the reply apart.
// packet holds at least 8 bytes: AA seven times, then AB.
bool preamble_ok(const uint8_t *packet);
// The CRC over bytes 8 to length - 5 equals the last four bytes, read
// big-endian; length is at least 12.
bool crc_ok(const uint8_t *packet, int32_t length);
// Data bytes of a packet of length bytes (those between the head and the
// CRC), at most the 8192 a parsed record holds.
constexpr int32_t data_bytes(int32_t length) {
    if (length <= kMinPacketBytes) return 0;
    const int32_t bytes = length - kMinPacketBytes;
    return bytes < KAVREL_DIRECT_CM2_MAX_DATA ? bytes : KAVREL_DIRECT_CM2_MAX_DATA;
}

// Size of a write packet carrying length data bytes.
constexpr int32_t write_packet_bytes(int32_t length) {
    return kMinPacketBytes + 4 * ((length + 3) / 4);
}

}  // namespace kavrel::cm2

// Internal, with external linkage: not part of the exported interface.
extern "C" {
// Builds the 32-byte query for words 4-byte words at reg/address into out
// (at least 32 bytes). Returns 32.
int32_t kavrel_direct_build_query(uint8_t reg, uint32_t address, uint16_t words, uint8_t *out);
// Builds a write of length data bytes (0 or more), padded to whole words,
// into out (at least write_packet_bytes(length) bytes). Returns its size.
int32_t kavrel_direct_build_write(uint8_t reg, uint32_t address, const uint8_t *data, int32_t length,
                                  uint8_t *out);
// Prints a framed report of one request and its reply (diagnostics only).
void kavrel_direct_print_cmd_info(const char *title, const uint8_t *sent, int32_t sent_length,
                                  const uint8_t *received, int32_t received_length);
}

#endif
