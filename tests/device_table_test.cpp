// The device table, the active index, the preference and the guard.
#include <thread>
#include <vector>

#include "support/device_fixture.h"

namespace kavrel::test {
namespace {

using DeviceTable = DeviceTest;

TEST_F(DeviceTable, NothingOpenBeforeAnyOpen) {
    EXPECT_EQ(kavrel_direct_is_open(), 0);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 0);
    // The guard comes before the pointer check.
    EXPECT_EQ(kavrel_direct_get_device_protocol(nullptr), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_EQ(kavrel_direct_get_capabilities(nullptr), KAVREL_DIRECT_ERR_NOT_OPEN);
}

TEST_F(DeviceTable, SelectChecksIndexThenSlot) {
    open_cm2();
    EXPECT_EQ(kavrel_direct_select_device(-1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_select_device(4), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_select_device(2), KAVREL_DIRECT_ERR_NOT_OPEN);
    EXPECT_EQ(g_active_index, 0);
    EXPECT_EQ(kavrel_direct_select_device(0), KAVREL_DIRECT_OK);
}

TEST_F(DeviceTable, OpenedSlotHoldsDefaults) {
    open_nir("NIRSER");
    const device_slot &slot = active();
    EXPECT_EQ(slot.is_open, 1u);
    EXPECT_EQ(slot.protocol, KAVREL_DIRECT_PROTOCOL_NIR);
    EXPECT_EQ(slot.capabilities, KAVREL_DIRECT_CAPABILITIES_NIR);
    EXPECT_EQ(slot.integration_time, 10000u);
    EXPECT_EQ(slot.average_number, 1);
    EXPECT_EQ(slot.wavelength_count, 0);
    EXPECT_EQ(slot.selection_valid, 0u);
    EXPECT_STREQ(slot.chip_serial, "NIRSER");
    uint32_t value = 0;
    EXPECT_EQ(kavrel_direct_get_device_protocol(&value), KAVREL_DIRECT_OK);
    EXPECT_EQ(value, KAVREL_DIRECT_PROTOCOL_NIR);
    EXPECT_EQ(kavrel_direct_get_capabilities(&value), KAVREL_DIRECT_OK);
    EXPECT_EQ(value, 0x1FFu);
    EXPECT_EQ(kavrel_direct_get_device_protocol(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
}

TEST_F(DeviceTable, ClosingTheActiveDeviceLeavesOthersWithTheirCaches) {
    open_cm2("A");
    g_devices[0].integration_time = 777;
    open_cm2("B");
    ASSERT_EQ(g_active_index, 1);
    kavrel_direct_close_device();
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 1);
    EXPECT_EQ(kavrel_direct_is_open(), 0);
    ASSERT_EQ(bridge.calls_named("close").size(), 1u);
    EXPECT_EQ(bridge.calls_named("close")[0].device, 1);
    EXPECT_EQ(g_devices[1].is_open, 0u);
    EXPECT_EQ(g_devices[1].handle, nullptr);
    EXPECT_EQ(kavrel_direct_select_device(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().integration_time, 777u);
}

TEST_F(DeviceTable, CloseWithNothingActiveChangesNothing) {
    open_cm2();
    kavrel_direct_close_device();
    bridge.clear_calls();
    open_cm2("SECOND");
    g_active_index = -1;
    bridge.clear_calls();
    kavrel_direct_close_device();
    EXPECT_TRUE(bridge.calls.empty());
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 1);
}

TEST_F(DeviceTable, CloseAllFreesEverySlotAndNextOpenUsesSlotZero) {
    open_cm2("A");
    open_cm2("B");
    open_nir("C");
    kavrel_direct_close_all_devices();
    EXPECT_EQ(bridge.calls_named("close").size(), 3u);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 0);
    EXPECT_EQ(g_active_index, -1);
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_CM2);
    EXPECT_EQ(kavrel_direct_open_device(2), KAVREL_DIRECT_OK);
    EXPECT_EQ(g_active_index, 0);
}

TEST_F(DeviceTable, PreferenceAcceptsOnlyKnownValues) {
    EXPECT_EQ(kavrel_direct_set_protocol_preference(2), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(3), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(-1), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(g_protocol_preference, 2u);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(0), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_set_protocol_preference(1), KAVREL_DIRECT_OK);
    EXPECT_EQ(g_protocol_preference, 1u);
}

// Calls from several threads are serialised: the table stays consistent and
// every open either succeeds or finds the slots full.
TEST_F(DeviceTable, ConcurrentCallsAreSerialised) {
    for (int i = 0; i < 6; ++i) bridge.attach("T" + std::to_string(i));
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_NIR);
    std::vector<std::thread> threads;
    std::vector<int32_t> results(6);
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([i, &results] {
            results[static_cast<size_t>(i)] = kavrel_direct_open_device(i);
            for (int k = 0; k < 50; ++k) kavrel_direct_get_open_device_count();
        });
    for (auto &t : threads) t.join();
    int opened = 0;
    for (int32_t rc : results) {
        EXPECT_TRUE(rc == KAVREL_DIRECT_OK || rc == KAVREL_DIRECT_ERR_OPEN_FAILED) << rc;
        opened += rc == KAVREL_DIRECT_OK;
    }
    EXPECT_EQ(opened, 4);
    EXPECT_EQ(kavrel_direct_get_open_device_count(), 4);
}

}  // namespace
}  // namespace kavrel::test
