// The frame around every exported call: no C++ exception crosses the C
// boundary, and a call made from inside another call of the library on the
// same thread (a provider calling back in) is refused with -1.
#ifndef KAVREL_TRANSPORT_API_CALL_H
#define KAVREL_TRANSPORT_API_CALL_H

#include <cstdint>
#include <new>

#include "kavrel_direct.h"
#include "transport/device_table.h"

namespace kavrel {

// Marks the running thread as inside the library for the life of the scope.
class CallScope {
public:
    CallScope();
    ~CallScope();
    CallScope(const CallScope &) = delete;
    CallScope &operator=(const CallScope &) = delete;
};

// Runs body. A failed allocation becomes -5, the code of every allocation
// failure; any other exception (none is expected) -1. The body takes the
// locks it needs.
template <typename Body>
int32_t api_call(Body &&body) noexcept {
    if (in_library_call()) return KAVREL_DIRECT_ERR_GENERIC;
    try {
        CallScope scope;
        return body();
    } catch (const std::bad_alloc &) {
        return KAVREL_DIRECT_ERR_INVALID_ARG;
    } catch (...) {
        return KAVREL_DIRECT_ERR_GENERIC;
    }
}

// For the calls that return a count or nothing: on_failure stands in for a
// result when an exception is caught or the call is refused.
template <typename Result, typename Body>
Result api_call_or(Result on_failure, Body &&body) noexcept {
    if (in_library_call()) return on_failure;
    try {
        CallScope scope;
        return body();
    } catch (...) {
        return on_failure;
    }
}

template <typename Body>
void api_call_void(Body &&body) noexcept {
    api_call_or(0, [&] {
        body();
        return 0;
    });
}

// Runs body under the table lock alone: for the queries that touch no
// instrument and must answer while another thread waits in an exchange.
template <typename Body>
int32_t table_call(Body &&body) noexcept {
    try {
        std::lock_guard<std::mutex> lock(table_mutex());
        return body();
    } catch (...) {
        return KAVREL_DIRECT_ERR_GENERIC;
    }
}

}  // namespace kavrel

#endif
