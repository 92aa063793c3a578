// The platform seam: the timing engine, a device keeping the provider that
// opened it, and the locks that let table queries answer during an exchange.
#include <thread>

#include "platform/timing_engine.h"
#include "support/device_fixture.h"
#include "support/spectral_model.h"

namespace kavrel::test {
namespace {

using platform::Clock;
using platform::Inbox;

TEST(TimingEngine, ReadsEndEarlyAtTheLimitOrOnInterrupt) {
    Clock clock(Clock::Mode::virtual_time);
    Inbox inbox(clock);
    const double t0 = clock.now_ms();
    uint8_t out[8] = {};
    inbox.deliver({1, 2, 3}, t0 + 10);
    inbox.deliver({4, 5}, t0 + 30);

    // Complete at the second arrival, long before the limit.
    EXPECT_EQ(inbox.read(out, 5, 1000), 5u);
    EXPECT_EQ(clock.now_ms() - t0, 30);
    EXPECT_EQ(out[4], 5);

    // Part of the bytes when the limit passes; the rest stays in flight.
    inbox.deliver({6}, t0 + 40);
    inbox.deliver({7}, t0 + 100);
    EXPECT_EQ(inbox.read(out, 2, 20), 1u);
    EXPECT_EQ(clock.now_ms() - t0, 50);
    EXPECT_EQ(inbox.in_flight(), 1u);
    EXPECT_EQ(inbox.read(out, 2, 0), 0u);  // a zero limit never waits
}

TEST(TimingEngine, PurgeDropsOnlyWhatHasArrived) {
    Clock clock(Clock::Mode::virtual_time);
    Inbox inbox(clock);
    const double t0 = clock.now_ms();
    inbox.deliver({1, 1}, t0);
    inbox.deliver({2, 2}, t0 + 50);
    inbox.purge();
    EXPECT_EQ(inbox.arrived(), 0u);
    EXPECT_EQ(inbox.in_flight(), 2u);
    uint8_t out[4] = {};
    EXPECT_EQ(inbox.read(out, 4, 100), 2u);
    EXPECT_EQ(out[0], 2);
    inbox.deliver({3}, t0 + 500);
    inbox.clear();  // an unplugged bridge: nothing more arrives
    EXPECT_EQ(inbox.read(out, 1, 1000), 0u);
}

TEST(TimingEngine, RealTimeReadIsWokenByADeliveryFromAnotherThread) {
    Clock clock(Clock::Mode::real);
    Inbox inbox(clock);
    uint8_t out[1] = {};
    std::thread sender([&] { inbox.deliver({9}, clock.now_ms()); });
    // A generous limit: the test only fails if the wake-up is lost.
    EXPECT_EQ(inbox.read(out, 1, 60000), 1u);
    sender.join();
    EXPECT_EQ(out[0], 9);
}

const Bytes kModelQuery = cm2_query_bytes(0xC1, 0x46, 4);

TEST_F(DeviceTest, ADeviceKeepsTheProviderThatOpenedIt) {
    const int a = open_cm2("FIRST");
    {
        FakeBridge other;  // now the provider in force
        other.attach("SECOND");
        other.attach("THIRD");
        testing::internal::CaptureStdout();
        EXPECT_EQ(kavrel_direct_scan_devices(), 2u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "[0] Fake Spectrometer (SN: SECOND)\n[1] Fake Spectrometer (SN: THIRD)\n");

        bridge.expect(a, kModelQuery, at_once(cm2_reply(0xC1, 0x46, Bytes(16, 'M'))));
        char model[32];
        EXPECT_EQ(kavrel_direct_get_device_model(model, sizeof model), KAVREL_DIRECT_OK);
        EXPECT_TRUE(other.calls_named("write").empty());
        // A bridge of the other provider with a serial like an open one is
        // still opened, in a slot of its own.
        EXPECT_EQ(kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_CM2), KAVREL_DIRECT_OK);
        EXPECT_EQ(kavrel_direct_open_device(0), KAVREL_DIRECT_OK);
        EXPECT_EQ(kavrel_direct_get_open_device_count(), 2);
        kavrel_direct_close_device();
        EXPECT_EQ(other.calls_named("close").size(), 1u);
    }
    EXPECT_EQ(kavrel_direct_select_device(0), KAVREL_DIRECT_OK);
    kavrel_direct_close_device();
    EXPECT_EQ(bridge.calls_named("close").size(), 1u);
}

TEST_F(DeviceTest, TableQueriesAnswerWhileAnotherThreadWaitsAndCloseWaitsForIt) {
    const int d = open_cm2();
    bridge.reply_any(d, at_once(cm2_reply(0xC6, 0, Bytes(8, 1))));
    bridge.hold(d);
    active().wavelength_count = 4;
    int32_t spectrum_result = 1;
    std::thread reader([&] {
        uint16_t samples[4];
        spectrum_result = kavrel_direct_get_full_spectrum_data(samples, 4);
    });
    bridge.wait_for_held_read();

    uint32_t protocol = 0, capabilities = 0;
    EXPECT_EQ(kavrel_direct_is_open(), 1);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 1);
    EXPECT_EQ(kavrel_direct_get_device_protocol(&protocol), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_get_capabilities(&capabilities), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_select_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO), KAVREL_DIRECT_OK);
    EXPECT_EQ(protocol, KAVREL_DIRECT_PROTOCOL_CM2);

    std::thread closer([] { kavrel_direct_close_device(); });
    bridge.release(d);
    reader.join();
    closer.join();
    EXPECT_EQ(spectrum_result, KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 0);
    // The close came after the read it waited for.
    ASSERT_GE(bridge.calls.size(), 2u);
    EXPECT_EQ(bridge.calls.back().name, "close");
}

// After a spectrum gives -9, its reply may still be on its way: a purge
// drops only what has arrived, and the protocol accepts any well-formed
// reply, so the late reply is taken as the next spectrum's answer.
TEST_F(DeviceTest, ALateSpectrumReplyAnswersTheNextRequest) {
    const int d = open_cm2();
    active().wavelength_count = 2;
    const uint32_t limit = 1010;  // 10 ms integration, one average
    bridge.reply_any(d, {Chunk{cm2_reply(0xC6, 0, be_samples({111, 111})), limit + 200.0}});
    bridge.reply_any(d, {Chunk{cm2_reply(0xC6, 0, be_samples({222, 222})), limit - 10.0}});
    uint16_t samples[2] = {};
    EXPECT_EQ(kavrel_direct_get_full_spectrum_data(samples, 2), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(kavrel_direct_get_full_spectrum_data(samples, 2), KAVREL_DIRECT_OK);
    EXPECT_EQ(samples[0], 111);
}

}  // namespace
}  // namespace kavrel::test
