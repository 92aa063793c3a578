#include "transport/device_table.h"

#include <cstring>

#include "transport/api_call.h"
#include "transport/device_call.h"

namespace kavrel {

device_slot g_devices[kMaxDevices];
int32_t g_active_index = -1;
uint32_t g_protocol_preference = KAVREL_DIRECT_PROTOCOL_AUTO;

namespace {
thread_local device_slot *t_operation_slot = nullptr;
thread_local int t_call_depth = 0;
}  // namespace

// The locks are never destroyed: a call made while the process exits must
// still find them.
std::mutex &table_mutex() {
    static std::mutex *mutex = new std::mutex;
    return *mutex;
}

std::mutex &api_mutex() {
    static std::mutex *mutex = new std::mutex;
    return *mutex;
}

std::mutex &slot_mutex(int index) {
    static std::mutex *mutexes = new std::mutex[kMaxDevices];
    return mutexes[index];
}

device_slot *active_slot() {
    return t_operation_slot;
}

OperationScope::OperationScope(device_slot &slot) : previous_(t_operation_slot) {
    t_operation_slot = &slot;
}

OperationScope::~OperationScope() {
    t_operation_slot = previous_;
}

CallScope::CallScope() {
    ++t_call_depth;
}

CallScope::~CallScope() {
    --t_call_depth;
}

bool in_library_call() {
    return t_call_depth > 0;
}

int active_index_now() {
    std::lock_guard<std::mutex> lock(table_mutex());
    if (g_active_index < 0 || g_active_index >= kMaxDevices) return -1;
    return g_devices[g_active_index].is_open ? g_active_index : -1;
}

device_slot *lock_active_slot(std::unique_lock<std::mutex> &io) {
    const int index = active_index_now();
    if (index < 0) return nullptr;
    io = std::unique_lock<std::mutex>(slot_mutex(index));
    // Whoever writes is_open holds the slot's lock.
    return g_devices[index].is_open ? &g_devices[index] : nullptr;
}

void free_slot(int index) {
    device_slot &slot = g_devices[index];
    const platform::Platform *provider = slot.provider;
    const platform::Handle handle = slot.handle;
    {
        std::lock_guard<std::mutex> lock(table_mutex());
        slot = device_slot{};
        if (g_active_index == index) g_active_index = -1;
    }
    if (handle != nullptr && provider != nullptr) platform::Bridge(*provider).close(handle);
}

void clear_wavelength_state(device_slot &slot) {
    slot.wavelength_count = 0;
    slot.selection_valid = 0;
    slot.requested_start = slot.requested_end = 0.0;
    slot.actual_start = slot.actual_end = 0.0;
    slot.start_index = slot.end_index = slot.selected_count = 0;
}

void use_provider(const platform::Platform *provider) {
    std::lock_guard<std::mutex> lock(api_mutex());
    platform::install(provider);
}

}  // namespace kavrel

using namespace kavrel;

extern "C" {

KAVREL_DIRECT_API void kavrel_direct_close_device(void) {
    api_call_void([] {
        const int index = active_index_now();
        if (index < 0) return;
        std::lock_guard<std::mutex> io(slot_mutex(index));
        // Leaves no device active even when the slot was closed meanwhile.
        if (g_devices[index].is_open) {
            free_slot(index);
        } else {
            std::lock_guard<std::mutex> lock(table_mutex());
            if (g_active_index == index) g_active_index = -1;
        }
    });
}

KAVREL_DIRECT_API void kavrel_direct_close_all_devices(void) {
    api_call_void([] {
        for (int i = 0; i < kMaxDevices; ++i) {
            std::lock_guard<std::mutex> io(slot_mutex(i));
            if (g_devices[i].is_open) free_slot(i);
        }
        std::lock_guard<std::mutex> lock(table_mutex());
        g_active_index = -1;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_is_open(void) {
    return table_call([]() -> int32_t {
        if (g_active_index < 0) return 0;
        return g_devices[g_active_index].is_open ? 1 : 0;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_open_device_count(void) {
    return table_call([] {
        int32_t count = 0;
        for (const device_slot &slot : g_devices)
            if (slot.is_open) ++count;
        return count;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_select_device(int32_t index) {
    return table_call([index]() -> int32_t {
        if (static_cast<uint32_t>(index) >= kMaxDevices) return KAVREL_DIRECT_ERR_INVALID_ARG;
        if (!g_devices[index].is_open) return KAVREL_DIRECT_ERR_NOT_OPEN;
        g_active_index = index;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_protocol_preference(int32_t preference) {
    return table_call([preference]() -> int32_t {
        if (static_cast<uint32_t>(preference) > KAVREL_DIRECT_PROTOCOL_NIR)
            return KAVREL_DIRECT_ERR_INVALID_ARG;
        g_protocol_preference = static_cast<uint32_t>(preference);
        return KAVREL_DIRECT_OK;
    });
}

// The protocol and capabilities answer from the table, like the queries
// above, without waiting for an exchange in flight.
KAVREL_DIRECT_API int32_t kavrel_direct_get_device_protocol(uint32_t *protocol) {
    return table_call([protocol]() -> int32_t {
        if (g_active_index < 0 || !g_devices[g_active_index].is_open) return KAVREL_DIRECT_ERR_NOT_OPEN;
        if (protocol == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        *protocol = g_devices[g_active_index].protocol;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_capabilities(uint32_t *capabilities) {
    return table_call([capabilities]() -> int32_t {
        if (g_active_index < 0 || !g_devices[g_active_index].is_open) return KAVREL_DIRECT_ERR_NOT_OPEN;
        if (capabilities == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        *capabilities = g_devices[g_active_index].capabilities;
        return KAVREL_DIRECT_OK;
    });
}

}  // extern "C"
