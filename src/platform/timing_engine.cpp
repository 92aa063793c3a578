#include "platform/timing_engine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include "platform/platform.h"

namespace kavrel::platform {

// Virtual time starts on a whole millisecond: whole and quarter milliseconds
// then add and subtract exactly, so a limit of 120000 ms is exactly 120000 ms
// on this clock, not one rounding step more or less.
Clock::Clock(Mode mode) : mode_(mode), virtual_ms_(std::floor(host_now_ms())) {}

Clock::Mode Clock::mode() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mode_;
}

void Clock::set_mode(Mode mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (mode == mode_) return;
    if (mode == Mode::virtual_time)
        virtual_ms_ = host_now_ms() + offset_ms_;
    else
        offset_ms_ = virtual_ms_ - host_now_ms();
    mode_ = mode;
}

double Clock::now_ms() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mode_ == Mode::virtual_time ? virtual_ms_ : host_now_ms() + offset_ms_;
}

void Clock::sleep_ms(double ms) {
    if (ms <= 0) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (mode_ == Mode::virtual_time) {
            virtual_ms_ += ms;
            return;
        }
    }
    host_sleep_ms(static_cast<uint32_t>(ms + 0.5));
}

void Clock::advance_to(double at_ms) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (mode_ == Mode::virtual_time && at_ms > virtual_ms_) virtual_ms_ = at_ms;
}

void Inbox::deliver(const uint8_t *bytes, size_t count, double at_ms) {
    if (count == 0) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto place = std::upper_bound(queue_.begin(), queue_.end(), at_ms,
                                      [](double t, const Arrival &a) { return t < a.at_ms; });
        queue_.insert(place, Arrival{at_ms, std::vector<uint8_t>(bytes, bytes + count)});
    }
    changed_.notify_all();
}

size_t Inbox::arrived_locked(double now) const {
    size_t n = 0;
    for (const Arrival &a : queue_) {
        if (a.at_ms > now) break;
        n += a.bytes.size();
    }
    return n;
}

size_t Inbox::read(uint8_t *out, size_t count, double limit_ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    const double deadline = clock_.now_ms() + std::max(limit_ms, 0.0);
    const uint64_t interrupts = interrupts_;
    size_t got = 0;
    for (;;) {
        const double now = clock_.now_ms();
        while (got < count && !queue_.empty() && queue_.front().at_ms <= now) {
            std::vector<uint8_t> &front = queue_.front().bytes;
            const size_t take = std::min(count - got, front.size());
            std::memcpy(out + got, front.data(), take);
            got += take;
            front.erase(front.begin(), front.begin() + static_cast<std::ptrdiff_t>(take));
            if (front.empty()) queue_.pop_front();
        }
        if (got >= count || now >= deadline || interrupts_ != interrupts) break;
        // Wait for the next arrival or the deadline, whichever is first.
        double until = deadline;
        if (!queue_.empty()) until = std::min(until, queue_.front().at_ms);
        if (clock_.mode() == Clock::Mode::virtual_time) {
            clock_.advance_to(until);
            continue;
        }
        // Real time: a delivery or an interrupt wakes the wait early.
        changed_.wait_for(lock, std::chrono::duration<double, std::milli>(until - now));
    }
    return got;
}

void Inbox::purge() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const double now = clock_.now_ms();
        while (!queue_.empty() && queue_.front().at_ms <= now) queue_.pop_front();
    }
    changed_.notify_all();
}

void Inbox::clear() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.clear();
    }
    changed_.notify_all();
}

size_t Inbox::arrived() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return arrived_locked(clock_.now_ms());
}

size_t Inbox::in_flight() const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t total = 0;
    for (const Arrival &a : queue_) total += a.bytes.size();
    return total - arrived_locked(clock_.now_ms());
}

void Inbox::interrupt() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++interrupts_;
    }
    changed_.notify_all();
}

}  // namespace kavrel::platform
