// Time limits of the exchanges, in one place.
#ifndef KAVREL_TRANSPORT_TIMING_H
#define KAVREL_TRANSPORT_TIMING_H

#include <cstdint>

#include "platform/platform.h"

namespace kavrel {

// The bridge's read and write limits between exchanges.
constexpr uint32_t kDefaultTimeoutMs = 5000;
// Read limit of a CM2 reply from any register but the spectrum register.
constexpr uint32_t kCm2ReplyTimeoutMs = 200;
// Ceiling of the spectrum time limit.
constexpr uint32_t kSpectrumTimeoutCapMs = 120000;

// How long a spectrum may take to arrive: the integration time rounded up to
// whole milliseconds, times the number of averages (0 counts as 1), plus one
// second for the transfer, at most two minutes. 64-bit so that any 32-bit
// integration time is safe.
inline uint32_t spectrum_time_limit_ms(uint32_t integration_time_us, uint8_t average_number) {
    const uint64_t averages = average_number == 0 ? 1 : average_number;
    const uint64_t limit = (static_cast<uint64_t>(integration_time_us) + 999) / 1000 * averages + 1000;
    return limit < kSpectrumTimeoutCapMs ? static_cast<uint32_t>(limit) : kSpectrumTimeoutCapMs;
}

}  // namespace kavrel

#endif
