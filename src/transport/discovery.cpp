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
bool take_list(const platform::Bridge &bridge, BridgeList &list) {
    uint32_t count = 0;
    if (bridge.create_device_info_list(&count) != platform::kOk || count == 0) return false;
    if (count > kMaxListed) count = kMaxListed;
    if (bridge.get_device_info_list(list.entries, &count) != platform::kOk) return false;
    list.count = count > kMaxListed ? kMaxListed : count;
    return true;
}

// The CM2 probe is the model query and the NIR probe the version command:
// requests every instrument of either kind answers. Only the results count.
uint32_t probe_protocol(uint32_t preference) {
    if (preference == KAVREL_DIRECT_PROTOCOL_CM2 || preference == KAVREL_DIRECT_PROTOCOL_NIR) return preference;
    uint8_t answer[32];
    int32_t answer_length = 0;
    if (cm2_query(kRegControl, 0x000046, 4, answer, sizeof answer, &answer_length) == 0)
        return KAVREL_DIRECT_PROTOCOL_CM2;
    const uint8_t version = 'V';
    if (nir_send_command(&version, 1, answer, &answer_length, sizeof answer, kNirQueryQuietMs) == 0)
        return KAVREL_DIRECT_PROTOCOL_NIR;
    // Neither answered: the device stays open and is treated as CM2.
    return KAVREL_DIRECT_PROTOCOL_CM2;
}

void settle_protocol(device_slot &slot, uint32_t preference) {
    const uint32_t protocol = probe_protocol(preference);
    std::lock_guard<std::mutex> lock(table_mutex());
    slot.protocol = protocol;
    slot.capabilities =
        protocol == KAVREL_DIRECT_PROTOCOL_NIR ? KAVREL_DIRECT_CAPABILITIES_NIR : KAVREL_DIRECT_CAPABILITIES_CM2;
}

// Under the API lock, so listing and opening never interleave.
int32_t open_device(int32_t index) {
    if (index < 0) return KAVREL_DIRECT_ERR_INVALID_ARG;
    const platform::Platform &provider = platform::current();
    const platform::Bridge bridge(provider);
    BridgeList list;
    if (!take_list(bridge, list) || static_cast<uint32_t>(index) >= list.count) return KAVREL_DIRECT_ERR_NO_DEVICE;
    const char *serial = list.entries[index].serial_number;

    // A bridge that is open already is only made active again.
    int free_index = -1;
    uint32_t preference;
    {
        std::lock_guard<std::mutex> lock(table_mutex());
        for (int i = 0; i < kMaxDevices; ++i) {
            if (g_devices[i].is_open && g_devices[i].provider == &provider &&
                std::strcmp(g_devices[i].chip_serial, serial) == 0) {
                g_active_index = i;
                return KAVREL_DIRECT_OK;
            }
        }
        for (int i = 0; i < kMaxDevices && free_index < 0; ++i)
            if (!g_devices[i].is_open) free_index = i;
        preference = g_protocol_preference;
    }

    platform::Handle handle = nullptr;
    if (bridge.open(index, &handle) != platform::kOk) return KAVREL_DIRECT_ERR_OPEN_FAILED;
    bridge.set_timeouts(handle, kDefaultTimeoutMs, kDefaultTimeoutMs);
    bridge.set_latency_timer(handle, 1);
    bridge.set_usb_parameters(handle, 65536, 65536);
    bridge.purge(handle, platform::kPurgeRx | platform::kPurgeTx);
    bridge.reset_device(handle);
    if (free_index < 0) {
        bridge.close(handle);
        return KAVREL_DIRECT_ERR_OPEN_FAILED;
    }

    // Only opening fills a free slot, and opening holds the API lock: the
    // slot found above is still free.
    std::lock_guard<std::mutex> io(slot_mutex(free_index));
    device_slot &slot = g_devices[free_index];
    {
        std::lock_guard<std::mutex> lock(table_mutex());
        slot = device_slot{};
        slot.handle = handle;
        slot.is_open = 1;
        slot.protocol = KAVREL_DIRECT_PROTOCOL_UNKNOWN;
        slot.integration_time = 10000;
        slot.average_number = 1;
        std::snprintf(slot.chip_serial, sizeof slot.chip_serial, "%s", serial);
        slot.provider = &provider;
        g_active_index = free_index;
    }
    OperationScope operation(slot);
    settle_protocol(slot, preference);
    return KAVREL_DIRECT_OK;
}

}  // namespace
}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API uint32_t kavrel_direct_scan_devices(void) {
    return api_call_or<uint32_t>(0u, [] {
        std::lock_guard<std::mutex> lock(api_mutex());
        BridgeList list;
        if (!take_list(platform::Bridge(platform::current()), list)) return 0u;
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
        std::lock_guard<std::mutex> lock(api_mutex());
        BridgeList list;
        if (!take_list(platform::Bridge(platform::current()), list) || static_cast<uint32_t>(index) >= list.count)
            return KAVREL_DIRECT_ERR_NO_DEVICE;
        std::snprintf(buffer, static_cast<size_t>(buffer_size), "%s", list.entries[index].serial_number);
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_open_device(int32_t index) {
    return api_call([=] {
        std::lock_guard<std::mutex> lock(api_mutex());
        return open_device(index);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_open_device_by_chip_serial(const char *chip_serial) {
    return api_call([=]() -> int32_t {
        if (chip_serial == nullptr || chip_serial[0] == '\0') return KAVREL_DIRECT_ERR_INVALID_ARG;
        std::lock_guard<std::mutex> lock(api_mutex());
        BridgeList list;
        if (!take_list(platform::Bridge(platform::current()), list)) return KAVREL_DIRECT_ERR_NO_DEVICE;
        for (uint32_t i = 0; i < list.count; ++i)
            if (std::strcmp(list.entries[i].serial_number, chip_serial) == 0)
                return open_device(static_cast<int32_t>(i));
        return KAVREL_DIRECT_ERR_NO_DEVICE;
    });
}

}  // extern "C"
