// Spectrum acquisition: the whole spectrum in both protocols with its time
// limit and the NIR frame marks, and the selected part of it.
#include <algorithm>
#include <cstring>
#include <iterator>

#include "support/device_fixture.h"
#include "support/spectral_model.h"

namespace kavrel::test {
namespace {

constexpr uint16_t kUntouched = 0xBEEF;

const Bytes kCountQuery = cm2_query_bytes(0xC2, 0x0B, 1);
const Bytes kSpectrumQuery = cm2_query_bytes(0xC6, 0, 1024);
const Bytes kNirAcquire = nir_frame({0x53});

class SpectrumTest : public DeviceTest {
protected:
    int device = -1;
    uint16_t out[8];
    double started = 0;

    void SetUp() override {
        DeviceTest::SetUp();
        std::fill(std::begin(out), std::end(out), kUntouched);
    }
    int32_t acquire(int32_t capacity = 8) {
        started = bridge.now();
        return kavrel_direct_get_full_spectrum_data(out, capacity);
    }
    double elapsed() const { return bridge.now() - started; }
    void select(uint16_t first, uint16_t count) {
        active().selection_valid = 1;
        active().start_index = first;
        active().end_index = static_cast<uint16_t>(first + count - 1);
        active().selected_count = count;
    }
};

class SpectrumCm2 : public SpectrumTest {
protected:
    void SetUp() override {
        SpectrumTest::SetUp();
        device = open_cm2();
    }
    uint32_t spectrum_read_limit() const {
        const auto limits = bridge.calls_named("set_timeouts");
        return limits.empty() ? 0 : limits.front().a;
    }
};

class SpectrumNir : public SpectrumTest {
protected:
    void SetUp() override {
        SpectrumTest::SetUp();
        device = open_nir();
    }
};

TEST_F(SpectrumCm2, CountFirstWhenUnknownThenTheSpectrumInHostOrder) {
    bridge.expect(device, kCountQuery, at_once(cm2_reply(0xC2, 0x0B, {0, 0, 0, 3})));
    bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, be_samples({0x0102, 0xFFFE, 7}))));
    ASSERT_EQ(acquire(3), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[0], 0x0102);
    EXPECT_EQ(out[1], 0xFFFE);
    EXPECT_EQ(out[2], 7);
    EXPECT_EQ(out[3], kUntouched);
    EXPECT_EQ(active().wavelength_count, 3);
}

TEST_F(SpectrumCm2, AnswersShorterOrLongerThanTheRoom) {
    active().wavelength_count = 4;
    bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, be_samples({1, 2}))));
    ASSERT_EQ(acquire(), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[1], 2);
    EXPECT_EQ(out[2], kUntouched);

    std::fill(std::begin(out), std::end(out), kUntouched);
    bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, {})));
    ASSERT_EQ(acquire(), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[0], kUntouched);

    // The exchange cuts the answer at the caller's room.
    bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, be_samples({1, 2, 3, 4, 5, 6}))));
    ASSERT_EQ(acquire(5), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[4], 5);
    EXPECT_EQ(out[5], kUntouched);
    EXPECT_EQ(active().wavelength_count, 4);  // the answer is not compared with the count
}

TEST_F(SpectrumCm2, CapacityBelowTheCachedCountSendsNothing) {
    active().wavelength_count = 9;
    EXPECT_EQ(acquire(8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(acquire(0), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_full_spectrum_data(nullptr, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
}

TEST_F(SpectrumCm2, TimeLimitFollowsIntegrationAndAveragesUpToTheCap) {
    active().wavelength_count = 2;
    bridge.expect(device, kSpectrumQuery);  // no answer
    EXPECT_EQ(acquire(), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(spectrum_read_limit(), 1010u);  // the values after opening
    EXPECT_EQ(elapsed(), 1010.0);

    active().integration_time = 1200000;  // 1200 ms x 100 + 1000 > 120000
    active().average_number = 100;
    bridge.clear_calls();
    bridge.expect(device, kSpectrumQuery);
    EXPECT_EQ(acquire(), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(spectrum_read_limit(), 120000u);
    EXPECT_EQ(elapsed(), 120000.0);
}

TEST_F(SpectrumNir, TimeLimitIsTheQuietTime) {
    const struct {
        uint32_t integration_us;
        uint8_t averages;
        double limit;
    } cases[] = {{10000, 1, 1010}, {1200000, 100, 120000}};
    for (const auto &c : cases) {
        active().integration_time = c.integration_us;
        active().average_number = c.averages;
        bridge.expect(device, kNirAcquire);  // silence
        EXPECT_EQ(acquire(), KAVREL_DIRECT_ERR_TIMEOUT);
        // Silence is noticed within one 50 ms read and 5 ms pause.
        EXPECT_GE(elapsed(), c.limit);
        EXPECT_LT(elapsed(), c.limit + 55);

        // An answer is complete only after the quiet time has passed again
        // (counted from the end of the read that brought the last byte).
        bridge.expect(device, kNirAcquire, {Chunk{nir_reply(be_samples({1, 2})), 300}});
        EXPECT_EQ(acquire(), KAVREL_DIRECT_OK);
        EXPECT_GE(elapsed(), 300 + c.limit);
        EXPECT_LE(elapsed(), 300 + 50 + c.limit + 55);
    }
}

struct FrameCase {
    const char *name;
    Bytes data;
    int32_t result;
    std::vector<uint16_t> samples;
};

const Bytes kShort{0xAA, 0x55, 0xBB, 0x44};
const Bytes kLong{0xAA, 0x55, 0xBB, 0x44, 0xCC, 0x33, 0xDD, 0x22};
const Bytes kEnd{0xDD, 0xDD, 0xAA, 0xAA};

TEST_F(SpectrumNir, FrameMarks) {
    const FrameCase cases[] = {
        {"short start, samples, end", concat({kShort, {1, 2, 3, 4}, kEnd}), 0, {0x0102, 0x0304}},
        {"short start and end only", concat({kShort, kEnd}), KAVREL_DIRECT_ERR_IO, {}},
        {"samples that continue the short mark into the long one",
         concat({kShort, {0xCC, 0x33, 0xDD, 0x22, 5, 6}, kEnd}),
         0,
         {0x0506}},
        {"long start, samples, end", concat({kLong, {1, 2, 3, 4, 5, 6}, kEnd}), 0, {0x0102, 0x0304, 0x0506}},
        {"long start and end only", concat({kLong, kEnd}), KAVREL_DIRECT_ERR_IO, {}},
        {"ten bytes: too short for the long mark",
         concat({kLong, {0x12, 0x34}}),
         0,
         {0xCC33, 0xDD22, 0x1234}},
        {"a fourth byte other than 44 is no mark",
         {0xAA, 0x55, 0xBB, 0x45, 1, 2, 3, 4},
         0,
         {0xAA55, 0xBB45, 0x0102, 0x0304}},
        {"short start too short to count", {0xAA, 0x55, 0xBB, 0x44, 1, 2}, 0, {0xAA55, 0xBB44, 0x0102}},
        {"end mark alone", kEnd, KAVREL_DIRECT_ERR_IO, {}},
        {"end mark after samples, no start", concat({{9, 8}, kEnd}), 0, {0x0908}},
        {"no marks, even length", {1, 2, 3, 4, 5, 6}, 0, {0x0102, 0x0304, 0x0506}},
        {"two bytes", {0xAB, 0xCD}, 0, {0xABCD}},
        {"three bytes", {1, 2, 3}, KAVREL_DIRECT_ERR_IO, {}},
        {"odd between the marks", concat({kShort, {1, 2, 3}, kEnd}), KAVREL_DIRECT_ERR_IO, {}},
        {"nothing", {}, KAVREL_DIRECT_ERR_IO, {}},
        {"more samples than room", Bytes(18, 1), KAVREL_DIRECT_ERR_INVALID_ARG, {}},
    };
    for (const FrameCase &c : cases) {
        SCOPED_TRACE(c.name);
        std::fill(std::begin(out), std::end(out), kUntouched);
        active().wavelength_count = 99;
        bridge.expect(device, kNirAcquire, at_once(nir_reply(c.data)));
        ASSERT_EQ(acquire(), c.result);
        const size_t written = c.result == KAVREL_DIRECT_OK ? c.samples.size() : 0;
        for (size_t i = 0; i < written; ++i) EXPECT_EQ(out[i], c.samples[i]) << i;
        EXPECT_EQ(out[written], kUntouched);
        EXPECT_EQ(active().wavelength_count, c.result == KAVREL_DIRECT_OK ? c.samples.size() : 99u);
    }
}

TEST_F(SpectrumCm2, SelectedPartAsksTheCountThenTheSpectrum) {
    select(1, 2);
    active().wavelength_count = 50;  // stale: the selected read always asks
    bridge.expect(device, kCountQuery, at_once(cm2_reply(0xC2, 0x0B, {0, 0, 0, 4})));
    bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, be_samples({10, 11, 12, 13}))));
    ASSERT_EQ(kavrel_direct_get_selected_spectrum_data(out, 2), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[0], 11);
    EXPECT_EQ(out[1], 12);
    EXPECT_EQ(out[2], kUntouched);
}

TEST_F(SpectrumCm2, SelectedPartNeverHandsOnSamplesThatDidNotCome) {
    select(1, 2);
    bridge.expect(device, kCountQuery, at_once(cm2_reply(0xC2, 0x0B, {0, 0, 0, 4})));
    bridge.expect(device, kSpectrumQuery, at_once(cm2_reply(0xC6, 0, be_samples({10, 11}))));
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(out, 2), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(out[0], kUntouched);

    // A table that shrank under the selection: no spectrum is asked for.
    bridge.expect(device, kCountQuery, at_once(cm2_reply(0xC2, 0x0B, {0, 0, 0, 2})));
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(out, 2), KAVREL_DIRECT_ERR_IO);
    bridge.expect(device, kCountQuery, at_once(cm2_reply(0xC2, 0x0B, {0, 0, 0, 0})));
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(out, 2), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(out[0], kUntouched);
}

TEST_F(SpectrumNir, SelectedPartReadsTheTableThenAcquires) {
    select(2, 1);
    bridge.expect(device, nir_frame({0x3F, 0x53}), at_once(nir_reply(le_floats({1, 2, 3}))));
    bridge.expect(device, kNirAcquire, at_once(nir_reply(concat({kShort, be_samples({4, 5, 6}), kEnd}))));
    ASSERT_EQ(kavrel_direct_get_selected_spectrum_data(out, 1), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[0], 6);
    EXPECT_EQ(out[1], kUntouched);

    // A frame with more samples than the table has points does not fit.
    bridge.expect(device, nir_frame({0x3F, 0x53}), at_once(nir_reply(le_floats({1, 2, 3}))));
    bridge.expect(device, kNirAcquire, at_once(nir_reply(be_samples({4, 5, 6, 7}))));
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(out, 1), KAVREL_DIRECT_ERR_INVALID_ARG);
    // One with fewer than the selection needs is refused.
    bridge.expect(device, nir_frame({0x3F, 0x53}), at_once(nir_reply(le_floats({1, 2, 3}))));
    bridge.expect(device, kNirAcquire, at_once(nir_reply(be_samples({4, 5}))));
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(out, 1), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(out[0], 6);
}

TEST_F(SpectrumNir, SelectedPartChecksNullThenSelectionThenCapacity) {
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(nullptr, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(out, 0), KAVREL_DIRECT_ERR_GENERIC);
    select(0, 3);
    EXPECT_EQ(kavrel_direct_get_selected_spectrum_data(out, 2), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
}

}  // namespace
}  // namespace kavrel::test
