// Diagnostic printing of CM2 packets on standard output. Nothing in the
// library calls these printers; they print only when an application asks.
// The tree's branches are UTF-8 and written as bytes, whatever the console's
// code page.
#include <cstdio>

#include "protocol/cm2_codec.h"

// U+251C U+2500 and U+2514 U+2500, spelled as bytes so that every compiler
// emits UTF-8 whatever its execution character set.
#define BRANCH "\xE2\x94\x9C\xE2\x94\x80"
#define LAST "\xE2\x94\x94\xE2\x94\x80"

namespace kavrel::cm2 {
namespace {

const char *status_name(uint8_t status) {
    switch (status) {
        case 0: return "Normal";
        case 14: return "Forbidden";
        case 11: return "Failed";
        default: return "Unknown";
    }
}

// The hex groups of the dump; continuation lines line up under the 7-space
// indent that the framed report leaves after its headings.
void print_hex_groups(const uint8_t *bytes, int32_t length) {
    for (int32_t i = 0; i < length; ++i) {
        std::printf(" %02X", bytes[i]);
        if ((i + 1) % 16 == 0 && i + 1 < length) std::printf("\n       ");
    }
}

void print_data(const cm2_packet &p) {
    std::printf("  " BRANCH " DATA: ");
    if (p.data_size <= 0) {
        std::puts(" (no data)");
        return;
    }
    const int32_t shown = p.data_size < 32 ? p.data_size : 32;
    for (int32_t i = 0; i < shown; ++i) std::printf("%02X ", p.data[i]);
    if (p.data_size > 32) std::printf("...");
    std::printf(" (%d bytes)\n", static_cast<int>(p.data_size));
}

}  // namespace
}  // namespace kavrel::cm2

using namespace kavrel;

extern "C" KAVREL_DIRECT_API void kavrel_direct_dump_hex(const uint8_t *bytes, int32_t length) {
    if (bytes != nullptr) cm2::print_hex_groups(bytes, length);
    std::putchar('\n');
}

extern "C" KAVREL_DIRECT_API const char *kavrel_direct_srv_name(uint8_t code) {
    switch (code) {
        case cm2::kSrvQuery: return "Read Memory (Query)";
        case cm2::kSrvWriteAck: return "Write Memory (With ACK)";
        case cm2::kSrvWriteNoAck: return "Write Memory (No ACK)";
        case cm2::kSrvResponseWriteAck: return "Response (Write ACK)";
        case cm2::kSrvResponseData: return "Response (With Data)";
        default: return "Unknown Service";
    }
}

extern "C" KAVREL_DIRECT_API const char *kavrel_direct_ans_reply_name(uint8_t code) {
    switch (code) {
        case cm2::kReplyAck: return "Normal ACK";
        case cm2::kReplyTimeout: return "Command Timeout";
        case cm2::kReplyCrcMismatch: return "CRC Mismatch";
        case cm2::kReplyInvalidCommand: return "Invalid Command";
        case cm2::kReplyWriteProtect: return "Write Protect Not Open";
        default: return "Unknown Reply";
    }
}

extern "C" KAVREL_DIRECT_API void kavrel_direct_print_parsed(const cm2_packet *packet) {
    if (packet == nullptr) return;
    const cm2_packet &p = *packet;
    if (!p.preamble_ok) {
        std::puts("  [ERROR] Preamble mismatch, not a valid CM2 packet");
        return;
    }
    std::printf("  " BRANCH " PRE:  ");
    for (uint8_t b : p.pre) std::printf("%02X ", b);
    std::puts(" (Preamble)");
    std::printf("  " BRANCH " VER:  %02X                    (Protocol v%d.%d)\n", p.ver, p.ver >> 4,
                p.ver & 0x0F);
    std::printf("  " BRANCH " TA:   %02X %02X                  (Target: %02Xh)\n", p.ta >> 8, p.ta & 0xFF,
                p.ta & 0xFF);
    std::printf("  " BRANCH " SA:   %02X %02X                  (Source: %02Xh)\n", p.sa >> 8, p.sa & 0xFF,
                p.sa & 0xFF);
    std::printf("  " BRANCH " SRV:  %02X                    (%s)\n", p.srv, kavrel_direct_srv_name(p.srv));
    std::printf("  " BRANCH " FSN:  %02X                    (File SN: %d)\n", p.fsn, p.fsn);
    std::printf("  " BRANCH " LN:   %04X %04X            (FileLen=%d, DataLen=%d)\n", p.file_len, p.data_len,
                p.file_len, p.data_len);
    std::printf("  " BRANCH " SN:   %02X %02X                  (Packets=%d, Index=%d)\n", p.sn_packets,
                p.sn_index, p.sn_packets, p.sn_index);
    std::printf("  " BRANCH " PIO:  %02X %06lX             (Reg=%02Xh, Addr=%06lXh)\n", p.pio_reg,
                static_cast<unsigned long>(p.pio_addr), p.pio_reg, static_cast<unsigned long>(p.pio_addr));
    std::printf("  " BRANCH " ANS:  %01X %02X %02X               (Status=%d=%s, Reply=%02Xh=%s)\n",
                p.ans_status, 0, p.ans_reply, p.ans_status, cm2::status_name(p.ans_status), p.ans_reply,
                kavrel_direct_ans_reply_name(p.ans_reply));
    cm2::print_data(p);
    std::printf("  " LAST " CRC:  %08X              (%s)\n", static_cast<unsigned>(p.crc),
                p.crc_ok == 1 ? "CRC OK" : "CRC FAIL");
}

extern "C" void kavrel_direct_print_cmd_info(const char *title, const uint8_t *sent, int32_t sent_length,
                                             const uint8_t *received, int32_t received_length) {
    std::printf("\n========== %s ==========\n", title != nullptr ? title : "");
    std::printf("[SEND] (%d bytes):\n       ", static_cast<int>(sent_length));
    if (sent != nullptr) cm2::print_hex_groups(sent, sent_length);
    std::putchar('\n');
    if (received_length >= 1 && received != nullptr) {
        std::printf("[RECV] (%d bytes):\n       ", static_cast<int>(received_length));
        cm2::print_hex_groups(received, received_length);
        std::putchar('\n');
        cm2_packet parsed;
        if (kavrel_direct_parse_response(received, received_length, &parsed) == 0) {
            std::puts("[PARSED]:");
            kavrel_direct_print_parsed(&parsed);
        } else {
            std::puts("[PARSED]: Invalid packet format");
        }
    } else {
        std::puts("[RECV]: No data");
    }
    std::puts("==============================");
}
