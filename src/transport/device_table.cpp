#include "transport/device_table.h"

#include <cstring>

#include "transport/api_call.h"
#include "transport/device_call.h"

namespace kavrel {

device_slot g_devices[kMaxDevices];
int32_t g_active_index = -1;
uint32_t g_protocol_preference = KAVREL_DIRECT_PROTOCOL_AUTO;

std::recursive_mutex &api_mutex() {
    // Never destroyed: a call made while the process exits must still find it.
    static std::recursive_mutex *mutex = new std::recursive_mutex;
    return *mutex;
}

device_slot *active_slot() {
    if (g_active_index < 0 || g_active_index >= kMaxDevices) return nullptr;
    device_slot &slot = g_devices[g_active_index];
    return slot.is_open ? &slot : nullptr;
}

void free_slot(device_slot &slot) {
    if (slot.handle != nullptr) platform::current().close(slot.handle);
    slot = device_slot{};
}

void clear_wavelength_state(device_slot &slot) {
    slot.wavelength_count = 0;
    slot.selection_valid = 0;
    slot.requested_start = slot.requested_end = 0.0;
    slot.actual_start = slot.actual_end = 0.0;
    slot.start_index = slot.end_index = slot.selected_count = 0;
}

}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API void kavrel_direct_close_device(void) {
    api_call_void([] {
        if (g_active_index < 0) return;
        free_slot(g_devices[g_active_index]);
        g_active_index = -1;
    });
}

KAVREL_DIRECT_API void kavrel_direct_close_all_devices(void) {
    api_call_void([] {
        for (device_slot &slot : g_devices)
            if (slot.is_open) free_slot(slot);
        g_active_index = -1;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_is_open(void) {
    return api_call([]() -> int32_t {
        if (g_active_index < 0) return 0;
        return g_devices[g_active_index].is_open ? 1 : 0;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_open_device_count(void) {
    return api_call([] {
        int32_t count = 0;
        for (const device_slot &slot : g_devices)
            if (slot.is_open) ++count;
        return count;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_select_device(int32_t index) {
    return api_call([index]() -> int32_t {
        if (static_cast<uint32_t>(index) >= kMaxDevices) return KAVREL_DIRECT_ERR_INVALID_ARG;
        if (!g_devices[index].is_open) return KAVREL_DIRECT_ERR_NOT_OPEN;
        g_active_index = index;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_protocol_preference(int32_t preference) {
    return api_call([preference]() -> int32_t {
        if (static_cast<uint32_t>(preference) > KAVREL_DIRECT_PROTOCOL_NIR)
            return KAVREL_DIRECT_ERR_INVALID_ARG;
        g_protocol_preference = static_cast<uint32_t>(preference);
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_device_protocol(uint32_t *protocol) {
    return device_call([protocol](device_slot &slot) -> int32_t {
        if (protocol == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        *protocol = slot.protocol;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_capabilities(uint32_t *capabilities) {
    return device_call([capabilities](device_slot &slot) -> int32_t {
        if (capabilities == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        *capabilities = slot.capabilities;
        return KAVREL_DIRECT_OK;
    });
}

}  // extern "C"
