// Building CM2 requests and taking replies apart.
#include "protocol/cm2_codec.h"

#include <cstring>

#include "protocol/byte_order.h"

namespace kavrel::cm2 {
namespace {

// Bytes 0 to 20 of every request the library builds: preamble, VER 0xCC,
// TA 0x0001, SA 0x0002, SRV, FSN 0xEE, LN FileLen/DataLen, SN 1 of 1.
void put_head(uint8_t *out, uint8_t srv, uint16_t file_len, uint16_t data_len, uint8_t reg,
              uint32_t address) {
    std::memset(out, 0xAA, 7);
    out[7] = 0xAB;
    out[8] = 0xCC;
    store_be16(out + 9, 0x0001);
    store_be16(out + 11, 0x0002);
    out[13] = srv;
    out[14] = 0xEE;
    store_be16(out + 15, file_len);
    store_be16(out + 17, data_len);
    out[19] = 0x01;
    out[20] = 0x01;
    out[21] = reg;
    store_be24(out + 22, address);
    out[25] = out[26] = out[27] = 0x00;
}

// The CRC covers everything after the preamble, padding included.
int32_t put_crc(uint8_t *out, int32_t crc_offset) {
    store_be32(out + crc_offset, kavrel_direct_crc32(out + 8, crc_offset - 8));
    return crc_offset + 4;
}

}  // namespace

bool preamble_ok(const uint8_t *packet) {
    for (int i = 0; i < 7; ++i)
        if (packet[i] != 0xAA) return false;
    return packet[7] == 0xAB;
}

bool crc_ok(const uint8_t *packet, int32_t length) {
    return kavrel_direct_crc32(packet + 8, length - 12) == load_be32(packet + length - 4);
}

}  // namespace kavrel::cm2

using namespace kavrel;

extern "C" int32_t kavrel_direct_build_query(uint8_t reg, uint32_t address, uint16_t words, uint8_t *out) {
    cm2::put_head(out, cm2::kSrvQuery, words, 0, reg, address);
    return cm2::put_crc(out, cm2::kHeadBytes);
}

extern "C" int32_t kavrel_direct_build_write(uint8_t reg, uint32_t address, const uint8_t *data,
                                             int32_t length, uint8_t *out) {
    if (length < 0) length = 0;
    const int32_t words = (length + 3) / 4;
    // Only the low 16 bits of the word count fit the LN field.
    const auto ln = static_cast<uint16_t>(words);
    cm2::put_head(out, cm2::kSrvWriteAck, ln, ln, reg, address);
    if (length > 0) std::memcpy(out + cm2::kHeadBytes, data, static_cast<size_t>(length));
    const int32_t end = cm2::kHeadBytes + 4 * words;
    std::memset(out + cm2::kHeadBytes + length, 0, static_cast<size_t>(end - cm2::kHeadBytes - length));
    return cm2::put_crc(out, end);
}

extern "C" KAVREL_DIRECT_API int32_t kavrel_direct_parse_response(const uint8_t *packet, int32_t length,
                                                                  cm2_packet *out) {
    if (out == nullptr) return -1;
    std::memset(out, 0, sizeof *out);
    // Refuse what the record cannot hold rather than write past raw.
    if (packet == nullptr || length < 24 || length > cm2::kMaxPacketBytes) return -1;

    std::memcpy(out->raw, packet, static_cast<size_t>(length));
    out->raw_len = length;
    std::memcpy(out->pre, packet, 8);
    out->preamble_ok = cm2::preamble_ok(packet) ? 1 : 0;

    out->ver = packet[8];
    out->ta = load_be16(packet + 9);
    out->sa = load_be16(packet + 11);
    out->srv = packet[13];
    out->fsn = packet[14];
    out->file_len = load_be16(packet + 15);
    out->data_len = load_be16(packet + 17);
    out->sn_packets = packet[19];
    out->sn_index = packet[20];
    if (length != 24) {
        out->pio_reg = packet[21];
        out->pio_addr =
            (static_cast<uint32_t>(packet[22]) << 16) | (static_cast<uint32_t>(packet[23]) << 8) | packet[24];
    }
    if (length >= 28) {
        out->ans_status = static_cast<uint8_t>(packet[25] >> 4);
        out->ans_reply = packet[27];
    }
    out->data_size = cm2::data_bytes(length);
    std::memcpy(out->data, packet + cm2::kHeadBytes, static_cast<size_t>(out->data_size));
    out->crc = load_be32(packet + length - 4);
    out->crc_ok = cm2::crc_ok(packet, length) ? 1 : 0;
    return out->preamble_ok ? 0 : -1;
}
