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

bool StreamLine::serve(Instrument &instrument, int in, int out, const std::atomic<bool> &stop) {
    // Whatever the last peer left unsent is not for this one.
    queue_.clear();
    std::vector<uint8_t> due;
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
            if (n == 0) return true;
            if (n < 0) {
                if (errno == EINTR || errno == EAGAIN) continue;
                // A pseudo-terminal whose other side is closed reads as an
                // error, not as the end of the stream.
                return errno == EIO;
            }
            instrument.receive(buffer, static_cast<size_t>(n), platform::host_now_ms());
        }
        const double sent_by = platform::host_now_ms();
        due.clear();
        while (!queue_.empty() && queue_.front().at_ms <= sent_by) {
            due.push_back(queue_.front().byte);
            queue_.pop_front();
        }
        for (size_t done = 0; done < due.size();) {
            const ssize_t n = ::write(out, due.data() + done, due.size() - done);
            if (n < 0 && errno != EINTR) return false;
            if (n > 0) done += static_cast<size_t>(n);
        }
    }
    return false;
}

}  // namespace kavrel::sim
