// The table of open instruments and the device guard.
//
// Four slots; one of them at a time is the active device, and every device
// operation works on it. A free slot is all zero.
#ifndef KAVREL_TRANSPORT_DEVICE_TABLE_H
#define KAVREL_TRANSPORT_DEVICE_TABLE_H

#include <cstdint>

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
    // The selected wavelength range. A reset clears selection_valid through
    // selected_count in one step, so keep these together and in this order.
    uint32_t selection_valid;
    double requested_start;
    double requested_end;
    double actual_start;
    double actual_end;
    uint16_t start_index;
    uint16_t end_index;
    uint16_t selected_count;
    char chip_serial[64];
};

extern device_slot g_devices[kMaxDevices];
extern int32_t g_active_index;          // -1, or the index of an open slot
extern uint32_t g_protocol_preference;  // KAVREL_DIRECT_PROTOCOL_AUTO, _CM2 or _NIR

// The device guard every device operation begins with: the active slot, or
// null when no device is active or its slot is not open (result -3).
device_slot *active_slot();

// The guard as a result code, handing out the slot on success.
inline int32_t guard(device_slot *&slot) {
    slot = active_slot();
    return slot != nullptr ? KAVREL_DIRECT_OK : KAVREL_DIRECT_ERR_NOT_OPEN;
}

// NIR takes the NIR form; every other value (CM2, or not yet settled while
// opening) takes the CM2 form.
inline bool speaks_nir(const device_slot &slot) {
    return slot.protocol == KAVREL_DIRECT_PROTOCOL_NIR;
}

// Frees a slot: closes its bridge (status ignored) and clears every field.
void free_slot(device_slot &slot);

// Clears the cached point count and the selected range (after a reset).
void clear_wavelength_state(device_slot &slot);

}  // namespace kavrel

#endif
