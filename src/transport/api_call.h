// The frame around every exported device call.
//
// Every exported call holds one process-wide lock for its whole duration, so
// two threads calling at once are served one after the other instead of
// tearing the device table. The lock is recursive because operations call
// one another (the device information asks the model, the selection reads the
// table). No C++ exception ever crosses the C boundary.
#ifndef KAVREL_TRANSPORT_API_CALL_H
#define KAVREL_TRANSPORT_API_CALL_H

#include <cstdint>
#include <mutex>
#include <new>

#include "kavrel_direct.h"

namespace kavrel {

std::recursive_mutex &api_mutex();

// Runs body under the API lock. A failed allocation becomes -5, the code of
// every allocation failure; any other exception (none is expected) -1.
template <typename Body>
int32_t api_call(Body &&body) noexcept {
    try {
        std::lock_guard<std::recursive_mutex> lock(api_mutex());
        return body();
    } catch (const std::bad_alloc &) {
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    } catch (...) {
        return KAVREL_DIRECT_ERR_GENERIC;
    }
}

// For the calls that return a count or nothing: on_failure stands in for a
// result when an exception is caught.
template <typename Result, typename Body>
Result api_call_or(Result on_failure, Body &&body) noexcept {
    try {
        std::lock_guard<std::recursive_mutex> lock(api_mutex());
        return body();
    } catch (...) {
        return on_failure;
    }
}

template <typename Body>
void api_call_void(Body &&body) noexcept {
    try {
        std::lock_guard<std::recursive_mutex> lock(api_mutex());
        body();
    } catch (...) {
    }
}

}  // namespace kavrel

#endif
