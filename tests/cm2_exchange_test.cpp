// The CM2 exchange: request bytes, two-step reply reading, reply codes, the
// spectrum time limit and the timing trace; and the raw pass-through.
#include <cstring>
#include <string>

#include "protocol/cm2_codec.h"
#include "support/device_fixture.h"
#include "support/environment.h"
#include "transport/cm2_exchange.h"
#include "transport/timing.h"

namespace kavrel::test {
namespace {

class Cm2Exchange : public DeviceTest {
protected:
    int device = -1;
    uint8_t answer[64] = {};
    int32_t answer_length = -1;
    double started = 0;

    void SetUp() override {
        DeviceTest::SetUp();
        device = open_cm2();
        bind_active();
        std::memset(answer, 0xEE, sizeof answer);
    }
    void TearDown() override {
        unset_env("KAVREL_DIRECT_TRACE_TIMING");
        DeviceTest::TearDown();
    }
    int32_t query(uint8_t reg, uint32_t address, uint32_t words, int32_t capacity = 64) {
        started = bridge.now();
        return cm2_query(reg, address, words, answer, capacity, &answer_length);
    }
    double elapsed() const { return bridge.now() - started; }
    uint32_t read_limit_set() const {
        for (const auto &call : bridge.calls)
            if (call.name == "set_timeouts") return call.a;
        return 0;
    }
};

TEST_F(Cm2Exchange, QueryRoundTripAndCallOrder) {
    bridge.expect(device, cm2_query_bytes(0xC1, 0x41, 2),
                  at_once(cm2_reply(0xC1, 0x41, {1, 2, 0x0A, 0xFF, 5, 6, 7, 8})));
    EXPECT_EQ(query(0xC1, 0x41, 2), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 8);
    EXPECT_EQ(answer[3], 0xFF);
    EXPECT_EQ(answer[8], 0xEE);

    const auto &calls = bridge.calls;
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[0].name, "purge");
    EXPECT_EQ(calls[0].a, 3u);
    EXPECT_EQ(calls[1].name, "write");
    EXPECT_EQ(calls[2].name, "set_timeouts");
    EXPECT_EQ(calls[2].a, 200u);
    EXPECT_EQ(calls[2].b, 5000u);
    EXPECT_EQ(calls[3].name, "read");
    EXPECT_EQ(calls[3].a, 28u);
    EXPECT_EQ(calls[4].name, "read");
    EXPECT_EQ(calls[4].a, 12u);
    EXPECT_EQ(calls[5].name, "set_timeouts");
    EXPECT_EQ(calls[5].a, 5000u);
}

TEST_F(Cm2Exchange, ReplyWithoutDataReadsOnlyTheCrcAfterTheHead) {
    bridge.reply_any(device, at_once(cm2_reply(0xC1, 0x12, {})));
    EXPECT_EQ(cm2_write(0xC1, 0x12, answer, 4), KAVREL_DIRECT_OK);
    const auto reads = bridge.calls_named("read");
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[1].a, 4u);
    bridge.reply_any(device, at_once(cm2_reply(0xC1, 0x12, {})));
    EXPECT_EQ(query(0xC1, 0x12, 1), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 0);
}

TEST_F(Cm2Exchange, ReceiveLimitIs16384Bytes) {
    bridge.reply_any(device, at_once(cm2_reply(0xC6, 0, Bytes(4 * 4088, 0x12))));
    EXPECT_EQ(query(0xC6, 0, 1024), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 64);  // cut at the caller's room

    bridge.clear_calls();
    bridge.reply_any(device, at_once(cm2_reply(0xC6, 0, Bytes(4 * 4089, 0x12))));
    EXPECT_EQ(query(0xC6, 0, 1024), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(bridge.calls_named("read").size(), 1u);  // refused after the head
}

TEST_F(Cm2Exchange, TruncatedReplyTimesOutWhenAReadComesBackEmpty) {
    Bytes truncated = cm2_reply(0xC1, 0x41, {1, 2, 3, 4});
    truncated.resize(10);
    bridge.reply_any(device, at_once(truncated));
    EXPECT_EQ(query(0xC1, 0x41, 1), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(answer_length, -1);
    EXPECT_EQ(elapsed(), 2 * 200.0);  // 10 bytes by the first limit, nothing in the next
    // The short limit stays in force after a failed read.
    EXPECT_EQ(bridge.calls_named("set_timeouts").size(), 1u);
}

TEST_F(Cm2Exchange, ReplyCodesBecomeResults) {
    const std::pair<uint8_t, int32_t> cases[] = {{0xE2, KAVREL_DIRECT_ERR_IO},
                                                 {0xE0, KAVREL_DIRECT_ERR_TIMEOUT},
                                                 {0xE1, KAVREL_DIRECT_ERR_CRC},
                                                 {0xE3, KAVREL_DIRECT_ERR_WRITE_PROTECT},
                                                 {0x00, KAVREL_DIRECT_ERR_IO}};
    for (const auto &[code, result] : cases) {
        bridge.reply_any(device, at_once(cm2_reply(0xC1, 0x10, {0, 0, 0, 1}, code)));
        EXPECT_EQ(query(0xC1, 0x10, 1), result) << std::hex << int{code};
        EXPECT_EQ(answer_length, -1);
    }
}

TEST_F(Cm2Exchange, BadCrcAndBadPreamble) {
    Bytes bad_crc = cm2_reply(0xC1, 0x10, {0, 0, 0, 1});
    bad_crc[30] ^= 0x01;
    bridge.reply_any(device, at_once(bad_crc));
    EXPECT_EQ(query(0xC1, 0x10, 1), KAVREL_DIRECT_ERR_CRC);

    Bytes bad_preamble = cm2_reply(0xC1, 0x10, {0, 0, 0, 1});
    bad_preamble[0] = 0x00;
    bridge.reply_any(device, at_once(bad_preamble));
    EXPECT_EQ(query(0xC1, 0x10, 1), KAVREL_DIRECT_ERR_PARSE);
}

TEST_F(Cm2Exchange, NullAnswerStillReportsTheDataSize) {
    bridge.reply_any(device, at_once(cm2_reply(0xC7, 0, Bytes(12, 1))));
    EXPECT_EQ(send_and_recv(0xC7, 0, nullptr, 3, nullptr, &answer_length, 1, 0), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 12);
}

TEST_F(Cm2Exchange, AnswerIsCutAtTheCallersRoom) {
    bridge.reply_any(device, at_once(cm2_reply(0xC1, 0x46, Bytes(40, 0x61))));
    EXPECT_EQ(query(0xC1, 0x46, 4, 16), KAVREL_DIRECT_OK);
    EXPECT_EQ(answer_length, 16);
    EXPECT_EQ(answer[15], 0x61);
    EXPECT_EQ(answer[16], 0xEE);
}

TEST_F(Cm2Exchange, OverlongWriteIsRefusedBeforeSending) {
    const Bytes data(2017, 1);
    EXPECT_EQ(cm2_write(0xC7, 0, data.data(), 2017), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
    bridge.expect(device, cm2_write_bytes(0xC7, 0, Bytes(2016, 1)), at_once(cm2_reply(0xC7, 0, {})));
    EXPECT_EQ(cm2_write(0xC7, 0, data.data(), 2016), KAVREL_DIRECT_OK);
}

TEST_F(Cm2Exchange, SpectrumTimeLimitFollowsTheCaches) {
    EXPECT_EQ(spectrum_time_limit_ms(10000, 1), 1010u);
    EXPECT_EQ(spectrum_time_limit_ms(0, 1), 1000u);
    EXPECT_EQ(spectrum_time_limit_ms(2500, 16), 1048u);
    EXPECT_EQ(spectrum_time_limit_ms(2500000, 100), 120000u);
    EXPECT_EQ(spectrum_time_limit_ms(1500, 0), 1002u);
    EXPECT_EQ(spectrum_time_limit_ms(0xFFFFFFFFu, 255), 120000u);
    EXPECT_EQ(spectrum_time_limit_ms(119000000, 1), 120000u);
    EXPECT_EQ(spectrum_time_limit_ms(118999000, 1), 119999u);

    bridge.reply_any(device, {});
    EXPECT_EQ(query(0xC6, 0, 1024), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(read_limit_set(), 1010u);
    EXPECT_EQ(elapsed(), 1010.0);

    active().integration_time = 2500000;
    active().average_number = 100;
    bridge.clear_calls();
    bridge.reply_any(device, {});
    EXPECT_EQ(query(0xC6, 0, 1024), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(read_limit_set(), 120000u);
    EXPECT_EQ(elapsed(), 120000.0);

    // Only the spectrum register waits that long.
    bridge.clear_calls();
    bridge.reply_any(device, {});
    EXPECT_EQ(query(0xC5, 0, 1024), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(read_limit_set(), 200u);
}

TEST_F(Cm2Exchange, TimingTraceOnlyForTheSpectrumRegister) {
#ifdef _WIN32
    // Windows' C runtime cannot hold an empty variable: it removes one set to "".
    set_env("KAVREL_DIRECT_TRACE_TIMING", "1");
#else
    // Being set is enough, even to nothing.
    set_env("KAVREL_DIRECT_TRACE_TIMING", "");
#endif
    bridge.reply_any(device, {Chunk{cm2_reply(0xC6, 0, Bytes(8, 0)), 30}});
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(query(0xC6, 0, 2), KAVREL_DIRECT_OK);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "[trace C6] write=0.000 ms, wait_header=30.000 ms, read_body=0.000 ms, "
              "total=30.000 ms, expected=40\n");

    bridge.reply_any(device, at_once(cm2_reply(0xC1, 0, Bytes(4, 0))));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(query(0xC1, 0, 1), KAVREL_DIRECT_OK);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");

    // Printed before the reply is judged.
    bridge.reply_any(device, at_once(cm2_reply(0xC6, 0, Bytes(8, 0), 0xE1)));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(query(0xC6, 0, 2), KAVREL_DIRECT_ERR_CRC);
    out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("[trace C6] ", 0), 0u) << out;
}

TEST_F(Cm2Exchange, NeedsAnOpenDevice) {
    kavrel_direct_close_all_devices();
    operation.reset();
    bridge.clear_calls();
    EXPECT_EQ(query(0xC1, 0, 1), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_TRUE(bridge.calls.empty());
}

using RawPassThrough = Cm2Exchange;

TEST_F(RawPassThrough, CollectsUntil501EmptyReads) {
    bridge.reply_any(device, {Chunk{{1, 2, 3}, 0}, Chunk{{4, 5}, 3000}});
    uint8_t reply[8] = {};
    uint32_t length = sizeof reply;
    const uint8_t request[] = {0x10, 0x20};
    EXPECT_EQ(kavrel_direct_send_recv(request, 2, reply, &length), KAVREL_DIRECT_OK);
    EXPECT_EQ(length, 5u);
    EXPECT_EQ(reply[4], 5);
    EXPECT_TRUE(bridge.calls_named("purge").empty());
    EXPECT_TRUE(bridge.calls_named("set_timeouts").empty());
    EXPECT_EQ(bridge.calls_named("sleep").size(), 500u);
    EXPECT_EQ(bridge.calls_named("read").size(), 502u);
}

TEST_F(RawPassThrough, RefusesWithoutDeviceOrLength) {
    uint8_t reply[4] = {};
    EXPECT_EQ(kavrel_direct_send_recv(reply, 1, reply, nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
    kavrel_direct_close_all_devices();
    uint32_t length = 4;
    EXPECT_EQ(kavrel_direct_send_recv(reply, 1, reply, &length), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_EQ(length, 4u);
}

}  // namespace
}  // namespace kavrel::test
