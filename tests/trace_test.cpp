// The packet trace: exact text on standard output.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kavrel_direct.h"
#include "protocol/cm2_codec.h"
#include "support/fake_bridge.h"

namespace kavrel::test {
namespace {

template <typename Fn>
std::string printed(Fn &&fn) {
    ::testing::internal::CaptureStdout();
    fn();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

std::unique_ptr<cm2_packet> parsed(const Bytes &bytes) {
    auto packet = std::make_unique<cm2_packet>();
    kavrel_direct_parse_response(bytes.data(), static_cast<int32_t>(bytes.size()), packet.get());
    return packet;
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

TEST(HexDump, SixteenPerLineWithIndentedContinuation) {
    const Bytes sixteen(16, 0xAB);
    std::string line;
    for (int i = 0; i < 16; ++i) line += " AB";
    EXPECT_EQ(printed([&] { kavrel_direct_dump_hex(sixteen.data(), 16); }), line + "\n");

    Bytes seventeen = sixteen;
    seventeen.push_back(0x01);
    EXPECT_EQ(printed([&] { kavrel_direct_dump_hex(seventeen.data(), 17); }), line + "\n        01\n");
    EXPECT_EQ(printed([&] { kavrel_direct_dump_hex(sixteen.data(), 0); }), "\n");
}

TEST(CodeNames, ServiceAndReplyTables) {
    EXPECT_STREQ(kavrel_direct_srv_name(0x0D), "Read Memory (Query)");
    EXPECT_STREQ(kavrel_direct_srv_name(0x3D), "Write Memory (No ACK)");
    EXPECT_STREQ(kavrel_direct_srv_name(0xEA), "Response (Write ACK)");
    EXPECT_STREQ(kavrel_direct_srv_name(0x00), "Unknown Service");
    EXPECT_STREQ(kavrel_direct_ans_reply_name(0xAC), "Normal ACK");
    EXPECT_STREQ(kavrel_direct_ans_reply_name(0xE0), "Command Timeout");
    EXPECT_STREQ(kavrel_direct_ans_reply_name(0xE3), "Write Protect Not Open");
    EXPECT_STREQ(kavrel_direct_ans_reply_name(0xAD), "Unknown Reply");
}

TEST(PacketTree, WritePacketPrintsTheDocumentedTree) {
    auto packet = parsed(cm2_write_bytes(0xC1, 0x000012, {0x00, 0x00, 0x00, 0xEA}));
    EXPECT_EQ(printed([&] { kavrel_direct_print_parsed(packet.get()); }), kWriteTree);
}

TEST(PacketTree, WrongPreamblePrintsOnlyTheErrorLine) {
    auto packet = std::make_unique<cm2_packet>();
    *packet = cm2_packet{};
    EXPECT_EQ(printed([&] { kavrel_direct_print_parsed(packet.get()); }),
              "  [ERROR] Preamble mismatch, not a valid CM2 packet\n");
}

std::string data_line(int size) {
    auto packet = parsed(cm2_reply(0xC6, 0, Bytes(static_cast<size_t>(size), 0x11)));
    const std::string tree = printed([&] { kavrel_direct_print_parsed(packet.get()); });
    const size_t start = tree.find("DATA:");
    return tree.substr(start, tree.find('\n', start) - start);
}

TEST(PacketTree, DataLineShowsAtMost32Bytes) {
    std::string groups;
    for (int i = 0; i < 32; ++i) groups += "11 ";
    EXPECT_EQ(data_line(40), "DATA: " + groups + "... (40 bytes)");
    EXPECT_EQ(data_line(32), "DATA: " + groups + " (32 bytes)");
    EXPECT_EQ(data_line(0), "DATA:  (no data)");
}

TEST(PacketTree, AnsLineNamesStatusAndReply) {
    Bytes reply = cm2_reply(0xC1, 0x41, {}, 0xE1);
    reply[25] = 0xB0;
    auto packet = parsed(reply);
    const std::string tree = printed([&] { kavrel_direct_print_parsed(packet.get()); });
    EXPECT_NE(tree.find("ANS:  B 00 E1               (Status=11=Failed, Reply=E1h=CRC Mismatch)\n"),
              std::string::npos)
        << tree;
    EXPECT_NE(tree.find("(CRC FAIL)"), std::string::npos);
}

TEST(FramedReport, NoReplyAndUnparsableReply) {
    const Bytes sent = cm2_query_bytes(0xC1, 0x41, 2);
    const std::string sent_dump =
        " AA AA AA AA AA AA AA AB CC 00 01 00 02 0D EE 00\n        02 00 00 01 01 C1 00 00 41 00 00 00 AC 0B "
        "B3 BC\n";
    EXPECT_EQ(printed([&] { kavrel_direct_print_cmd_info("Version", sent.data(), 32, nullptr, 0); }),
              "\n========== Version ==========\n[SEND] (32 bytes):\n       " + sent_dump +
                  "[RECV]: No data\n==============================\n");

    const Bytes junk(10, 0x55);
    const std::string out =
        printed([&] { kavrel_direct_print_cmd_info("T", sent.data(), 32, junk.data(), 10); });
    EXPECT_NE(out.find("[RECV] (10 bytes):\n        55 55"), std::string::npos) << out;
    EXPECT_NE(out.find("[PARSED]: Invalid packet format\n=============================="), std::string::npos);
}

TEST(FramedReport, ParsedReplyPrintsTheTree) {
    const Bytes sent = cm2_write_bytes(0xC1, 0x000012, {0x00, 0x00, 0x00, 0xEA});
    const std::string out =
        printed([&] { kavrel_direct_print_cmd_info("Write", sent.data(), 36, sent.data(), 36); });
    EXPECT_NE(out.find(std::string("[PARSED]:\n") + kWriteTree + "==============================\n"),
              std::string::npos)
        << out;
}

}  // namespace
}  // namespace kavrel::test
