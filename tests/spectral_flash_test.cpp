// Flash pages: the NIR commands and the CM2 page buffer with its command
// block, CRC-32 and completion polls.
#include <cstring>

#include "support/device_fixture.h"
#include "support/spectral_model.h"

namespace kavrel::test {
namespace {

const Bytes kFlashStatusQuery = cm2_query_bytes(0xC1, 0x4A, 2);
const Bytes kOpenProtection = cm2_write_bytes(0xC1, 0x12, {0x00, 0x00, 0x00, 0xEA});

std::vector<Chunk> status(uint8_t state) {
    return at_once(cm2_reply(0xC1, 0x4A, handshake_status(state)));
}
std::vector<Chunk> acknowledged(uint8_t reg, uint32_t address) {
    return at_once(cm2_reply(reg, address, {}));
}

class FlashTest : public DeviceTest {
protected:
    int device = -1;
    uint8_t buffer[1100];
    double started = 0;

    void SetUp() override {
        DeviceTest::SetUp();
        std::memset(buffer, 0xEE, sizeof buffer);
    }
    int32_t read_page(uint16_t page, int32_t length) {
        started = bridge.now();
        return kavrel_direct_flash_read(page, buffer, length);
    }
    double elapsed() const { return bridge.now() - started; }
};

class FlashCm2 : public FlashTest {
protected:
    void SetUp() override {
        FlashTest::SetUp();
        device = open_cm2();
    }
    void expect_read_block(uint16_t page) {
        bridge.expect(device,
                      cm2_write_bytes(0xC1, 0x4A,
                                      {0xC0, 0xDD, static_cast<uint8_t>(page >> 8),
                                       static_cast<uint8_t>(page), 0, 0, 0, 0}),
                      acknowledged(0xC1, 0x4A));
    }
};

class FlashNir : public FlashTest {
protected:
    void SetUp() override {
        FlashTest::SetUp();
        device = open_nir();
    }
};

TEST_F(FlashCm2, ReadPollsUntilDoneThenReadsWholeWords) {
    expect_read_block(0x0A0B);
    bridge.expect(device, kFlashStatusQuery, status(0x00));
    bridge.expect(device, kFlashStatusQuery, status(0xDD));
    bridge.expect(device, kFlashStatusQuery, status(0xAA));
    bridge.expect(device, cm2_query_bytes(0xC7, 0, 3), at_once(cm2_reply(0xC7, 0, Bytes(12, 0x61))));
    EXPECT_EQ(read_page(0x0A0B, 10), 12);  // length rounded up to whole words
    EXPECT_EQ(buffer[11], 0x61);
    EXPECT_EQ(buffer[12], 0xEE);
    const auto sleeps = bridge.calls_named("sleep");
    ASSERT_EQ(sleeps.size(), 2u);
    EXPECT_EQ(sleeps[0].a, 50u);
    EXPECT_EQ(elapsed(), 100.0);
}

TEST_F(FlashCm2, ReadRoomIsCutAtTheRoundedLengthAnd1024Bytes) {
    const struct {
        int32_t length;
        uint16_t words;
        size_t answer_bytes;
        int32_t stored;
    } cases[] = {
        {10, 3, 16, 12}, {1500, 256, 1024, 1024}, {1500, 256, 1040, 1024}, {8, 2, 4, 4}, {0, 0, 8, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.length);
        std::memset(buffer, 0xEE, sizeof buffer);
        expect_read_block(1);
        bridge.expect(device, kFlashStatusQuery, status(0xAA));
        bridge.expect(device, cm2_query_bytes(0xC7, 0, c.words),
                      at_once(cm2_reply(0xC7, 0, Bytes(c.answer_bytes, 0x42))));
        EXPECT_EQ(read_page(1, c.length), c.stored);
        EXPECT_EQ(buffer[c.stored], 0xEE);
    }
}

TEST_F(FlashCm2, FailureAtTheFirstPollEndsWithoutSleepOrPageRead) {
    expect_read_block(3);
    bridge.expect(device, kFlashStatusQuery, status(0xEE));
    EXPECT_EQ(read_page(3, 16), KAVREL_DIRECT_ERR_IO);
    EXPECT_TRUE(bridge.calls_named("sleep").empty());

    // A status shorter than the block is no verdict either.
    expect_read_block(3);
    bridge.expect(device, kFlashStatusQuery, at_once(cm2_reply(0xC1, 0x4A, {0, 0xAA, 0, 0})));
    EXPECT_EQ(read_page(3, 16), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(buffer[0], 0xEE);
}

TEST_F(FlashCm2, NoVerdictGivesUpAfter50PollsAnd50Sleeps) {
    bridge.instrument(device).responder = [](const Bytes &request) {
        return request[13] == 0x0D ? status(0x00) : acknowledged(0xC1, 0x4A);
    };
    EXPECT_EQ(read_page(3, 16), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(bridge.calls_named("write").size(), 1u + 50u);
    const auto sleeps = bridge.calls_named("sleep");
    ASSERT_EQ(sleeps.size(), 50u);
    for (const auto &sleep : sleeps) EXPECT_EQ(sleep.a, 50u);
    EXPECT_EQ(elapsed(), 50 * 50.0);

    bridge.clear_calls();
    const uint8_t data[4] = {1, 2, 3, 4};
    EXPECT_EQ(kavrel_direct_flash_write(3, data, 4), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(bridge.calls_named("sleep").size(), 50u);
}

TEST_F(FlashCm2, NullBufferStillReadsThePageAndCountsItNegativeLengthIsRefused) {
    EXPECT_EQ(kavrel_direct_flash_read(1, buffer, -1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());

    expect_read_block(1);
    bridge.expect(device, kFlashStatusQuery, status(0xAA));
    bridge.expect(device, cm2_query_bytes(0xC7, 0, 4), at_once(cm2_reply(0xC7, 0, Bytes(16, 0x61))));
    EXPECT_EQ(kavrel_direct_flash_read(1, nullptr, 16), 16);
}

TEST_F(FlashCm2, WriteOpensProtectionFillsBufferAndCommandsWithTheCrc) {
    bridge.expect(device, kOpenProtection, acknowledged(0xC1, 0x12));
    const Bytes page_write = cm2_write_bytes(0xC7, 0, {'a', 'b', 'c'});
    ASSERT_EQ(page_write.size(), 36u);
    ASSERT_EQ(hex(Bytes(page_write.begin() + 28, page_write.begin() + 32)), "61 62 63 00");
    bridge.expect(device, page_write, acknowledged(0xC7, 0));
    bridge.expect(device, cm2_write_bytes(0xC1, 0x4A, {0xCF, 0xDD, 0x01, 0x02, 0x35, 0x24, 0x41, 0xC2}),
                  acknowledged(0xC1, 0x4A));
    bridge.expect(device, kFlashStatusQuery, status(0x01));
    bridge.expect(device, kFlashStatusQuery, status(0xAA));
    const uint8_t abc[] = {'a', 'b', 'c'};
    EXPECT_EQ(kavrel_direct_flash_write(0x0102, abc, 3), KAVREL_DIRECT_OK);
    EXPECT_EQ(bridge.calls_named("sleep").size(), 1u);
}

TEST_F(FlashCm2, WriteOfAnEmptyPageCarriesCrcZero) {
    bridge.expect(device, kOpenProtection, acknowledged(0xC1, 0x12));
    bridge.expect(device, cm2_write_bytes(0xC7, 0, {}), acknowledged(0xC7, 0));
    bridge.expect(device, cm2_write_bytes(0xC1, 0x4A, {0xCF, 0xDD, 0, 9, 0, 0, 0, 0}),
                  acknowledged(0xC1, 0x4A));
    bridge.expect(device, kFlashStatusQuery, status(0xAA));
    EXPECT_EQ(kavrel_direct_flash_write(9, nullptr, 0), KAVREL_DIRECT_OK);
}

TEST_F(FlashCm2, WriteRefusesWhatOnePacketCannotCarryBeforeSending) {
    const Bytes data(2017, 0x11);
    EXPECT_EQ(kavrel_direct_flash_write(1, data.data(), 2017), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_flash_write(1, data.data(), -1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_flash_write(1, nullptr, 3), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());

    bridge.expect(device, kOpenProtection, acknowledged(0xC1, 0x12));
    bridge.expect(device, cm2_write_bytes(0xC7, 0, Bytes(2016, 0x11)), acknowledged(0xC7, 0));
    bridge.reply_any(device, acknowledged(0xC1, 0x4A));
    bridge.expect(device, kFlashStatusQuery, status(0xAA));
    EXPECT_EQ(kavrel_direct_flash_write(1, data.data(), 2016), KAVREL_DIRECT_OK);
}

TEST_F(FlashCm2, AFailedStepEndsTheWrite) {
    bridge.expect(device, kOpenProtection, acknowledged(0xC1, 0x12));
    bridge.expect(device, cm2_write_bytes(0xC7, 0, {1, 2}), at_once(cm2_reply(0xC7, 0, {}, 0xE3)));
    const uint8_t data[] = {1, 2};
    EXPECT_EQ(kavrel_direct_flash_write(5, data, 2), KAVREL_DIRECT_ERR_WRITE_PROTECT);
    EXPECT_EQ(bridge.calls_named("write").size(), 2u);
}

TEST_F(FlashNir, ReadIsOneCommandKeepingAtMostLengthBytes) {
    bridge.expect(device, nir_frame({0x3F, 0xAF, 0x01, 0x02}), at_once(nir_reply(Bytes(20, 0x33))));
    EXPECT_EQ(read_page(0x0102, 16), 16);
    EXPECT_EQ(buffer[15], 0x33);
    EXPECT_EQ(buffer[16], 0xEE);
    // Flash transfers wait a whole second of quiet.
    EXPECT_GE(elapsed(), 1000.0);

    EXPECT_EQ(read_page(1, 0), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_flash_read(1, nullptr, 16), KAVREL_DIRECT_ERR_INVALID_ARG);
}

TEST_F(FlashNir, WriteIsTheCommandPageAndData) {
    bridge.expect(device, nir_frame({0xAF, 0x00, 0x07, 1, 2, 3, 4, 5}), at_once(nir_reply({})));
    const uint8_t data[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(kavrel_direct_flash_write(7, data, 5), KAVREL_DIRECT_OK);
    ASSERT_EQ(bridge.calls_named("write").size(), 1u);
    EXPECT_EQ(bridge.calls_named("write")[0].bytes.size(), 10u);

    const Bytes longest(8187, 0x44);
    bridge.expect(device, nir_frame(concat({{0xAF, 0x00, 0x07}, longest})), at_once(nir_reply({})));
    EXPECT_EQ(kavrel_direct_flash_write(7, longest.data(), 8187), KAVREL_DIRECT_OK);

    bridge.clear_calls();
    EXPECT_EQ(kavrel_direct_flash_write(7, longest.data(), 8188), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_flash_write(7, data, 0), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_flash_write(7, nullptr, 5), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
}

}  // namespace
}  // namespace kavrel::test
