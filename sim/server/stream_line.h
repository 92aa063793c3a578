// One simulated instrument on a byte stream, in real time.
//
// What the peer writes goes to the instrument as it comes, with the time it
// came; what the instrument sends waits in a queue until its time and is then
// written to the stream. The instrument persists across connections, like a
// device that stays powered while cables come and go.
#ifndef KAVREL_SIM_SERVER_STREAM_LINE_H
#define KAVREL_SIM_SERVER_STREAM_LINE_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <vector>

#include "sim/instrument.h"

namespace kavrel::sim {

class StreamLine : public LineSink {
public:
    explicit StreamLine(double byte_ms) : byte_ms_(byte_ms) {}

    double byte_ms() const override { return byte_ms_; }
    void emit(std::vector<uint8_t> bytes, double first_ms, double spacing_ms) override;

    // Serves instrument on the stream until the peer closes it (returns
    // true) or it fails or stop is set (false). in and out may be the same
    // descriptor.
    bool serve(Instrument &instrument, int in, int out, const std::atomic<bool> &stop);

private:
    // Writes the bytes whose time has come; false when the stream fails.
    bool write_due(int out);
    // Writes everything queued, each byte at its time.
    void drain(int out, const std::atomic<bool> &stop);

    struct Timed {
        double at_ms;
        uint8_t byte;
    };
    // Replies never overlap on the instrument's line, so the queue is in
    // time order.
    std::deque<Timed> queue_;
    double byte_ms_;
};

}  // namespace kavrel::sim

#endif
