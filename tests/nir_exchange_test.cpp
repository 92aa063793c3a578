// The NIR command exchange: framing, CRC-16, quiet-time reading.
#include <cstring>

#include "support/device_fixture.h"
#include "transport/nir_exchange.h"

namespace kavrel::test {
namespace {

class NirExchange : public DeviceTest {
protected:
    int device = -1;
    uint8_t answer[64] = {};
    int32_t answer_length = -1;
    double started = 0;

    void SetUp() override {
        DeviceTest::SetUp();
        device = open_nir();
        bind_active();
        std::memset(answer, 0xEE, sizeof answer);
        started = bridge.now();
    }
    int32_t send(const Bytes &command, int32_t capacity = 32, uint32_t quiet = kNirQueryQuietMs) {
        started = bridge.now();
        return nir_send_command(command.data(), static_cast<int32_t>(command.size()), answer, &answer_length,
                                capacity, quiet);
    }
    double elapsed() const { return bridge.now() - started; }
};

TEST(NirCrc16, CheckValueAndFrames) {
    EXPECT_EQ(nir_crc16(reinterpret_cast<const uint8_t *>("123456789"), 9), 0x4B37);
    EXPECT_EQ(hex(nir_frame({'V'})), "56 7E 3F");
    EXPECT_EQ(hex(nir_reply({})), "06 42 3F");
}

TEST_F(NirExchange, AcknowledgeWithoutDataAndTheCallOrder) {
    bridge.expect(device, {0x56, 0x7E, 0x3F}, at_once({0x06, 0x42, 0x3F}));
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 0);

    const auto &calls = bridge.calls;
    ASSERT_GE(calls.size(), 5u);
    EXPECT_EQ(calls[0].name, "purge");
    EXPECT_EQ(calls[0].a, 3u);
    EXPECT_EQ(calls[1].name, "write");
    EXPECT_EQ(calls[2].name, "set_timeouts");
    EXPECT_EQ(calls[2].a, 50u);
    EXPECT_EQ(calls[2].b, 5000u);
    EXPECT_EQ(calls[3].name, "read");
    EXPECT_EQ(calls.back().name, "set_timeouts");
    EXPECT_EQ(calls.back().a, 5000u);
    EXPECT_EQ(calls.back().b, 5000u);
    // Every exchange lasts its quiet time after the last byte, and not much more.
    EXPECT_GE(elapsed(), 500.0);
    EXPECT_LE(elapsed(), 50.0 + 500.0 + 55.0);
}

TEST_F(NirExchange, QuietTimeRunsFromTheLastByte) {
    const Bytes reply = nir_reply({1, 2, 3, 4, 5, 6});
    bridge.reply_any(device, {Chunk{Bytes(reply.begin(), reply.begin() + 3), 0},
                              Chunk{Bytes(reply.begin() + 3, reply.begin() + 6), 400},
                              Chunk{Bytes(reply.begin() + 6, reply.end()), 400}});
    EXPECT_EQ(send({'?', 'i'}, 32, 500), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 6);
    EXPECT_EQ(answer[5], 6);
    EXPECT_GE(elapsed(), 800.0 + 500.0);
}

TEST_F(NirExchange, NegativeAcknowledgeAndDamagedReplies) {
    bridge.reply_any(device, at_once(nir_reply({}, 0x15)));
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_ERR_IO);

    Bytes damaged = nir_reply({}, 0x15);
    damaged.back() ^= 1;
    bridge.reply_any(device, at_once(damaged));
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_ERR_CRC);

    bridge.reply_any(device, at_once({0x06, 0x42}));
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(answer_length, -1);  // untouched on failure
    EXPECT_EQ(answer[0], 0xEE);
}

TEST_F(NirExchange, SilenceTimesOutAfterTheQuietTime) {
    bridge.reply_any(device, {});
    EXPECT_EQ(send({'V'}, 32, 300), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_GE(elapsed(), 300.0);
    EXPECT_LE(elapsed(), 300.0 + 55.0);
}

TEST_F(NirExchange, DataBeyondCapacityIsCut) {
    Bytes data(40);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i);
    bridge.reply_any(device, at_once(nir_reply(data)));
    EXPECT_EQ(send({'?', 'S'}, 32), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 32);
    EXPECT_EQ(answer[31], 31);
    EXPECT_EQ(answer[32], 0xEE);
}

TEST_F(NirExchange, NoAnswerLengthMeansNothingCopied) {
    bridge.reply_any(device, at_once(nir_reply({9, 9, 9})));
    const uint8_t command = 'V';
    EXPECT_EQ(nir_send_command(&command, 1, answer, nullptr, 32, 500), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer[0], 0xEE);
}

TEST_F(NirExchange, CommandLengthLimits) {
    Bytes big(8191, 0x11);
    EXPECT_EQ(nir_send_command(big.data(), 0, answer, &answer_length, 32, 300),
              KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(nir_send_command(big.data(), 8191, answer, &answer_length, 32, 300),
              KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls_named("write").empty());

    bridge.reply_any(device, at_once(nir_reply({})));
    EXPECT_EQ(nir_send_command(big.data(), 8190, answer, &answer_length, 32, 300), KAVREL_DIRECT_OK);
    ASSERT_EQ(bridge.calls_named("write").size(), 1u);
    EXPECT_EQ(bridge.calls_named("write")[0].bytes.size(), 8192u);
}

TEST_F(NirExchange, ReadingStopsAtTheReceiveLimitWithoutWaitingForSilence) {
    Bytes reply(16384, 0x33);
    reply[0] = 0x06;
    const uint16_t crc = nir_crc16(reply.data(), 16382);
    reply[16382] = static_cast<uint8_t>(crc >> 8);
    reply[16383] = static_cast<uint8_t>(crc);
    Bytes flood = reply;
    flood.insert(flood.end(), 100, 0x44);
    bridge.reply_any(device, at_once(flood));
    EXPECT_EQ(send({'S'}, 32, 120000), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 32);
    EXPECT_LT(elapsed(), 1000.0);
}

TEST_F(NirExchange, BridgeFailures) {
    Step short_write;
    short_write.written = 1;
    bridge.instrument(device).script.push_back(short_write);
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_ERR_IO);

    Step failed_write;
    failed_write.write_status = 4;
    bridge.instrument(device).script.push_back(failed_write);
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_ERR_IO);

    bridge.clear_calls();
    bridge.instrument(device).fail_read_after = 0;
    bridge.reply_any(device, at_once(nir_reply({})));
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_ERR_IO);
    // After a failed read the 50 ms limit stays until the next exchange.
    EXPECT_EQ(bridge.calls_named("set_timeouts").back().a, 50u);
}

TEST_F(NirExchange, NeedsAnOpenDevice) {
    kavrel_direct_close_all_devices();
    operation.reset();
    bridge.clear_calls();
    EXPECT_EQ(send({'V'}), KAVREL_DIRECT_ERR_NOT_OPEN);
    int32_t received = 0;
    EXPECT_EQ(nir_read_available(answer, 64, &received, 500), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_TRUE(bridge.calls.empty());
}

}  // namespace
}  // namespace kavrel::test
