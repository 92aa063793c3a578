// A test fixture with a fake bridge installed and a clean device table.
#ifndef KAVREL_TESTS_DEVICE_FIXTURE_H
#define KAVREL_TESTS_DEVICE_FIXTURE_H

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "kavrel_direct.h"
#include "support/fake_bridge.h"
#include "transport/device_table.h"

namespace kavrel::test {

// Results and protocols, short for the tables.
constexpr int32_t OK = KAVREL_DIRECT_OK, IO = KAVREL_DIRECT_ERR_IO, ARG = KAVREL_DIRECT_ERR_INVALID_ARG,
                  TIMEOUT = KAVREL_DIRECT_ERR_TIMEOUT, CRC = KAVREL_DIRECT_ERR_CRC;
constexpr bool CM2 = false, NIR = true;

inline device_slot &active() {
    return g_devices[g_active_index];
}

class DeviceTest : public ::testing::Test {
protected:
    FakeBridge bridge;

    void SetUp() override {
        ASSERT_EQ(kavrel_direct_get_open_device_count(), 0) << "a previous test left a device open";
    }

    void TearDown() override {
        operation.reset();
        EXPECT_EQ(bridge.unplayed_steps(), 0u) << "scripted traffic that never happened";
        kavrel_direct_close_all_devices();
        kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO);
    }

    // Attaches a bridge and opens it with the protocol forced, so no probe
    // traffic is scripted; the recorded calls start empty afterwards.
    int open_with(uint32_t protocol, const std::string &serial) {
        const int index = bridge.attach(serial);
        kavrel_direct_set_protocol_preference(static_cast<int32_t>(protocol));
        EXPECT_EQ(kavrel_direct_open_device(index), KAVREL_DIRECT_OK);
        kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO);
        bridge.calls.clear();
        return index;
    }
    int open_cm2(const std::string &serial = "CM2A0001") {
        return open_with(KAVREL_DIRECT_PROTOCOL_CM2, serial);
    }
    int open_nir(const std::string &serial = "NIRA0001") {
        return open_with(KAVREL_DIRECT_PROTOCOL_NIR, serial);
    }

    // Internal calls the test makes itself (the exchanges) work on the slot
    // bound here, as they do inside an exported operation.
    std::optional<OperationScope> operation;
    void bind_active() { operation.emplace(active()); }
};

}  // namespace kavrel::test

#endif
