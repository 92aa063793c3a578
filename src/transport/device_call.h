// The frame of an exported device operation: the device guard, then the
// operation's body on the slot that was active when it began, holding that
// slot's I/O lock.
#ifndef KAVREL_TRANSPORT_DEVICE_CALL_H
#define KAVREL_TRANSPORT_DEVICE_CALL_H

#include "transport/api_call.h"
#include "transport/device_table.h"

namespace kavrel {

// The open slot that is active now, or -1 (the guard's -3).
int active_index_now();

// The active open slot with its I/O lock taken into io, or null (the
// guard's -3): none is active, or it was closed while this call waited for
// its lock.
device_slot *lock_active_slot(std::unique_lock<std::mutex> &io);

// Runs body(slot) once the guard has passed; the guard's -3 comes before
// anything the body checks.
template <typename Body>
int32_t device_call(Body &&body) noexcept {
    return api_call([&]() -> int32_t {
        std::unique_lock<std::mutex> io;
        device_slot *slot = lock_active_slot(io);
        if (slot == nullptr) return KAVREL_DIRECT_ERR_NOT_OPEN;
        OperationScope operation(*slot);
        return body(*slot);
    });
}

// Operations with only a CM2 form go on for CM2 and for a protocol not yet
// settled (while opening); every other protocol refuses, before anything is
// sent.
inline int32_t require_cm2(const device_slot &slot) {
    return slot.protocol == KAVREL_DIRECT_PROTOCOL_CM2 || slot.protocol == KAVREL_DIRECT_PROTOCOL_UNKNOWN
               ? KAVREL_DIRECT_OK
               : KAVREL_DIRECT_ERR_UNSUPPORTED;
}

}  // namespace kavrel

#endif
