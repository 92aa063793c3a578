// Promises every operation keeps, whatever the caller or the bridge does: a
// bridge that fails or overstates what it read never puts bytes where they
// do not belong, and the virtual clock stays continuous across a switch to
// real time. (Null outputs refused before anything is sent: refusals_test.)
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/timing_engine.h"
#include "protocol/cm2_codec.h"
#include "support/device_fixture.h"
#include "transport/cm2_exchange.h"
#include "transport/nir_exchange.h"

namespace kavrel::test {
namespace {

// A driver that, whenever it fills a read, reports more than it was asked
// for: believed, it would send the library past the end of its buffer.
struct Overstating : platform::Forwarder {
    using Forwarder::Forwarder;
    platform::Status read(platform::Handle h, void *b, uint32_t n, uint32_t *r) {
        const platform::Status status = Forwarder::read(h, b, n, r);
        if (n > 0 && *r == n) *r = n + 7;
        return status;
    }
};

TEST_F(DeviceTest, ADriverReportingMoreThanItWasAskedForIsNotBelieved) {
    Overstating overstating(platform::current());
    const platform::Platform table = platform::provider_table("overstating", overstating);
    use_provider(&table);
    const int device = open_nir();
    uint8_t reply[5] = {};
    uint32_t length = sizeof reply;
    bridge.reply_any(device, at_once({1, 2, 3, 4, 5, 6}));
    ASSERT_EQ(kavrel_direct_send_recv(reply, 1, reply, &length), KAVREL_DIRECT_OK);
    EXPECT_EQ(Bytes(reply, reply + length), Bytes({1, 2, 3, 4, 5}));

    // A reply that fills the whole receive buffer: read to its end and no
    // further (a sanitizer build sees any byte past it).
    bind_active();
    bridge.reply_any(device, at_once(nir_reply(Bytes(kNirReceiveLimit, 0x11))));
    const uint8_t command = 'V';
    EXPECT_EQ(nir_send_command(&command, 1, nullptr, nullptr, 0, kNirQueryQuietMs), KAVREL_DIRECT_ERR_CRC);
    // The devices go before the provider they were opened with.
    operation.reset();
    kavrel_direct_close_all_devices();
}

// A driver that calls the library back from inside a read, as a driver's
// event callback might: each such call is refused at once instead of waiting
// for the locks its caller holds.
struct CallingBack : platform::Forwarder {
    using Forwarder::Forwarder;
    std::vector<int64_t> results;
    platform::Status read(platform::Handle h, void *b, uint32_t n, uint32_t *r) {
        float degrees = 0;
        results = {kavrel_direct_get_temperature(&degrees), kavrel_direct_open_device(0),
                   kavrel_direct_scan_devices()};
        kavrel_direct_close_all_devices();
        return Forwarder::read(h, b, n, r);
    }
};

TEST_F(DeviceTest, ADriverCallingBackInIsRefusedAndDoesNothing) {
    CallingBack calling_back(platform::current());
    const platform::Platform table = platform::provider_table("calling back", calling_back);
    use_provider(&table);
    const int device = open_cm2();
    bridge.reply_any(device, at_once(cm2_reply(0xC1, 0x40, {0, 0, 1, 0x90})));
    float degrees = 0;
    EXPECT_EQ(kavrel_direct_get_temperature(&degrees), KAVREL_DIRECT_OK);
    EXPECT_EQ(calling_back.results,
              std::vector<int64_t>({KAVREL_DIRECT_ERR_GENERIC, KAVREL_DIRECT_ERR_GENERIC, 0}));
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 1);
    kavrel_direct_close_all_devices();
}

class Cm2BridgeFailures : public DeviceTest {
protected:
    int device = -1;
    uint8_t answer[8];
    int32_t length = -1;
    void SetUp() override {
        DeviceTest::SetUp();
        device = open_cm2();
        bind_active();
        std::memset(answer, 0xEE, sizeof answer);
    }
    int32_t query() { return cm2_query(kRegControl, 0x41, 2, answer, sizeof answer, &length); }
    void expect_untouched() {
        EXPECT_EQ(length, -1);
        EXPECT_EQ(answer[0], 0xEE);
    }
};

TEST_F(Cm2BridgeFailures, WritesAndReadsThatFailGiveMinusFourAndTouchNothing) {
    Step short_write;
    short_write.written = 31;
    bridge.instrument(device).script.push_back(short_write);
    EXPECT_EQ(query(), KAVREL_DIRECT_ERR_IO);

    Step failed_write;
    failed_write.write_status = 4;
    bridge.instrument(device).script.push_back(failed_write);
    EXPECT_EQ(query(), KAVREL_DIRECT_ERR_IO);
    EXPECT_TRUE(bridge.calls_named("read").empty());

    // The head arrives, then the bridge fails while the data is read.
    bridge.instrument(device).fail_read_after = 1;
    bridge.reply_any(device, at_once(cm2_reply(0xC1, 0x41, Bytes(8, 1))));
    EXPECT_EQ(query(), KAVREL_DIRECT_ERR_IO);
    expect_untouched();
}

TEST_F(Cm2BridgeFailures, AReplyThatStopsAfterItsHeadTimesOut) {
    const Bytes reply = cm2_reply(0xC1, 0x41, Bytes(8, 1));
    bridge.reply_any(device, {Chunk{Bytes(reply.begin(), reply.begin() + 30), 0}});
    EXPECT_EQ(query(), KAVREL_DIRECT_ERR_TIMEOUT);
    expect_untouched();
}

TEST_F(DeviceTest, RawPassThroughRefusesNullBuffersAndFailedWrites) {
    const int device = open_cm2();
    uint8_t bytes[4] = {};
    uint32_t length = 4;
    EXPECT_EQ(kavrel_direct_send_recv(nullptr, 1, bytes, &length), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_send_recv(bytes, 1, nullptr, &length), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
    Step failed_write;
    failed_write.written = 0;
    bridge.instrument(device).script.push_back(failed_write);
    EXPECT_EQ(kavrel_direct_send_recv(bytes, 1, bytes, &length), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(length, 4u);
}

template <typename Fn>
std::string printed(Fn &&fn) {
    ::testing::internal::CaptureStdout();
    fn();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

TEST(CodecAndTrace, NullPointersAreNeverRead) {
    auto record = std::make_unique<cm2_packet>();
    record->raw_len = 7;
    EXPECT_EQ(kavrel_direct_parse_response(nullptr, 32, record.get()), -1);
    EXPECT_EQ(record->raw_len, 0);
    EXPECT_EQ(kavrel_direct_crc32(nullptr, 5), 0u);
    EXPECT_EQ(printed([] { kavrel_direct_dump_hex(nullptr, 5); }), "\n");
    EXPECT_EQ(printed([] { kavrel_direct_print_parsed(nullptr); }), "");
    EXPECT_EQ(printed([] { kavrel_direct_print_cmd_info(nullptr, nullptr, 5, nullptr, 3); }),
              "\n==========  ==========\n[SEND] (5 bytes):\n       \n[RECV]: No data\n"
              "==============================\n");
    // An empty reply is no reply, wherever it lies.
    const uint8_t byte = 0;
    EXPECT_NE(printed([&] { kavrel_direct_print_cmd_info("t", &byte, 1, &byte, 0); }).find("[RECV]: No data"),
              std::string::npos);
}

// Each header field from its own byte: a packet whose bytes all differ.
TEST(CodecAndTrace, ParserTakesEveryFieldFromItsOwnByte) {
    Bytes packet(28);
    for (size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<uint8_t>(0x30 + i);
    std::fill(packet.begin(), packet.begin() + 7, 0xAA);
    packet[7] = 0xAB;
    auto p = std::make_unique<cm2_packet>();
    ASSERT_EQ(kavrel_direct_parse_response(packet.data(), 28, p.get()), 0);
    EXPECT_EQ(p->sn_packets, 0x43);
    EXPECT_EQ(p->sn_index, 0x44);
    EXPECT_EQ(p->pio_reg, 0x45);
    EXPECT_EQ(p->pio_addr, 0x464748u);
    EXPECT_EQ(p->ans_status, 0x4);
    EXPECT_EQ(p->ans_reply, 0x4B);
    EXPECT_EQ(p->data_size, 0);
}

TEST_F(DeviceTest, ExchangesRefuseBadArgumentsBeforeSending) {
    open_cm2();
    bind_active();
    uint8_t bytes[4] = {};
    int32_t length = -1;
    EXPECT_EQ(send_and_recv(kRegControl, 0, nullptr, 1, bytes, &length, 1, -1),
              KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(nir_send_command(nullptr, 1, bytes, &length, 4, kNirSetQuietMs), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(nir_read_available(bytes, 4, nullptr, kNirSetQuietMs), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(length, -1);
    EXPECT_TRUE(bridge.calls.empty());
}

TEST(TimingEngine, InterruptEndsARealTimeReadThatWouldWaitAnHour) {
    platform::Clock clock(platform::Clock::Mode::real);
    platform::Inbox inbox(clock);
    inbox.deliver({1}, clock.now_ms() + 3600e3);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        uint8_t byte = 0;
        EXPECT_EQ(inbox.read(&byte, 1, 3600e3), 0u);
        done = true;
    });
    // Until the reader has begun waiting an interrupt may come too early
    // for it; the test only fails (by hanging) if the wake-up is lost.
    while (!done) {
        inbox.interrupt();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    reader.join();
    EXPECT_EQ(inbox.in_flight(), 1u);
}

TEST(VirtualClock, SwitchingToRealTimeAndBackNeverGoesBackwards) {
    platform::Clock clock(platform::Clock::Mode::virtual_time);
    clock.sleep_ms(250);
    const double before = clock.now_ms();
    clock.set_mode(platform::Clock::Mode::real);
    EXPECT_EQ(clock.mode(), platform::Clock::Mode::real);
    const double real = clock.now_ms();
    EXPECT_GE(real, before);
    clock.advance_to(real + 1e9);  // real time cannot be pushed
    clock.set_mode(platform::Clock::Mode::virtual_time);
    const double after = clock.now_ms();
    EXPECT_GE(after, real);
    EXPECT_LT(after, real + 1e9);
    clock.sleep_ms(-5);  // nothing
    EXPECT_EQ(clock.now_ms(), after);
    clock.sleep_ms(1);  // shorter than any pause the library makes
    clock.sleep_ms(0.5);
    EXPECT_DOUBLE_EQ(clock.now_ms() - after, 1.5);
}

}  // namespace
}  // namespace kavrel::test
