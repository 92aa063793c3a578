// Acquisition settings: the bytes each protocol sends, the decoding of the
// answers, and the integration-time and average-number caches.
#include <cstring>
#include <functional>
#include <string>

#include "support/device_fixture.h"

namespace kavrel::test {
namespace {

using AcquisitionSettings = DeviceTest;

const Bytes kWriteAck = cm2_reply(0xC1, 0, {});

TEST_F(AcquisitionSettings, Cm2SettersWriteTheirRegisterWords) {
    const int d = open_cm2();
    struct Case {
        std::function<int32_t()> call;
        uint32_t address;
        Bytes data;
    } cases[] = {
        {[] { return kavrel_direct_set_integration_time(0x00012345); }, 0x00, {0x00, 0x01, 0x23, 0x45}},
        {[] { return kavrel_direct_set_average_number(7); }, 0x10, {0, 0, 0, 7}},
        {[] { return kavrel_direct_set_level_output(3); }, 0x11, {0, 0, 0, 3}},
        {[] { return kavrel_direct_set_xenon_pulse(1, 2); }, 0x01, {0, 0, 0, 1, 0, 0, 0, 2}},
        {[] { return kavrel_direct_set_xenon_mode(9); }, 0x03, {0, 0, 0, 9}},
        {[] { return kavrel_direct_set_external_trigger_config(4, 5, 6); }, 0x51, {4, 5, 0, 6}},
        {[] { return kavrel_direct_set_dac_voltage(0x1234); }, 0x64, {0x23, 0x40, 0x00, 0x00}},
    };
    for (const auto &c : cases) {
        bridge.expect(d, cm2_write_bytes(0xC1, c.address, c.data), at_once(kWriteAck));
        EXPECT_EQ(c.call(), KAVREL_DIRECT_OK) << "address " << c.address;
    }
}

TEST_F(AcquisitionSettings, Cm2GettersDecodeTheirWords) {
    const int d = open_cm2();
    auto answer = [&](uint32_t address, uint16_t words, const Bytes &data) {
        bridge.expect(d, cm2_query_bytes(0xC1, address, words), at_once(cm2_reply(0xC1, address, data)));
    };
    uint32_t u32 = 0, second = 0;
    uint8_t u8 = 0, a = 0, b = 0, c = 0;
    uint16_t u16 = 0;
    uint64_t u64 = 0;

    answer(0x00, 1, {0x00, 0x0F, 0x42, 0x40});
    EXPECT_EQ(kavrel_direct_get_integration_time(&u32), KAVREL_DIRECT_OK);
    EXPECT_EQ(u32, 1000000u);
    answer(0x10, 1, {9, 9, 9, 12});
    EXPECT_EQ(kavrel_direct_get_average_number(&u8), KAVREL_DIRECT_OK);
    EXPECT_EQ(u8, 12);
    answer(0x11, 1, {9, 9, 9, 2});
    EXPECT_EQ(kavrel_direct_get_level_output(&u8), KAVREL_DIRECT_OK);
    EXPECT_EQ(u8, 2);
    answer(0x01, 2, {0, 0, 1, 0, 0, 0, 0, 5});
    EXPECT_EQ(kavrel_direct_get_xenon_pulse(&u32, &second), KAVREL_DIRECT_OK);
    EXPECT_EQ(u32, 256u);
    EXPECT_EQ(second, 5u);
    answer(0x03, 1, {1, 1, 1, 4});
    EXPECT_EQ(kavrel_direct_get_xenon_mode(&u8), KAVREL_DIRECT_OK);
    EXPECT_EQ(u8, 4);
    answer(0x51, 1, {7, 8, 0xFF, 9});
    EXPECT_EQ(kavrel_direct_get_external_trigger_config(&a, &b, &c), KAVREL_DIRECT_OK);
    EXPECT_EQ(a, 7);
    EXPECT_EQ(b, 8);
    EXPECT_EQ(c, 9);
    answer(0x64, 1, {0x23, 0x40, 0x0F, 0xFF});
    EXPECT_EQ(kavrel_direct_get_dac_voltage(&u16), KAVREL_DIRECT_OK);
    EXPECT_EQ(u16, 0x234);
    answer(0x52, 2, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(kavrel_direct_get_spectrum_capture_status(&u64), KAVREL_DIRECT_OK);
    EXPECT_EQ(u64, 0x0102030405060708ull);
}

TEST_F(AcquisitionSettings, NirFormsSendTheirCommands) {
    const int d = open_nir();
    const Bytes ack = nir_reply({});
    bridge.expect(d, nir_frame({0x69, 0x00, 0x01, 0x86, 0xA0}), at_once(ack));
    EXPECT_EQ(kavrel_direct_set_integration_time(100000), KAVREL_DIRECT_OK);
    bridge.expect(d, nir_frame({0x41, 0x00, 0x00}), at_once(ack));
    EXPECT_EQ(kavrel_direct_set_average_number(0), KAVREL_DIRECT_OK);
    bridge.expect(d, nir_frame({0x40, 0x05}), at_once(ack));
    EXPECT_EQ(kavrel_direct_set_level_output(5), KAVREL_DIRECT_OK);

    uint32_t time = 0;
    uint8_t value = 0;
    bridge.expect(d, nir_frame({0x3F, 0x69}), at_once(nir_reply({0x00, 0x00, 0x27, 0x10})));
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_OK);
    EXPECT_EQ(time, 10000u);
    bridge.expect(d, nir_frame({0x3F, 0x41}), at_once(nir_reply({0x01, 0x02})));
    EXPECT_EQ(kavrel_direct_get_average_number(&value), KAVREL_DIRECT_OK);
    EXPECT_EQ(value, 2);
    bridge.expect(d, nir_frame({0x3F, 0x40}), at_once(nir_reply({0x07})));
    EXPECT_EQ(kavrel_direct_get_level_output(&value), KAVREL_DIRECT_OK);
    EXPECT_EQ(value, 7);
}

TEST_F(AcquisitionSettings, SetsUseTheShortQuietTimeAndQueriesTheLong) {
    const int d = open_nir();
    bridge.reply_any(d, {});
    double start = bridge.now();
    EXPECT_EQ(kavrel_direct_set_level_output(1), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_GE(bridge.now() - start, 300.0);
    EXPECT_LT(bridge.now() - start, 400.0);
    bridge.reply_any(d, {});
    uint8_t level = 0;
    start = bridge.now();
    EXPECT_EQ(kavrel_direct_get_level_output(&level), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_GE(bridge.now() - start, 500.0);
}

TEST_F(AcquisitionSettings, CachesFollowSuccessfulCallsOnly) {
    const int d = open_cm2();
    bridge.reply_any(d, at_once(cm2_reply(0xC1, 0, {}, 0xE0)));
    EXPECT_EQ(kavrel_direct_set_integration_time(5000), KAVREL_DIRECT_ERR_TIMEOUT);
    EXPECT_EQ(active().integration_time, 10000u);

    uint32_t time = 0;
    bridge.reply_any(d, at_once(cm2_reply(0xC1, 0, {0, 0, 0x4E, 0x20})));
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().integration_time, 20000u);

    // An average of 0 goes to the instrument as 0 but counts as 1.
    bridge.expect(d, cm2_write_bytes(0xC1, 0x10, {0, 0, 0, 0}), at_once(kWriteAck));
    EXPECT_EQ(kavrel_direct_set_average_number(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().average_number, 1);
    bridge.reply_any(d, at_once(kWriteAck));
    EXPECT_EQ(kavrel_direct_set_average_number(50), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().average_number, 50);
    uint8_t average = 99;
    bridge.reply_any(d, at_once(cm2_reply(0xC1, 0x10, {0, 0, 0, 0})));
    EXPECT_EQ(kavrel_direct_get_average_number(&average), KAVREL_DIRECT_OK);
    EXPECT_EQ(average, 0);
    EXPECT_EQ(active().average_number, 1);
}

TEST_F(AcquisitionSettings, ShortAnswersFailAndLeaveOutputsAlone) {
    const int d = open_cm2();
    uint32_t time = 77;
    bridge.reply_any(d, at_once(cm2_reply(0xC1, 0, {})));
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(time, 77u);
    EXPECT_EQ(active().integration_time, 10000u);
    uint32_t first = 1, second = 2;
    bridge.reply_any(d, at_once(cm2_reply(0xC1, 1, {0, 0, 0, 9})));
    EXPECT_EQ(kavrel_direct_get_xenon_pulse(&first, &second), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(first, 1u);

    kavrel_direct_close_all_devices();
    const int n = open_nir("NIR2");
    bridge.reply_any(n, at_once(nir_reply({0, 0, 1})));  // 3 of 4 bytes
    EXPECT_EQ(kavrel_direct_get_integration_time(&time), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(time, 77u);
}

TEST_F(AcquisitionSettings, NullOutputsAreRefusedBeforeAnythingIsSent) {
    open_nir();
    uint8_t byte = 0;
    EXPECT_EQ(kavrel_direct_get_integration_time(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_xenon_pulse(nullptr, nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_external_trigger_config(&byte, &byte, nullptr),
              KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_dac_voltage(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
    kavrel_direct_close_all_devices();
    EXPECT_EQ(kavrel_direct_get_integration_time(nullptr), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_EQ(kavrel_direct_set_integration_time(1), KAVREL_DIRECT_ERR_NOT_OPEN);
}

}  // namespace
}  // namespace kavrel::test
