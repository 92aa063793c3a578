// Listing the attached bridges and opening instruments.
#include <cstdio>
#include <cstring>

#include "kavrel_direct.h"
#include "platform/platform.h"
#include "transport/api_call.h"
#include "transport/cm2_exchange.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"
#include "transport/timing.h"

namespace kavrel {
namespace {

constexpr uint32_t kMaxListed = 64;

struct BridgeList {
    platform::BridgeEntry entries[kMaxListed];
    uint32_t count = 0;
};

// A fresh list of at most 64 bridges. False when the driver fails or finds
// none; nothing of the list outlives the call that took it.
bool take_list(BridgeList &list) {
    const platform::Platform &bridge = platform::current();
    uint32_t count = 0;
    if (bridge.create_device_info_list(&count) != platform::kOk || count == 0) return false;
    if (count > kMaxListed) count = kMaxListed;
    if (bridge.get_device_info_list(list.entries, &count) != platform::kOk) return false;
    list.count = count > kMaxListed ? kMaxListed : count;
    return true;
}

// The CM2 probe is the model query and the NIR probe the version command:
// requests every instrument of either kind answers. Only the results count.
void settle_protocol(device_slot &slot) {
    switch (g_protocol_preference) {
        case KAVREL_DIRECT_PROTOCOL_CM2:
            slot.protocol = KAVREL_DIRECT_PROTOCOL_CM2;
            slot.capabilities = KAVREL_DIRECT_CAPABILITIES_CM2;
            return;
        case KAVREL_DIRECT_PROTOCOL_NIR:
            slot.protocol = KAVREL_DIRECT_PROTOCOL_NIR;
            slot.capabilities = KAVREL_DIRECT_CAPABILITIES_NIR;
            return;
        default: break;
    }
    uint8_t answer[32];
    int32_t answer_length = 0;
    if (cm2_query(kRegControl, 0x000046, 4, answer, sizeof answer, &answer_length) == 0) {
        slot.protocol = KAVREL_DIRECT_PROTOCOL_CM2;
        slot.capabilities = KAVREL_DIRECT_CAPABILITIES_CM2;
        return;
    }
    const uint8_t version = 'V';
    if (nir_send_command(&version, 1, answer, &answer_length, sizeof answer, kNirQueryQuietMs) == 0) {
        slot.protocol = KAVREL_DIRECT_PROTOCOL_NIR;
        slot.capabilities = KAVREL_DIRECT_CAPABILITIES_NIR;
        return;
    }
    // Neither answered: the device stays open and is treated as CM2.
    slot.protocol = KAVREL_DIRECT_PROTOCOL_CM2;
    slot.capabilities = KAVREL_DIRECT_CAPABILITIES_CM2;
}

int32_t open_device(int32_t index) {
    if (index < 0) return KAVREL_DIRECT_ERR_INVALID_ARG;
    BridgeList list;
    if (!take_list(list) || static_cast<uint32_t>(index) >= list.count) return KAVREL_DIRECT_ERR_NO_DEVICE;
    const char *serial = list.entries[index].serial_number;

    // A bridge that is open already is only made active again.
    for (int i = 0; i < kMaxDevices; ++i) {
        if (g_devices[i].is_open && std::strcmp(g_devices[i].chip_serial, serial) == 0) {
            g_active_index = i;
            return KAVREL_DIRECT_OK;
        }
    }

    const platform::Platform &bridge = platform::current();
    platform::Handle handle = nullptr;
    if (bridge.open(index, &handle) != platform::kOk) return KAVREL_DIRECT_ERR_OPEN_FAILED;
    bridge.set_timeouts(handle, kDefaultTimeoutMs, kDefaultTimeoutMs);
    bridge.set_latency_timer(handle, 1);
    bridge.set_usb_parameters(handle, 65536, 65536);
    bridge.purge(handle, platform::kPurgeRx | platform::kPurgeTx);
    bridge.reset_device(handle);

    int free_index = -1;
    for (int i = 0; i < kMaxDevices && free_index < 0; ++i)
        if (!g_devices[i].is_open) free_index = i;
    if (free_index < 0) {
        bridge.close(handle);
        return KAVREL_DIRECT_ERR_OPEN_FAILED;
    }

    device_slot &slot = g_devices[free_index];
    slot = device_slot{};
    slot.handle = handle;
    slot.is_open = 1;
    slot.protocol = KAVREL_DIRECT_PROTOCOL_UNKNOWN;
    slot.integration_time = 10000;
    slot.average_number = 1;
    std::snprintf(slot.chip_serial, sizeof slot.chip_serial, "%s", serial);
    g_active_index = free_index;
    settle_protocol(slot);
    return KAVREL_DIRECT_OK;
}

}  // namespace
}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API uint32_t kavrel_direct_scan_devices(void) {
    return api_call_or<uint32_t>(0u, [] {
        BridgeList list;
        if (!take_list(list)) return 0u;
        for (uint32_t i = 0; i < list.count; ++i)
            std::printf("[%d] %s (SN: %s)\n", static_cast<int>(i), list.entries[i].description,
                        list.entries[i].serial_number);
        return list.count;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_chip_serial_by_index(int32_t index, char *buffer,
                                                                 int32_t buffer_size) {
    return api_call([=]() -> int32_t {
        if (buffer == nullptr || buffer_size < 2 || index < 0) return KAVREL_DIRECT_ERR_INVALID_ARG;
        BridgeList list;
        if (!take_list(list) || static_cast<uint32_t>(index) >= list.count)
            return KAVREL_DIRECT_ERR_NO_DEVICE;
        std::snprintf(buffer, static_cast<size_t>(buffer_size), "%s", list.entries[index].serial_number);
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_open_device(int32_t index) {
    return api_call([=] { return open_device(index); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_open_device_by_chip_serial(const char *chip_serial) {
    return api_call([=]() -> int32_t {
        if (chip_serial == nullptr || chip_serial[0] == '\0') return KAVREL_DIRECT_ERR_INVALID_ARG;
        BridgeList list;
        if (!take_list(list)) return KAVREL_DIRECT_ERR_NO_DEVICE;
        for (uint32_t i = 0; i < list.count; ++i)
            if (std::strcmp(list.entries[i].serial_number, chip_serial) == 0)
                return open_device(static_cast<int32_t>(i));
        return KAVREL_DIRECT_ERR_NO_DEVICE;
    });
}

}  // extern "C"
