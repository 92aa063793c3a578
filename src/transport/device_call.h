// The frame of an exported device operation: the API lock, then the device
// guard, then the operation's body on the active slot.
#ifndef KAVREL_TRANSPORT_DEVICE_CALL_H
#define KAVREL_TRANSPORT_DEVICE_CALL_H

#include "transport/api_call.h"
#include "transport/device_table.h"

namespace kavrel {

// Runs body(slot) under the API lock once the guard has passed; the guard's
// -3 comes before anything the body checks.
template <typename Body>
int32_t device_call(Body &&body) noexcept {
    return api_call([&]() -> int32_t {
        device_slot *slot;
        if (int32_t rc = guard(slot)) return rc;
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
