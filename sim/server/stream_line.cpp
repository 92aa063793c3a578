#include "stream_line.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>

#include "platform/platform.h"

namespace kavrel::sim {

void StreamLine::emit(std::vector<uint8_t> bytes, double first_ms, double spacing_ms) {
    for (size_t i = 0; i < bytes.size(); ++i)
        queue_.push_back({first_ms + static_cast<double>(i) * spacing_ms, bytes[i]});
}

void StreamLine::drain(int out, const std::atomic<bool> &stop) {
    while (!queue_.empty() && !stop) {
        const double wait = queue_.front().at_ms - platform::host_now_ms();
        if (wait > 0) platform::host_sleep_ms(static_cast<uint32_t>(std::ceil(wait)));
        if (!write_due(out)) return;
    }
}

bool StreamLine::write_due(int out) {
    const double now = platform::host_now_ms();
    std::vector<uint8_t> due;
    while (!queue_.empty() && queue_.front().at_ms <= now) {
        due.push_back(queue_.front().byte);
        queue_.pop_front();
    }
    for (size_t done = 0; done < due.size();) {
        const ssize_t n = ::write(out, due.data() + done, due.size() - done);
        if (n < 0 && errno != EINTR) return false;
        if (n > 0) done += static_cast<size_t>(n);
    }
    return true;
}

bool StreamLine::serve(Instrument &instrument, int in, int out, const std::atomic<bool> &stop) {
    // Whatever the last peer left unsent is not for this one.
    queue_.clear();
    uint8_t buffer[4096];
    while (!stop) {
        const double now = platform::host_now_ms();
        int timeout = -1;
        if (!queue_.empty()) timeout = static_cast<int>(std::ceil(std::max(0.0, queue_.front().at_ms - now)));
        pollfd wait{in, POLLIN, 0};
        const int ready = ::poll(&wait, 1, timeout);
        if (ready < 0 && errno != EINTR) return false;
        if (ready > 0 && (wait.revents & (POLLIN | POLLHUP | POLLERR))) {
            const ssize_t n = ::read(in, buffer, sizeof buffer);
            if (n == 0) {
                // The peer has said all it will; what it asked is still
                // answered, as far as the stream takes it.
                drain(out, stop);
                return true;
            }
            if (n < 0) {
                if (errno == EINTR || errno == EAGAIN) continue;
                // A pseudo-terminal whose other side is closed reads as an
                // error, not as the end of the stream.
                return errno == EIO;
            }
            instrument.receive(buffer, static_cast<size_t>(n), platform::host_now_ms());
        }
        if (!write_due(out)) return false;
    }
    return false;
}

}  // namespace kavrel::sim
