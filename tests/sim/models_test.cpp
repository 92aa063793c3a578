// The instrument models and the bridge line on their own, as a byte stream
// feeds them: requests split, joined and after garbage; replies in order and
// in USB packets.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "kavrel_direct.h"
#include "protocol/cm2_codec.h"
#include "sim/cm2_instrument.h"
#include "sim/nir_instrument.h"
#include "sim/usb_line.h"
#include "transport/nir_exchange.h"

namespace kavrel::test {
namespace {

using Bytes = std::vector<uint8_t>;

kavrel_sim_config default_config(uint32_t kind) {
    kavrel_sim_config c;
    kavrel_sim_default_config(kind, &c);
    return c;
}

// Keeps what an instrument sends, each reply with the time its first byte
// leaves.
struct Capture : sim::LineSink {
    struct Reply {
        Bytes bytes;
        double first_ms, spacing_ms;
    };
    std::vector<Reply> replies;
    double byte_ms() const override { return 0.01; }
    void emit(Bytes bytes, double first_ms, double spacing_ms) override {
        replies.push_back({std::move(bytes), first_ms, spacing_ms});
    }
};

Bytes query(uint8_t reg, uint32_t address, uint16_t words) {
    Bytes out(32);
    kavrel_direct_build_query(reg, address, words, out.data());
    return out;
}

Bytes write(uint8_t reg, uint32_t address, const Bytes &data) {
    Bytes out(static_cast<size_t>(cm2::write_packet_bytes(static_cast<int32_t>(data.size()))));
    kavrel_direct_build_write(reg, address, data.data(), static_cast<int32_t>(data.size()), out.data());
    return out;
}

Bytes nir_frame(Bytes command) {
    const uint16_t crc = nir_crc16(command.data(), command.size());
    command.push_back(static_cast<uint8_t>(crc >> 8));
    command.push_back(static_cast<uint8_t>(crc));
    return command;
}

// Byte by byte, as a slow stream delivers them, or each part whole.
void feed(sim::Instrument &instrument, const std::vector<Bytes> &parts, double at_ms, bool bytewise = true) {
    for (const Bytes &part : parts)
        for (size_t i = 0; i < part.size(); i += bytewise ? 1 : part.size())
            instrument.receive(&part[i], bytewise ? 1 : part.size(), at_ms);
}

// Service, register, address, status nibble and reply code of a CM2 reply,
// which must be well formed. It keeps the version (0xCC), sequence number
// (0xEE) and packet count (1 of 1) of the library's requests, and swaps
// their target (1) and source (2).
std::tuple<uint8_t, uint8_t, uint32_t, uint8_t, uint8_t> cm2_reply(const Bytes &reply) {
    static cm2_packet p;
    EXPECT_EQ(kavrel_direct_parse_response(reply.data(), static_cast<int32_t>(reply.size()), &p), 0);
    EXPECT_EQ(std::make_tuple(p.crc_ok, p.ver, p.ta, p.sa, p.fsn, p.sn_packets, p.sn_index),
              std::make_tuple(1, 0xCC, 2, 1, 0xEE, 1, 1));
    return {p.srv, p.pio_reg, p.pio_addr, p.ans_status, p.ans_reply};
}

TEST(Cm2Model, FindsRequestsSplitJoinedAndAfterGarbage) {
    Capture line;
    sim::Cm2Instrument cm2(default_config(KAVREL_SIM_CM2), line);
    // Garbage with a false start, then two queries.
    feed(cm2, {{0x12, 0xAA, 0xAB, 0xAA, 0xAA}, query(0xC1, 0x40, 1), query(0xC2, 0x0B, 1)}, 10.0);
    ASSERT_EQ(line.replies.size(), 2u);
    EXPECT_EQ(cm2_reply(line.replies[0].bytes), std::make_tuple(0xE0, 0xC1, 0x40u, 0, 0xAC));
    EXPECT_EQ(cm2_reply(line.replies[1].bytes), std::make_tuple(0xE0, 0xC2, 0x0Bu, 0, 0xAC));
    // One at a time: the second reply leaves after the first has.
    const Capture::Reply &a = line.replies[0];
    EXPECT_GE(line.replies[1].first_ms, a.first_ms + a.bytes.size() * a.spacing_ms);
}

Bytes corrupted(Bytes packet) {
    packet[24] ^= 1;
    return packet;
}

// A refusal's status nibble is 0xE for a write the protection forbids, 0xB
// for any other failure.
TEST(Cm2Model, RefusesWithTheStatusAndReplyCodeOfTheFault) {
    const std::tuple<const char *, Bytes, uint8_t, uint8_t> refusals[] = {
        {"CRC wrong", corrupted(query(0xC1, 0x40, 1)), 0xB, 0xE1},
        {"unknown register", query(0xC3, 0, 1), 0xB, 0xE2},
        {"unknown address", query(0xC1, 0x30, 1), 0xB, 0xE2},
        {"run past the map", query(0xC1, 0x00, 5), 0xB, 0xE2},
        {"table ends", query(0xC5, 2048, 1), 0xB, 0xE2},
        {"read-only word", write(0xC1, 0x40, {0, 0, 1, 0}), 0xB, 0xE2},
        {"page buffer while protected", write(0xC7, 0, {1, 2, 3, 4}), 0xE, 0xE3},
        {"page write while protected", write(0xC1, 0x4A, {0xCF, 0xDD, 0, 1, 0, 0, 0, 0}), 0xE, 0xE3},
    };
    for (const auto &[name, request, status, code] : refusals) {
        Capture line;
        sim::Cm2Instrument cm2(default_config(KAVREL_SIM_CM2), line);
        feed(cm2, {request}, 0, false);
        ASSERT_EQ(line.replies.size(), 1u) << name;
        const auto reply = cm2_reply(line.replies[0].bytes);
        EXPECT_EQ(std::get<3>(reply) * 0x100 + std::get<4>(reply), status * 0x100 + code) << name;
    }
}

TEST(NirModel, SkipsGarbageRefusesABadCrcAndForgetsAFrameCutShort) {
    Capture line;
    sim::NirInstrument nir(default_config(KAVREL_SIM_NIR), line);
    Bytes bad = nir_frame({'t'});
    bad.back() ^= 1;
    // Unknown bytes and an unknown query, then the version.
    feed(nir, {{0x00, 0xFF, 0x3F, 0x01}, nir_frame({'V'})}, 5.0);
    // A bad CRC, a page write while the protection is closed, a setting cut
    // short and silence, then a query of the level output.
    feed(nir, {bad, nir_frame({0xAF, 0x00, 0x02, 1, 2, 3, 4, 5, 6, 7}), {0x69, 0x00, 0x01}}, 6.0, false);
    feed(nir, {nir_frame({0x3F, 0x40})}, 200.0, false);

    ASSERT_EQ(line.replies.size(), 4u);
    EXPECT_EQ(line.replies[0].bytes,
              nir_frame({0x06, 'K', 'S', 'I', 'M', ' ', 'N', 'I', 'R', ' ', '2', '.', '3'}));
    EXPECT_EQ(line.replies[1].bytes, nir_frame({0x15}));
    EXPECT_EQ(line.replies[2].bytes, nir_frame({0x15}));
    EXPECT_EQ(line.replies[3].bytes, nir_frame({0x06, 0x00}));
}

// The bridge sends a full packet as soon as it is full and the rest when
// its latency timer next expires.
TEST(UsbLineModel, FullPacketsAtOnceAndTheTailAtTheLatencyTick) {
    platform::Clock clock(platform::Clock::Mode::virtual_time);
    platform::Inbox inbox(clock);
    for (const auto &[speed, payload] :
         {std::pair{KAVREL_SIM_FULL_SPEED, 62u}, {KAVREL_SIM_HIGH_SPEED, 510u}}) {
        inbox.clear();
        sim::UsbLine line(inbox, speed);
        line.set_latency_ms(16);
        const double start = std::ceil(clock.now_ms() / 16) * 16 + 1;  // 15 ms before a tick
        line.emit(Bytes(payload + 10, 0x55), start, line.byte_ms());
        clock.advance_to(start + (payload - 0.5) * line.byte_ms());
        EXPECT_EQ(inbox.arrived(), payload) << payload;
        clock.advance_to(start + 14.9);
        EXPECT_EQ(inbox.arrived(), payload) << payload;
        clock.advance_to(start + 15);
        EXPECT_EQ(inbox.arrived(), payload + 10) << payload;
    }
}

}  // namespace
}  // namespace kavrel::test
