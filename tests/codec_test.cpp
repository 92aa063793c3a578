// The CM2 codec and the packet printers against literal bytes and text: the
// only check of the codec that does not go through the tests' own encoder.
#include "protocol/cm2_codec.h"
#include "support/fake_bridge.h"

namespace kavrel::test {
namespace {

Bytes built_write(uint8_t reg, uint32_t address, const Bytes &data) {
    Bytes out(64);
    const auto n = static_cast<int32_t>(data.size());
    out.resize(static_cast<size_t>(kavrel_direct_build_write(reg, address, data.data(), n, out.data())));
    return out;
}

// Each packet built by the library and by the tests' encoder.
TEST(Cm2Builders, GoldenPackets) {
    Bytes query(32);
    EXPECT_EQ(kavrel_direct_build_query(0xC1, 0x012345, 2, query.data()), 32);
    const Bytes word{0x00, 0x00, 0x00, 0xEA}, abc{'a', 'b', 'c'};
    const struct {
        Bytes library, encoder;
        const char *expected;
    } cases[] = {
        {query, cm2_query_bytes(0xC1, 0x012345, 2),
         "AA AA AA AA AA AA AA AB CC 00 01 00 02 0D EE 00 02 00 00 01 01 C1 01 23 45 00 00 00 6E 54 A2 9A"},
        {built_write(0xC1, 0x12, word), cm2_write_bytes(0xC1, 0x12, word),
         "AA AA AA AA AA AA AA AB CC 00 01 00 02 AD EE 00 01 00 01 01 01 C1 00 00 12 00 00 00 00 00 00 EA 1E "
         "48 5C FC"},
        // Padded to a whole word under the CRC.
        {built_write(0xC7, 0, abc), cm2_write_bytes(0xC7, 0, abc),
         "AA AA AA AA AA AA AA AB CC 00 01 00 02 AD EE 00 01 00 01 01 01 C7 00 00 00 00 00 00 61 62 63 00 0E "
         "A5 1C C3"},
        {built_write(0xC7, 0, {}), cm2_write_bytes(0xC7, 0, {}),
         "AA AA AA AA AA AA AA AB CC 00 01 00 02 AD EE 00 00 00 00 01 01 C7 00 00 00 00 00 00 C6 0A E9 64"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(hex(c.library), c.expected);
        EXPECT_EQ(hex(c.encoder), c.expected);
    }
    // The CRC of nothing, or of a null pointer, is 0.
    EXPECT_EQ(kavrel_direct_crc32(abc.data(), 0) | kavrel_direct_crc32(abc.data(), -5), 0u);
    EXPECT_EQ(kavrel_direct_crc32(nullptr, 4), 0u);
}

// Every field of a parsed record, and the parser's result, as one line.
std::string parsed(const Bytes &packet) {
    auto p = std::make_unique<cm2_packet>();
    std::memset(p.get(), 0x5A, sizeof *p);  // fields left unwritten show
    const auto n = static_cast<int32_t>(packet.size());
    const int32_t rc = kavrel_direct_parse_response(packet.data(), n, p.get());
    char line[256];
    std::snprintf(
        line, sizeof line,
        "%d %02X%02X/%d %02X %04X %04X %02X %02X %d %d %d %d %02X %06X %X %02X size=%d %02X%02X "
        "crc=%08X/%d raw=%d",
        rc, p->pre[0], p->pre[7], p->preamble_ok, p->ver, p->ta, p->sa, p->srv, p->fsn, p->file_len,
        p->data_len, p->sn_packets, p->sn_index, p->pio_reg, static_cast<unsigned>(p->pio_addr),
        p->ans_status, p->ans_reply, p->data_size, p->data[0],
        p->data[p->data_size > 0 ? p->data_size - 1 : 0], static_cast<unsigned>(p->crc), p->crc_ok,
        p->raw_len);
    EXPECT_TRUE(rc != 0 || std::memcmp(p->raw, packet.data(), static_cast<size_t>(p->raw_len)) == 0);
    return line;
}

Bytes with(Bytes packet, size_t at, uint8_t value) {
    packet[at] = value;
    return packet;
}

TEST(Cm2Parser, Fields) {
    const Bytes reply = cm2_reply(0xC2, 0x01020B, {0x01, 0, 0x08, 0x09});
    Bytes no_data = with(cm2_reply(0xC1, 0x41, {}, 0xE1), 25, 0xB0);  // byte 25 after the CRC was taken
    Bytes one_byte = cm2_reply(0xC1, 0x41, {});
    one_byte.insert(one_byte.begin() + 28, 0x77);
    const struct {
        const char *name;
        Bytes packet;
        std::string expected;
    } cases[] = {
        {"reply with data", reply,
         "0 AAAB/1 CC 0002 0001 E0 EE 1 1 1 1 C2 01020B 0 AC size=4 0109 crc=3529E3E0/1 raw=36"},
        {"no data below 33 bytes", no_data,
         "0 AAAB/1 CC 0002 0001 EA EE 0 0 1 1 C1 000041 B E1 size=0 0000 crc=C3CB2C1F/0 raw=32"},
        {"33 bytes: one data byte", one_byte,
         "0 AAAB/1 CC 0002 0001 EA EE 0 0 1 1 C1 000041 0 AC size=1 7777 crc=CBA61132/0 raw=33"},
        {"28 bytes: head only, CRC from its last four", Bytes(reply.begin(), reply.begin() + 28),
         "0 AAAB/1 CC 0002 0001 E0 EE 1 1 1 1 C2 01020B 0 AC size=0 0000 crc=0B0000AC/0 raw=28"},
        {"24 bytes: no PIO, ANS or data", Bytes(reply.begin(), reply.begin() + 24),
         "0 AAAB/1 CC 0002 0001 E0 EE 1 1 1 1 00 000000 0 00 size=0 0000 crc=01C20102/0 raw=24"},
        {"wrong preamble: fields filled, the CRC does not cover it", with(reply, 3, 0x55),
         "-1 AAAB/0 CC 0002 0001 E0 EE 1 1 1 1 C2 01020B 0 AC size=4 0109 crc=3529E3E0/1 raw=36"},
        {"CRC wrong: parsed all the same", with(reply, 35, 0x00),
         "0 AAAB/1 CC 0002 0001 E0 EE 1 1 1 1 C2 01020B 0 AC size=4 0109 crc=3529E300/0 raw=36"},
        {"data beyond 8192 bytes is cut, the CRC covers all", cm2_reply(0xC6, 0, Bytes(8196, 0x42)),
         "0 AAAB/1 CC 0002 0001 E0 EE 2049 2049 1 1 C6 000000 0 AC size=8192 4242 crc=AFA29200/1 raw=8228"},
    };
    for (const auto &c : cases) EXPECT_EQ(parsed(c.packet), c.expected) << c.name;

    const std::string zero =
        "-1 0000/0 00 0000 0000 00 00 0 0 0 0 00 000000 0 00 size=0 0000 crc=00000000/0 raw=0";
    EXPECT_EQ(parsed(Bytes(23, 0xAA)), zero);
    EXPECT_EQ(parsed(Bytes(16385, 0xAA)), zero);
    EXPECT_EQ(kavrel_direct_parse_response(reply.data(), 36, nullptr), -1);
    auto p = std::make_unique<cm2_packet>();
    p->raw_len = 7;
    EXPECT_EQ(kavrel_direct_parse_response(nullptr, 36, p.get()), -1);
    EXPECT_EQ(p->raw_len, 0);
}

std::string tree(const Bytes &packet) {
    cm2_packet p;
    kavrel_direct_parse_response(packet.data(), static_cast<int32_t>(packet.size()), &p);
    return printed([&] { kavrel_direct_print_parsed(&p); });
}

std::string line_of(const std::string &text, const char *field) {
    const size_t start = text.find(field);
    return start == std::string::npos ? "" : text.substr(start, text.find('\n', start) - start);
}

const char kWriteTree[] =
    "  \u251c\u2500 PRE:  AA AA AA AA AA AA AA AB  (Preamble)\n"
    "  \u251c\u2500 VER:  CC                    (Protocol v12.12)\n"
    "  \u251c\u2500 TA:   00 01                  (Target: 01h)\n"
    "  \u251c\u2500 SA:   00 02                  (Source: 02h)\n"
    "  \u251c\u2500 SRV:  AD                    (Write Memory (With ACK))\n"
    "  \u251c\u2500 FSN:  EE                    (File SN: 238)\n"
    "  \u251c\u2500 LN:   0001 0001            (FileLen=1, DataLen=1)\n"
    "  \u251c\u2500 SN:   01 01                  (Packets=1, Index=1)\n"
    "  \u251c\u2500 PIO:  C1 000012             (Reg=C1h, Addr=000012h)\n"
    "  \u251c\u2500 ANS:  0 00 00               (Status=0=Normal, Reply=00h=Unknown Reply)\n"
    "  \u251c\u2500 DATA: 00 00 00 EA  (4 bytes)\n"
    "  \u2514\u2500 CRC:  1E485CFC              (CRC OK)\n";

TEST(PacketPrinters, TreeOfAWritePacketItsFieldsAndTheCodeNames) {
    const Bytes write = cm2_write_bytes(0xC1, 0x000012, {0x00, 0x00, 0x00, 0xEA});
    EXPECT_EQ(tree(write), kWriteTree);
    const std::string addresses = tree(with(with(write, 9, 0x12), 11, 0x34));
    EXPECT_EQ(line_of(addresses, "TA:") + "|" + line_of(addresses, "SA:"),
              "TA:   12 01                  (Target: 01h)|SA:   34 02                  (Source: 02h)");
    EXPECT_EQ(tree(Bytes(24, 0)), "  [ERROR] Preamble mismatch, not a valid CM2 packet\n");

    const std::string groups = hex(Bytes(32, 0x11)) + " ";
    EXPECT_EQ(line_of(tree(cm2_reply(0xC6, 0, Bytes(40, 0x11))), "DATA"),
              "DATA: " + groups + "... (40 bytes)");
    EXPECT_EQ(line_of(tree(cm2_reply(0xC6, 0, Bytes(32, 0x11))), "DATA"), "DATA: " + groups + " (32 bytes)");
    EXPECT_EQ(line_of(tree(cm2_reply(0xC6, 0, {})), "DATA"), "DATA:  (no data)");

    const std::pair<uint8_t, const char *> statuses[] = {
        {0xB0, "ANS:  B 00 E1               (Status=11=Failed, Reply=E1h=CRC Mismatch)"},
        {0xE0, "ANS:  E 00 E1               (Status=14=Forbidden, Reply=E1h=CRC Mismatch)"},
        {0x50, "ANS:  5 00 E1               (Status=5=Unknown, Reply=E1h=CRC Mismatch)"},
    };
    for (const auto &[byte, line] : statuses) {
        const std::string text = tree(with(cm2_reply(0xC1, 0x41, {}, 0xE1), 25, byte));
        EXPECT_EQ(line_of(text, "ANS"), line);
        EXPECT_EQ(line_of(text, "CRC:"), "CRC:  C3CB2C1F              (CRC FAIL)");
    }
    // Every code's name.
    std::string names;
    for (int code : {0x0D, 0xAD, 0x3D, 0xEA, 0xE0, 0x00}) (names += kavrel_direct_srv_name(code)) += "|";
    for (int c : {0xAC, 0xE0, 0xE1, 0xE2, 0xE3, 0xAD}) (names += kavrel_direct_ans_reply_name(c)) += "|";
    EXPECT_EQ(names,
              "Read Memory (Query)|Write Memory (With ACK)|Write Memory (No ACK)|Response (Write ACK)|"
              "Response (With Data)|Unknown Service|Normal ACK|Command Timeout|CRC Mismatch|Invalid Command|"
              "Write Protect Not Open|Unknown Reply|");
}

TEST(PacketPrinters, HexDumpAndFramedReport) {
    const Bytes sixteen(16, 0xAB), seventeen = with(Bytes(17, 0xAB), 16, 0x01);
    const std::string line = " " + hex(sixteen);
    EXPECT_EQ(printed([&] { kavrel_direct_dump_hex(sixteen.data(), 16); }), line + "\n");
    EXPECT_EQ(printed([&] { kavrel_direct_dump_hex(seventeen.data(), 17); }), line + "\n        01\n");
    EXPECT_EQ(printed([&] { kavrel_direct_dump_hex(sixteen.data(), 0); }), "\n");

    const Bytes sent = cm2_query_bytes(0xC1, 0x41, 2), junk(10, 0x55);
    const std::string head =
        "\n========== Version ==========\n[SEND] (32 bytes):\n        AA AA AA AA AA AA AA AB CC 00 "
        "01 00 02 0D EE 00\n        02 00 00 01 01 C1 00 00 41 00 00 00 AC 0B B3 BC\n";
    const std::string end = "==============================\n";
    EXPECT_EQ(printed([&] { kavrel_direct_print_cmd_info("Version", sent.data(), 32, nullptr, 10); }),
              head + "[RECV]: No data\n" + end);
    EXPECT_EQ(
        printed([&] { kavrel_direct_print_cmd_info("Version", sent.data(), 32, junk.data(), 10); }),
        head +
            "[RECV] (10 bytes):\n        55 55 55 55 55 55 55 55 55 55\n[PARSED]: Invalid packet format\n" +
            end);
    const Bytes write = cm2_write_bytes(0xC1, 0x000012, {0x00, 0x00, 0x00, 0xEA});
    const std::string report =
        printed([&] { kavrel_direct_print_cmd_info("Write", write.data(), 36, write.data(), 36); });
    EXPECT_EQ(report.substr(report.find("[PARSED]")), std::string("[PARSED]:\n") + kWriteTree + end);
    // Null pointers are never read; an empty reply is no reply wherever it lies.
    EXPECT_EQ(printed([] { kavrel_direct_dump_hex(nullptr, 5); }) +
                  printed([] { kavrel_direct_print_parsed(nullptr); }),
              "\n");
    EXPECT_EQ(printed([] { kavrel_direct_print_cmd_info(nullptr, nullptr, 5, nullptr, 3); }),
              "\n==========  ==========\n[SEND] (5 bytes):\n       \n[RECV]: No data\n" + end);
    EXPECT_NE(printed([&] { kavrel_direct_print_cmd_info("t", sixteen.data(), 1, sixteen.data(), 0); })
                  .find("[RECV]: No data"),
              std::string::npos);
}

}  // namespace
}  // namespace kavrel::test
