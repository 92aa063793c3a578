// The table of open instruments and the device guard.
//
// Four slots; one of them at a time is the active device, and every device
// operation works on it. A free slot is all zero.
//
// Locks. The table (which slots are open, their protocol and capabilities,
// the active index, the protocol preference) has one short lock that is
// never held across I/O, so the table queries answer at once even while
// another thread waits for a spectrum. Each slot has its own I/O lock, held
// by the operation working on it from start to end; closing a slot takes it
// too, so a close waits for the exchange in flight. Listing and opening are
// serialised by the API lock. Order: API lock, then a slot's I/O lock, then
// the table lock.
#ifndef KAVREL_TRANSPORT_DEVICE_TABLE_H
#define KAVREL_TRANSPORT_DEVICE_TABLE_H

#include <cstdint>
#include <mutex>

#include "kavrel_direct.h"
#include "platform/platform.h"

namespace kavrel {

constexpr int kMaxDevices = 4;

struct device_slot {
    platform::Handle handle;
    uint32_t is_open;
    uint32_t protocol;
    uint32_t capabilities;
    uint16_t wavelength_count;  // 0: not read yet
    uint32_t integration_time;  // microseconds; sizes the spectrum time limit
    uint8_t average_number;     // never 0 once opened
    // The selected wavelength range, valid while selection_valid is 1.
    uint32_t selection_valid;
    double requested_start;
    double requested_end;
    double actual_start;
    double actual_end;
    uint16_t start_index;
    uint16_t end_index;
    uint16_t selected_count;
    char chip_serial[64];
    // The provider that listed and opened the bridge: every bridge call for
    // this slot goes to it, whatever provider is in force later.
    const platform::Platform *provider;
};

extern device_slot g_devices[kMaxDevices];
extern int32_t g_active_index;          // -1, or the index of an open slot
extern uint32_t g_protocol_preference;  // KAVREL_DIRECT_PROTOCOL_AUTO, _CM2 or _NIR

std::mutex &table_mutex();
std::mutex &api_mutex();
std::mutex &slot_mutex(int index);

// The slot of the operation running on this thread: resolved once, at the
// operation's start, and kept to its end whatever another thread selects
// meanwhile. Null outside an operation.
device_slot *active_slot();

// Binds the running thread's operation to a slot for the life of the scope.
class OperationScope {
public:
    explicit OperationScope(device_slot &slot);
    ~OperationScope();
    OperationScope(const OperationScope &) = delete;
    OperationScope &operator=(const OperationScope &) = delete;

private:
    device_slot *previous_;
};

// True while this thread is inside a call of the library: a provider (or
// anything it calls) that calls back in is refused instead of deadlocking.
bool in_library_call();

// The device guard: the operation's slot, or -3 when there is none.
inline int32_t guard(device_slot *&slot) {
    slot = active_slot();
    return slot != nullptr ? KAVREL_DIRECT_OK : KAVREL_DIRECT_ERR_NOT_OPEN;
}

// The calls of the provider that opened the slot.
inline platform::Bridge bridge_of(const device_slot &slot) {
    return platform::Bridge(*slot.provider);
}

// NIR takes the NIR form; every other value (CM2, or not yet settled while
// opening) takes the CM2 form.
inline bool speaks_nir(const device_slot &slot) {
    return slot.protocol == KAVREL_DIRECT_PROTOCOL_NIR;
}

// Frees slot index: clears it under the table lock, then closes its bridge
// (status ignored). The caller holds the slot's I/O lock.
void free_slot(int index);

// Clears the cached point count and the selected range (after a reset).
void clear_wavelength_state(device_slot &slot);

// Puts provider in force for listing and opening (null: the build's
// default), under the API lock. Devices already open keep theirs.
void use_provider(const platform::Platform *provider);

}  // namespace kavrel

#endif
