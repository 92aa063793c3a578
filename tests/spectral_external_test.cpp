// The externally controlled spectrum: start block, handshake, spectrum read.
#include "spectral/transfer_buffer.h"
#include "support/device_fixture.h"
#include "support/spectral_model.h"

namespace kavrel::test {
namespace {

constexpr uint16_t kUntouched = 0xBEEF;
const Bytes kStatusQuery = cm2_query_bytes(0xC1, 0x4C, 2);
const Bytes kSpectrumQuery = cm2_query_bytes(0xC6, 0, 1024);

std::vector<Chunk> status(uint8_t state) {
    return at_once(cm2_reply(0xC1, 0x4C, handshake_status(state)));
}

class ExternalSpectrum : public DeviceTest {
protected:
    int device = -1;
    std::vector<uint16_t> out = std::vector<uint16_t>(3000, kUntouched);

    void SetUp() override {
        DeviceTest::SetUp();
        device = open_cm2();
    }
    void expect_start(uint16_t control) {
        bridge.expect(device,
                      cm2_write_bytes(0xC1, 0x4C,
                                      {0xC0, 0xDD, static_cast<uint8_t>(control >> 8),
                                       static_cast<uint8_t>(control), 0, 0, 0, 0}),
                      at_once(cm2_reply(0xC1, 0x4C, {})));
    }
};

TEST_F(ExternalSpectrum, StartsWaitsAndReadsTheSpectrum) {
    expect_start(0x1234);
    bridge.expect(device, kStatusQuery, status(0x00));
    bridge.expect(device, kStatusQuery, status(0xAA));
    bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, {0x01, 0x02, 0xFF, 0xFE})));
    EXPECT_EQ(kavrel_direct_external_spectrum_control(0x1234, out.data(), 3000), 4);
    EXPECT_EQ(out[0], 0x0102);
    EXPECT_EQ(out[1], 0xFFFE);
    EXPECT_EQ(out[2], kUntouched);
    const auto sleeps = bridge.calls_named("sleep");
    ASSERT_EQ(sleeps.size(), 1u);
    EXPECT_EQ(sleeps[0].a, 10u);
}

TEST_F(ExternalSpectrum, ValuesStoredAreTheSmallerOfAnswerAndCount) {
    const struct {
        int32_t count;
        size_t answer_bytes;
        int32_t result;
    } cases[] = {{3000, 4096, 4096}, {2048, 1024, 1024}, {3, 4096, 6}, {1, 4, 2}, {5, 0, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.count);
        std::fill(out.begin(), out.end(), kUntouched);
        expect_start(7);
        bridge.expect(device, kStatusQuery, status(0xAA));
        bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, Bytes(c.answer_bytes, 0x21))));
        EXPECT_EQ(kavrel_direct_external_spectrum_control(7, out.data(), c.count), c.result);
        const size_t stored = static_cast<size_t>(c.result / 2);
        if (stored > 0) {
            EXPECT_EQ(out[stored - 1], 0x2121);
        }
        EXPECT_EQ(out[stored], kUntouched);
    }
}

TEST_F(ExternalSpectrum, FailureReportSkipsTheBufferAndTheRead) {
    expect_start(1);
    bridge.expect(device, kStatusQuery, status(0xEE));
    const int allocations = transfer_hooks::allocations_attempted();
    EXPECT_EQ(kavrel_direct_external_spectrum_control(1, out.data(), 10), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(transfer_hooks::allocations_attempted(), allocations);
    EXPECT_TRUE(bridge.calls_named("sleep").empty());
}

TEST_F(ExternalSpectrum, NoVerdictGivesUpAfter200PollsAnd200Sleeps) {
    bridge.instrument(device).responder = [](const Bytes &request) {
        return request[13] == 0x0D ? status(0x55) : at_once(cm2_reply(0xC1, 0x4C, {}));
    };
    const double started = bridge.now();
    EXPECT_EQ(kavrel_direct_external_spectrum_control(1, out.data(), 10), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(bridge.calls_named("write").size(), 1u + 200u);
    const auto sleeps = bridge.calls_named("sleep");
    ASSERT_EQ(sleeps.size(), 200u);
    for (const auto &sleep : sleeps) EXPECT_EQ(sleep.a, 10u);
    EXPECT_EQ(bridge.now() - started, 200 * 10.0);
    EXPECT_EQ(out[0], kUntouched);
}

TEST_F(ExternalSpectrum, RefusalsSendNothing) {
    EXPECT_EQ(kavrel_direct_external_spectrum_control(1, out.data(), 0), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_external_spectrum_control(1, out.data(), -4), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_external_spectrum_control(1, nullptr, 10), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());

    kavrel_direct_close_device();
    open_nir();
    EXPECT_EQ(kavrel_direct_external_spectrum_control(1, out.data(), 10), KAVREL_DIRECT_ERR_UNSUPPORTED);
    EXPECT_TRUE(bridge.written().empty());
}

}  // namespace
}  // namespace kavrel::test
