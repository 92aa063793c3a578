// The host's monotonic clock and sleep.
#include "platform/platform.h"

#ifdef _WIN32
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#else
#include <time.h>
#endif

namespace kavrel::platform {

#ifdef _WIN32

double host_now_ms() {
    // The counter frequency is fixed at boot: read it once.
    static const double frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart);
    }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) * 1000.0 / frequency;
}

void host_sleep_ms(uint32_t milliseconds) {
    Sleep(milliseconds);
}

#else

double host_now_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(now.tv_nsec) / 1e6;
}

void host_sleep_ms(uint32_t milliseconds) {
    struct timespec pause;
    pause.tv_sec = static_cast<time_t>(milliseconds / 1000);
    pause.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    // Sleep the whole pause even when a signal interrupts it.
    while (nanosleep(&pause, &pause) != 0) {
    }
}

#endif

}  // namespace kavrel::platform
