// CM2 packet codec: CRC-32, the two builders and the parser, against the
// exact bytes an instrument expects.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "kavrel_direct.h"
#include "protocol/cm2_codec.h"
#include "support/fake_bridge.h"

namespace kavrel::test {
namespace {

uint32_t crc_of(const char *text) {
    return kavrel_direct_crc32(reinterpret_cast<const uint8_t *>(text),
                               static_cast<int32_t>(std::strlen(text)));
}

TEST(Crc32, KnownValuesAndEmptyInput) {
    EXPECT_EQ(crc_of("123456789"), 0xCBF43926u);
    EXPECT_EQ(crc_of("abc"), 0x352441C2u);
    const uint8_t byte = 0x41;
    EXPECT_EQ(kavrel_direct_crc32(&byte, 0), 0u);
    EXPECT_EQ(kavrel_direct_crc32(&byte, -5), 0u);
    EXPECT_EQ(kavrel_direct_crc32(nullptr, 0), 0u);
}

TEST(Cm2Builders, QueryPacketBytes) {
    const Bytes expected = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAB, 0xCC, 0x00, 0x01,
                            0x00, 0x02, 0x0D, 0xEE, 0x00, 0x02, 0x00, 0x00, 0x01, 0x01, 0xC1,
                            0x00, 0x00, 0x41, 0x00, 0x00, 0x00, 0xAC, 0x0B, 0xB3, 0xBC};
    Bytes out(32);
    EXPECT_EQ(kavrel_direct_build_query(0xC1, 0x000041, 2, out.data()), 32);
    EXPECT_EQ(hex(out), hex(expected));
}

TEST(Cm2Builders, WritePacketBytes) {
    const Bytes expected = {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAB, 0xCC, 0x00, 0x01, 0x00,
                            0x02, 0xAD, 0xEE, 0x00, 0x01, 0x00, 0x01, 0x01, 0x01, 0xC1, 0x00, 0x00,
                            0x12, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xEA, 0x1E, 0x48, 0x5C, 0xFC};
    EXPECT_EQ(hex(cm2_write_bytes(0xC1, 0x000012, {0x00, 0x00, 0x00, 0xEA})), hex(expected));
}

TEST(Cm2Builders, WritePadsToWholeWordsUnderTheCrc) {
    const Bytes packet = cm2_write_bytes(0xC7, 0, {'a', 'b', 'c'});
    ASSERT_EQ(packet.size(), 36u);
    EXPECT_EQ(hex(Bytes(packet.begin() + 15, packet.begin() + 19)), "00 01 00 01");
    EXPECT_EQ(hex(Bytes(packet.begin() + 28, packet.end())), "61 62 63 00 0E A5 1C C3");
}

TEST(Cm2Builders, EmptyWriteIsAHeadAndACrc) {
    const Bytes packet = cm2_write_bytes(0xC7, 0, {});
    ASSERT_EQ(packet.size(), 32u);
    EXPECT_EQ(hex(Bytes(packet.begin() + 15, packet.begin() + 19)), "00 00 00 00");
    const uint32_t crc = kavrel_direct_crc32(packet.data() + 8, 20);
    EXPECT_EQ(packet[28], crc >> 24);
    EXPECT_EQ(packet[31], crc & 0xFF);
}

class Cm2Parser : public ::testing::Test {
protected:
    std::unique_ptr<cm2_packet> out = std::make_unique<cm2_packet>();
    int32_t parse(const Bytes &bytes) {
        std::memset(out.get(), 0x5A, sizeof *out);  // catch fields left unwritten
        return kavrel_direct_parse_response(bytes.data(), static_cast<int32_t>(bytes.size()), out.get());
    }
    bool all_zero() const {
        const auto *p = reinterpret_cast<const uint8_t *>(out.get());
        for (size_t i = 0; i < sizeof *out; ++i)
            if (p[i] != 0) return false;
        return true;
    }
};

TEST_F(Cm2Parser, ShortPacketLeavesRecordZero) {
    EXPECT_EQ(parse(Bytes(23, 0xAA)), -1);
    EXPECT_TRUE(all_zero());
}

TEST_F(Cm2Parser, LongerThanTheRecordIsRefusedWithoutReading) {
    Bytes huge = cm2_reply(0xC6, 0, Bytes(16384 - 28, 1));
    ASSERT_GT(huge.size(), 16384u);
    EXPECT_EQ(parse(huge), -1);
    EXPECT_TRUE(all_zero());
    EXPECT_EQ(kavrel_direct_parse_response(huge.data(), 100, nullptr), -1);
}

TEST_F(Cm2Parser, TwentyFourBytesHaveNoPioAnsOrData) {
    Bytes packet = cm2_reply(0xC1, 0x41, {1, 2, 3, 4});
    packet.resize(24);
    EXPECT_EQ(parse(packet), 0);
    EXPECT_EQ(out->pio_reg, 0);
    EXPECT_EQ(out->pio_addr, 0u);
    EXPECT_EQ(out->ans_status, 0);
    EXPECT_EQ(out->ans_reply, 0);
    EXPECT_EQ(out->data_size, 0);
    EXPECT_EQ(out->crc, 0x01C10000u);  // bytes 20-23: 01 C1 00 00
    EXPECT_EQ(out->raw_len, 24);
}

TEST_F(Cm2Parser, AnsWithoutDataBelow33Bytes) {
    Bytes packet = cm2_reply(0xC1, 0x41, {}, 0xE1);
    packet[25] = 0xB0;
    EXPECT_EQ(parse(packet), 0);
    EXPECT_EQ(out->ans_status, 0xB);
    EXPECT_EQ(out->ans_reply, 0xE1);
    EXPECT_EQ(out->data_size, 0);
    EXPECT_EQ(out->crc_ok, 0);  // byte 25 changed after the CRC was taken

    Bytes one = cm2_reply(0xC1, 0x41, {}, 0xAC);
    one.insert(one.begin() + 28, 0x77);  // 33 bytes: one data byte
    EXPECT_EQ(parse(one), 0);
    EXPECT_EQ(out->data_size, 1);
    EXPECT_EQ(out->data[0], 0x77);
}

TEST_F(Cm2Parser, FullReplyFieldsAndCrc) {
    const Bytes packet = cm2_reply(0xC2, 0x00000B, {0, 0, 0x08, 0x00});
    EXPECT_EQ(parse(packet), 0);
    EXPECT_EQ(out->preamble_ok, 1);
    EXPECT_EQ(out->crc_ok, 1);
    EXPECT_EQ(out->ver, 0xCC);
    EXPECT_EQ(out->ta, 0x0002);
    EXPECT_EQ(out->sa, 0x0001);
    EXPECT_EQ(out->srv, 0xE0);
    EXPECT_EQ(out->fsn, 0xEE);
    EXPECT_EQ(out->file_len, 1);
    EXPECT_EQ(out->data_len, 1);
    EXPECT_EQ(out->sn_packets, 1);
    EXPECT_EQ(out->sn_index, 1);
    EXPECT_EQ(out->pio_reg, 0xC2);
    EXPECT_EQ(out->pio_addr, 0x00000Bu);
    EXPECT_EQ(out->ans_reply, 0xAC);
    EXPECT_EQ(out->data_size, 4);
    EXPECT_EQ(out->data[2], 0x08);
    EXPECT_EQ(std::memcmp(out->raw, packet.data(), packet.size()), 0);
}

TEST_F(Cm2Parser, DataBeyond8192BytesIsCutButCrcCoversAll) {
    const Bytes packet = cm2_reply(0xC6, 0, Bytes(8196, 0x42));
    EXPECT_EQ(parse(packet), 0);
    EXPECT_EQ(out->data_size, 8192);
    EXPECT_EQ(out->raw_len, static_cast<int32_t>(packet.size()));
    EXPECT_EQ(out->crc_ok, 1);
}

TEST_F(Cm2Parser, WrongPreambleFillsFieldsButFails) {
    Bytes packet = cm2_reply(0xC1, 0x46, {1, 2, 3, 4});
    packet[7] = 0xAA;
    EXPECT_EQ(parse(packet), -1);
    EXPECT_EQ(out->preamble_ok, 0);
    EXPECT_EQ(out->pio_reg, 0xC1);
    EXPECT_EQ(out->data_size, 4);
    EXPECT_EQ(out->crc_ok, 1);  // the preamble is not under the CRC
}

TEST_F(Cm2Parser, CrcMismatchOrReplyCodeNeverFailsTheParse) {
    Bytes packet = cm2_reply(0xC1, 0x46, {1, 2, 3, 4}, 0xE2);
    packet.back() ^= 0xFF;
    EXPECT_EQ(parse(packet), 0);
    EXPECT_EQ(out->crc_ok, 0);
    EXPECT_EQ(out->ans_reply, 0xE2);
}

}  // namespace
}  // namespace kavrel::test
