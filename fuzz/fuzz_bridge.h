// The fuzz targets' bridge: instruments that answer every request with bytes
// the fuzzer chose, cut into chunks that arrive when the fuzzer says, on the
// timing engine in virtual time.
//
// The reply stream is a run of chunks. Each chunk is one control byte, a
// 16-bit big-endian length and that many bytes. The control byte's low seven
// bits d delay the chunk by d * d / 4 ms after the previous one (up to about
// four seconds: past every read limit and quiet time but the spectrum's);
// its top bit ends the reply to the current write. Two lengths are faults
// instead of bytes: kFailRead makes the bridge's next read fail, kShortWrite
// makes the current write report one byte fewer than it was given. When the
// stream runs out the instruments fall silent.
#ifndef KAVREL_FUZZ_FUZZ_BRIDGE_H
#define KAVREL_FUZZ_FUZZ_BRIDGE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>

#include "platform/platform.h"
#include "platform/timing_engine.h"

namespace kavrel::fuzz {

constexpr uint16_t kFailRead = 0xFFFF;
constexpr uint16_t kShortWrite = 0xFFFE;
constexpr uint8_t kEndOfReply = 0x80;

// The fuzzer's bytes, read front to back; past the end every read gives 0.
struct Input {
    const uint8_t *p;
    size_t left;
    uint8_t byte() { return left == 0 ? 0 : (--left, *p++); }
    // A big-endian number of the given number of bytes.
    uint32_t be(int bytes) {
        uint32_t value = 0;
        while (bytes-- > 0) value = value << 8 | byte();
        return value;
    }
    // Up to n bytes; n is cut to what was there.
    const uint8_t *take(size_t &n) {
        n = std::min(n, left);
        left -= n;
        return (p += n) - n;
    }
};

// The delay a chunk's control byte gives it after the previous chunk.
inline double chunk_delay_ms(uint8_t control) {
    const uint32_t d = control & 0x7Fu;
    return d * d / 4.0;
}

// A broken promise of the library: stops the run where the fuzzer sees it.
inline void require(bool promise) {
    if (!promise) __builtin_trap();
}

using platform::Handle;
using platform::kOk;
using platform::Status;

class FuzzBridge {
public:
    // bridges are listed (their serials "FZ0000", "FZ0001", ...); every
    // reply comes from replies. Installs itself as the provider in force;
    // the destructor closes every device and puts the default one back.
    FuzzBridge(int bridges, Input replies);
    ~FuzzBridge();
    FuzzBridge(const FuzzBridge &) = delete;
    FuzzBridge &operator=(const FuzzBridge &) = delete;

    // Schedules the next reply of the stream on bridge index as though a
    // request had been written to it.
    void send_unasked(int index) { schedule(ports_[static_cast<size_t>(index)], nullptr); }

    Status create_device_info_list(uint32_t *count) {
        return *count = static_cast<uint32_t>(ports_.size()), kOk;
    }
    Status get_device_info_list(platform::BridgeEntry *entries, uint32_t *count);
    Status open(int index, Handle *handle);
    Status close(Handle h) { return port(h).open = false, kOk; }
    Status set_timeouts(Handle h, uint32_t read_ms, uint32_t) { return port(h).read_limit_ms = read_ms, kOk; }
    Status set_latency_timer(Handle, uint8_t) { return kOk; }
    Status set_usb_parameters(Handle, uint32_t, uint32_t) { return kOk; }
    Status purge(Handle h, uint32_t mask) {
        if (mask & platform::kPurgeRx) port(h).inbox.purge();
        return kOk;
    }
    Status reset_device(Handle) { return kOk; }
    Status write(Handle h, const void *, uint32_t count, uint32_t *written) {
        *written = count;
        schedule(port(h), written);
        return kOk;
    }
    Status read(Handle handle, void *buffer, uint32_t count, uint32_t *returned);
    double now_ms() { return clock_.now_ms(); }
    void sleep_ms(uint32_t ms) { clock_.sleep_ms(ms); }

private:
    struct Port {
        explicit Port(platform::Clock &clock) : inbox(clock) {}
        platform::Inbox inbox;
        uint32_t read_limit_ms = 5000;
        bool open = false;
        bool fail_next_read = false;
    };
    // A bridge call on a handle that is not open is the library's bug,
    // whatever the instrument sent: it stops the run.
    Port &port(Handle handle) {
        for (Port &p : ports_)
            if (&p == handle && p.open) return p;
        __builtin_trap();
    }
    // Takes the next reply from the stream into p's inbox; a short write
    // lowers *written.
    void schedule(Port &p, uint32_t *written);

    platform::Clock clock_{platform::Clock::Mode::virtual_time};
    std::deque<Port> ports_;
    Input replies_;
    platform::Platform table_;
};

// A count, capacity or length from a 32-bit argument: below bound, or, when
// the top bit is set, anything at all (negative as int32_t).
inline int32_t size_arg(uint32_t v, uint32_t bound) {
    return static_cast<int32_t>((v & 0x80000000u) != 0 ? v : v % bound);
}

inline size_t room(int32_t n) {
    return n > 0 ? static_cast<size_t>(n) : 0;
}

// A caller's output: exactly n elements on the heap, so that a write past
// them is caught, filled with a pattern, so that a failed call can be shown
// to have left them alone.
template <typename T>
struct Output {
    explicit Output(size_t size) : n(size), data(new T[size]) { std::memset(get(), 0xA5, n * sizeof(T)); }
    T *get() const { return data.get(); }
    bool untouched() const {
        const auto *bytes = reinterpret_cast<const uint8_t *>(get());
        return std::all_of(bytes, bytes + n * sizeof(T), [](uint8_t b) { return b == 0xA5; });
    }
    const size_t n;
    const std::unique_ptr<T[]> data;
};

}  // namespace kavrel::fuzz

#endif
