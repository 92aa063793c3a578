// Time and bytes in flight: the engine under every provider that stands in
// for an instrument (the simulated instruments, the tests' scripted bridge).
//
// A Clock runs in real time (the host's monotonic clock; waits really wait)
// or in virtual time (waits move the clock forward at once, so a two-minute
// time limit passes in microseconds). An Inbox holds the bytes an instrument
// has sent towards the host, each with the time it reaches the bridge's
// receive buffer, and serves reads with the bridge's semantics: a read
// returns as soon as the count asked for has arrived, else when its limit
// passes with whatever arrived, possibly nothing.
//
// Both are safe to use from several threads: a fault may be scheduled while
// another thread waits in a read.
#ifndef KAVREL_PLATFORM_TIMING_ENGINE_H
#define KAVREL_PLATFORM_TIMING_ENGINE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace kavrel::platform {

class Clock {
public:
    enum class Mode { real, virtual_time };

    explicit Clock(Mode mode = Mode::real);
    Clock(const Clock &) = delete;
    Clock &operator=(const Clock &) = delete;

    Mode mode() const;
    // Switching keeps the reading continuous: virtual time goes on from the
    // host's reading at the switch, and real time from the virtual reading.
    void set_mode(Mode mode);

    double now_ms() const;
    // Real time: sleeps. Virtual time: moves the clock forward by ms.
    void sleep_ms(double ms);
    // Virtual time: moves the clock forward to at_ms (never back).
    // Real time: nothing.
    void advance_to(double at_ms);

private:
    mutable std::mutex mutex_;
    Mode mode_;
    double offset_ms_ = 0;   // real: added to the host reading
    double virtual_ms_ = 0;  // virtual: the reading
};

class Inbox {
public:
    explicit Inbox(Clock &clock) : clock_(clock) {}
    Inbox(const Inbox &) = delete;
    Inbox &operator=(const Inbox &) = delete;

    Clock &clock() const { return clock_; }

    // The bytes reach the receive buffer at at_ms (the past counts as now).
    // Deliveries keep their order of arrival time; equal times keep the
    // order they were scheduled in.
    void deliver(const uint8_t *bytes, size_t count, double at_ms);
    void deliver(const std::vector<uint8_t> &bytes, double at_ms) { deliver(bytes.data(), bytes.size(), at_ms); }

    // Places up to count bytes in out; returns how many. Returns as soon as
    // count bytes have arrived, else when limit_ms have passed (0: at once),
    // or when interrupt() is called.
    size_t read(uint8_t *out, size_t count, double limit_ms);

    // Drops what has arrived by now; bytes still on their way arrive later.
    void purge();
    // Drops everything, in flight too (an unplugged bridge, a reset world).
    void clear();
    // Bytes that have arrived and wait to be read.
    size_t arrived() const;
    // Bytes scheduled to arrive later.
    size_t in_flight() const;
    // Ends every read waiting now, with what it has.
    void interrupt();

private:
    struct Arrival {
        double at_ms;
        std::vector<uint8_t> bytes;
    };
    size_t arrived_locked(double now) const;

    Clock &clock_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Arrival> queue_;  // ordered by at_ms
    uint64_t interrupts_ = 0;
};

}  // namespace kavrel::platform

#endif
