#include "usb_line.h"

#include <algorithm>
#include <cmath>

namespace kavrel::sim {
namespace {

// Full speed: a 3 Mbaud UART, ten bits a byte; 1 ms USB frames.
constexpr double kFullSpeedByteMs = 10.0 / 3000.0;
constexpr double kFullSpeedFrameMs = 1.0;
constexpr size_t kFullSpeedPayload = 62;
// High speed: about 2.6 MB/s through the chip; 125 us microframes.
constexpr double kHighSpeedByteMs = 1.0 / 2600.0;
constexpr double kHighSpeedFrameMs = 0.125;
constexpr size_t kHighSpeedPayload = 510;

}  // namespace

UsbLine::UsbLine(platform::Inbox &inbox, uint32_t bridge_speed)
    : inbox_(inbox),
      payload_(bridge_speed == KAVREL_SIM_HIGH_SPEED ? kHighSpeedPayload : kFullSpeedPayload),
      byte_ms_(bridge_speed == KAVREL_SIM_HIGH_SPEED ? kHighSpeedByteMs : kFullSpeedByteMs),
      frame_ms_(bridge_speed == KAVREL_SIM_HIGH_SPEED ? kHighSpeedFrameMs : kFullSpeedFrameMs) {}

double UsbLine::host_to_instrument_ms(size_t count) const {
    return frame_ms_ / 2 + static_cast<double>(count) * byte_ms_;
}

void UsbLine::emit(std::vector<uint8_t> bytes, double first_ms, double spacing_ms) {
    const size_t n = bytes.size();
    auto arrives = [&](size_t i) { return first_ms + static_cast<double>(i) * spacing_ms; };
    size_t k = 0;
    while (k < n) {
        // The next expiry of the latency timer after byte k came in.
        const double tick = (std::floor(arrives(k) / latency_ms_) + 1) * latency_ms_;
        size_t end;  // one past the last byte of this packet
        double at;
        if (k + payload_ <= n && arrives(k + payload_ - 1) <= tick) {
            end = k + payload_;
            at = arrives(end - 1);
        } else {
            const double by_tick = spacing_ms > 0 ? std::floor((tick - first_ms) / spacing_ms) : double(n);
            end = std::min({n, k + payload_, static_cast<size_t>(std::max(by_tick, double(k))) + 1});
            at = tick;
        }
        inbox_.deliver(bytes.data() + k, end - k, at);
        k = end;
    }
}

}  // namespace kavrel::sim
