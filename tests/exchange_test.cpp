// The two exchanges under every operation: the bridge calls each makes, in
// order, with their limits, the reading of the reply and the results.
#include <chrono>
#include <cstdlib>
#include <future>

#include "support/fake_bridge.h"
#include "transport/cm2_exchange.h"
#include "transport/nir_exchange.h"
#include "transport/timing.h"

namespace kavrel::test {
namespace {

TEST(SpectrumTimeLimit, IntegrationRoundedUpTimesAveragesPlusASecondAtMostTwoMinutes) {
    const uint32_t cases[][3] = {{10000, 1, 1010},       {0, 1, 1000},           {2500, 16, 1048},
                                 {1500, 0, 1002},        {2500000, 100, 120000}, {0xFFFFFFFFu, 255, 120000},
                                 {119000000, 1, 120000}, {118999000, 1, 119999}, {1001, 1, 1002}};
    for (const auto &c : cases)
        EXPECT_EQ(spectrum_time_limit_ms(c[0], static_cast<uint8_t>(c[1])), c[2]) << c[0] << " us, " << c[1];
}

// The library's virtual clock: continuous across a switch to real time and
// back, and never pushed by a real-time wait.
TEST(VirtualClock, SwitchingToRealTimeAndBackNeverGoesBackwards) {
    platform::Clock clock(platform::Clock::Mode::virtual_time);
    clock.sleep_ms(250);
    const double before = clock.now_ms();
    clock.set_mode(platform::Clock::Mode::real);
    EXPECT_EQ(clock.mode(), platform::Clock::Mode::real);
    const double real = clock.now_ms();
    EXPECT_GE(real, before);
    clock.advance_to(real + 1e9);
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

// In real time a read waits on the host's clock until its bytes arrive or
// an interrupt (the simulator's, when it sends) ends the wait early.
TEST(RealTime, AnInterruptEndsAReadThatWouldWaitAnHour) {
    platform::Clock clock(platform::Clock::Mode::real);
    platform::Inbox inbox(clock);
    inbox.deliver({1}, clock.now_ms() + 3600e3);
    std::future<size_t> reader = std::async(std::launch::async, [&] {
        uint8_t byte = 0;
        return inbox.read(&byte, 1, 3600e3);
    });
    // Until the reader has begun waiting an interrupt may come too early
    // for it; the test only fails (by hanging) if the wake-up is lost.
    while (reader.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) inbox.interrupt();
    EXPECT_EQ(reader.get(), 0u);
    EXPECT_EQ(inbox.in_flight(), 1u);
}

struct Case {
    const char *name;
    bool nir;
    uint32_t a, b;  // CM2: register, words; NIR: capacity, quiet time
    std::vector<Chunk> reply;
    int32_t result, length;  // length -1: untouched
    const char *trace;       // null: not compared
    double ms;
    friend void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }  // a stable test name
};

const auto part = [](const Bytes &b, long from, long to) { return Bytes(b.begin() + from, b.begin() + to); };
const Bytes kEight = cm2_reply(0xC1, 0x41, {1, 2, 0x0A, 0xFF, 5, 6, 7, 8}),
            kSix = nir_reply({1, 2, 3, 4, 5, 6});

// clang-format off
const Case kCases[] = {
    {"RoundTrip", CM2, 0xC1, 2, at_once(kEight), OK, 8,
     "purge 3, write 32, timeouts 200 5000, read 28:28, read 12:12, timeouts 5000 5000", 0},
    // At most 16 KiB of data, after the 28-byte head.
    {"LongerIsRefused", CM2, 0xC6, 1024, at_once(cm2_reply(0xC6, 0, Bytes(4 * 4089, 0x12))), IO, -1,
     "purge 3, write 32, timeouts 1010 5000, read 28:28", 0},
    // The short limit stays in force after a read that failed.
    {"TruncatedTimesOutWhenAReadComesBackEmpty", CM2, 0xC1, 2, at_once(part(kEight, 0, 10)), TIMEOUT, -1,
     "purge 3, write 32, timeouts 200 5000, read 28:10, read 18:0", 400},
    {"SpectrumRegisterWaitsItsLimit", CM2, 0xC6, 1024, {}, TIMEOUT, -1,
     "purge 3, write 32, timeouts 1010 5000, read 28:0", 1010},
    // NIR: a reply is complete once the line has been quiet for the quiet
    // time after its last byte, noticed within one 50 ms read and a 5 ms pause.
    {"QuietTimeRunsFromTheLastByte", NIR, 32, 500,
     {Chunk{part(kSix, 0, 3), 0}, Chunk{part(kSix, 3, 6), 400}, Chunk{part(kSix, 6, 9), 400}}, OK, 6, nullptr,
     1355},
    {"Silence", NIR, 32, 300, {}, TIMEOUT, -1,
     "purge 3, write 3, timeouts 50 5000, (read 16384:0, sleep 5) x5, read 16384:0, timeouts 5000 5000", 325},
    // Full at the receive limit: no wait for silence, the rest is not read.
    {"ReceiveLimitEndsTheReading", NIR, 32, 120000,
     at_once(concat({nir_reply(Bytes(16381, 0x33)), Bytes(100, 0x44)})),
     OK, 32, "purge 3, write 3, timeouts 50 5000, read 16384:16384, timeouts 5000 5000", 0},
};
// clang-format on

class Exchange : public DeviceTest {
protected:
    int device = -1;
    uint8_t answer[64];
    int32_t length = -1;
    const uint8_t command = 'V';

    void open(bool nir) {
        device = nir ? open_nir() : open_cm2();
        bind_active();
        std::memset(answer, 0xEE, sizeof answer);
    }
};

class Exchanges : public Exchange, public ::testing::WithParamInterface<Case> {};

TEST_P(Exchanges, Traffic) {
    const Case &c = GetParam();
    open(c.nir);
    const auto reg = static_cast<uint8_t>(c.a);
    bridge.expect(device, c.nir ? nir_frame({'V'}) : cm2_query_bytes(reg, 0x41, static_cast<uint16_t>(c.b)),
                  c.reply);
    const double start = bridge.now_ms();
    EXPECT_EQ(c.nir ? nir_send_command(&command, 1, answer, &length, static_cast<int32_t>(c.a), c.b)
                    : cm2_query(reg, 0x41, c.b, answer, sizeof answer, &length),
              c.result);
    EXPECT_EQ(bridge.now_ms() - start, c.ms);
    EXPECT_EQ(length, c.length);
    const size_t first = c.nir ? 1 : 28;  // where the reply's data begins
    EXPECT_EQ(answer[0], c.length > 0 ? c.reply[0].bytes[first] : 0xEE);
    EXPECT_EQ(answer[std::clamp(c.length, 0, 63)], c.length < 64 ? 0xEE : c.reply[0].bytes[first + 63]);
    EXPECT_EQ(c.trace ? bridge.trace() : "", c.trace ? c.trace : "");
}

INSTANTIATE_TEST_SUITE_P(Cases, Exchanges, ::testing::ValuesIn(kCases), ::testing::PrintToStringParamName());

void trace_timing(bool on) {
#ifdef _WIN32
    _putenv_s("KAVREL_DIRECT_TRACE_TIMING", on ? "1" : "");
#else
    on ? setenv("KAVREL_DIRECT_TRACE_TIMING", "", 1) : unsetenv("KAVREL_DIRECT_TRACE_TIMING");
#endif
}

// Being set is enough, even to nothing (where the platform keeps an empty
// variable); the line is printed before the reply is judged.
TEST_F(Exchange, Cm2TimingTraceOnlyForTheSpectrumRegister) {
    open(false);
    trace_timing(true);
    auto traced = [&](uint8_t reg, std::vector<Chunk> reply, int32_t result) {
        bridge.reply_any(device, std::move(reply));
        return printed([&] { EXPECT_EQ(cm2_query(reg, 0, 2, answer, 64, &length), result); });
    };
    EXPECT_EQ(traced(0xC6, {Chunk{cm2_reply(0xC6, 0, Bytes(8, 0)), 30}}, OK),
              "[trace C6] write=0.000 ms, wait_header=30.000 ms, read_body=0.000 ms, total=30.000 ms, "
              "expected=40\n");
    EXPECT_EQ(traced(0xC1, at_once(cm2_reply(0xC1, 0, Bytes(8, 0))), OK), "");
    EXPECT_EQ(
        traced(0xC6, at_once(cm2_reply(0xC6, 0, {}, 0xE1)), CRC),
        "[trace C6] write=0.000 ms, wait_header=0.000 ms, read_body=0.000 ms, total=0.000 ms, expected=32\n");
    trace_timing(false);
}

// Writes refused before anything is sent; a write the bridge takes only part
// of, and a bridge failing while the data is read after the head: -4, and
// nothing reaches the caller.
TEST_F(Exchange, Cm2RefusalsAndBridgeFailures) {
    open(false);
    // A write carries at most 2016 bytes, and the bytes it names.
    EXPECT_EQ(cm2_write(0xC7, 0, Bytes(2017, 1).data(), 2017), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(cm2_write(0xC7, 0, nullptr, 1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(bridge.trace(), "");
    bridge.expect(device, cm2_write_bytes(0xC7, 0, Bytes(2016, 1)), at_once(cm2_reply(0xC7, 0, {})));
    EXPECT_EQ(cm2_write(0xC7, 0, Bytes(2016, 1).data(), 2016), OK);
    bridge.instrument(device).script.push_back(Step{std::nullopt, {}, 0, 31});
    EXPECT_EQ(cm2_query(0xC1, 0x41, 2, answer, sizeof answer, &length), IO);
    bridge.instrument(device).fail_read_after = 1;
    bridge.reply_any(device, at_once(kEight));
    EXPECT_EQ(cm2_query(0xC1, 0x41, 2, answer, sizeof answer, &length), IO);
    EXPECT_EQ(length, -1);
    EXPECT_EQ(answer[0], 0xEE);
}

// With no device open, first; then commands of 1 to 8190 bytes.
TEST_F(Exchange, NirCommandsOf1To8190BytesAndBridgeFailures) {
    const Bytes big(8191, 0x11);
    const auto send = [&](int32_t n) {  // a command of n bytes
        return nir_send_command(n == 1 ? &command : big.data(), n, answer, &length, 32, 300);
    };
    EXPECT_EQ(send(1), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_EQ(nir_read_available(answer, 64, &length, 500), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_EQ(cm2_query(0xC1, 0, 1, answer, 64, &length), KAVREL_DIRECT_ERR_NOT_OPEN);
    open(true);
    EXPECT_EQ(str(send(0), send(8191)), "-5 -5");
    EXPECT_EQ(bridge.trace(), "");
    bridge.expect(device, nir_frame(Bytes(8190, 0x11)), at_once(nir_reply({9, 9, 9})));
    EXPECT_EQ(nir_send_command(big.data(), 8190, answer, nullptr, 32, 300), OK);  // the answer is not wanted
    EXPECT_EQ(answer[0], 0xEE);
    bridge.reply_any(device, at_once(nir_reply({9, 9, 9})));
    EXPECT_EQ(nir_send_command(&command, 1, nullptr, &length, 32, 300), OK);  // only its length
    EXPECT_EQ(length, 3);
    length = -1;
    bridge.instrument(device).script.push_back(Step{std::nullopt, {}, 0, 1});  // one byte of three taken
    bridge.instrument(device).script.push_back(Step{std::nullopt, {}, 4, std::nullopt});
    EXPECT_EQ(str(send(1), send(1)), "-4 -4");
    bridge.calls.clear();
    bridge.instrument(device).fail_read_after = 0;
    bridge.reply_any(device, at_once(nir_reply({})));
    EXPECT_EQ(send(1), IO);
    EXPECT_EQ(bridge.trace(), "purge 3, write 3, timeouts 50 5000, read 16384:0");  // 50 ms until the next
    EXPECT_EQ(length, -1);
}

// The raw pass-through: no framing, no purge, no limits; whatever comes until
// 501 reads in a row bring nothing.
TEST_F(Exchange, RawPassThroughCollectsUntilTheLineStaysSilent) {
    open(false);
    // The rest comes after a read that brought nothing: the count of silent
    // reads starts again.
    bridge.reply_any(device, {Chunk{{1, 2, 3}, 0}, Chunk{{4, 5}, 12000}});
    uint8_t reply[8] = {};
    uint32_t size = sizeof reply;
    EXPECT_EQ(kavrel_direct_send_recv(&command, 1, reply, &size), OK);
    EXPECT_EQ(hex(Bytes(reply, reply + size)), "01 02 03 04 05");
    EXPECT_EQ(bridge.trace(),
              "write 1, read 8:3, read 5:0, sleep 10, read 5:2, (read 3:0, sleep 10) x500, read 3:0");
    EXPECT_EQ(kavrel_direct_send_recv(reply, 1, reply, nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
    kavrel_direct_close_all_devices();
    EXPECT_EQ(kavrel_direct_send_recv(reply, 1, reply, &size), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_EQ(size, 5u);
    open(false);
    bridge.instrument(device).script.push_back(Step{std::nullopt, {}, 0, 0});  // nothing taken
    EXPECT_EQ(kavrel_direct_send_recv(&command, 1, reply, &size), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(size, 5u);
}

}  // namespace
}  // namespace kavrel::test
