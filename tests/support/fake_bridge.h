// A fake USB bridge with scripted instruments and a virtual clock.
//
// Each attached bridge plays a script: every write the library makes takes
// the next step, is compared with the bytes the step expects (a mismatch
// fails the test with both sides dumped in hex), and schedules the step's
// reply chunks on the virtual clock. A read with a time limit blocks, in
// virtual time, until enough bytes have arrived or the limit passes; sleeps
// advance the clock at once. Every bridge call is recorded with its
// arguments and the virtual time it began at, so tests assert the exact
// traffic, its order, the limits set and the time an exchange took, and a
// two-minute time limit runs in microseconds.
#ifndef KAVREL_TESTS_FAKE_BRIDGE_H
#define KAVREL_TESTS_FAKE_BRIDGE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace kavrel::test {

using Bytes = std::vector<uint8_t>;

std::string hex(const Bytes &bytes);

struct BridgeCall {
    std::string name;  // "open", "close", "set_timeouts", "purge", "write", "read", "sleep", ...
    int device = -1;   // index of the bridge, -1 for listing and sleeps
    double at_ms = 0;  // virtual time the call began
    uint32_t a = 0;    // first numeric argument (read limit, mask, count asked, ms)
    uint32_t b = 0;    // second numeric argument (write limit, ...)
    Bytes bytes;       // bytes written, or bytes a read returned
};

struct Chunk {
    Bytes bytes;
    double delay_ms = 0;  // after the write, or after the previous chunk
};

struct Step {
    std::optional<Bytes> expect;      // bytes the write must carry; none: any
    std::vector<Chunk> reply;         // what the instrument sends back
    uint32_t write_status = 0;        // status the write returns
    std::optional<uint32_t> written;  // count the write reports; none: all
};

struct FakeInstrument {
    std::string serial;
    std::string description = "Fake Spectrometer";
    std::deque<Step> script;
    // Answers writes once the script is used up; none: silence.
    std::function<std::vector<Chunk>(const Bytes &)> responder;
    // Fail the read made after this many successful reads (-1: never).
    int fail_read_after = -1;

    // Bookkeeping of the fake itself.
    bool open = false;
    uint32_t read_limit_ms = 5000;
    uint32_t write_limit_ms = 5000;
    struct Arrival {
        double at;
        Bytes bytes;
    };
    std::deque<Arrival> incoming;
    int reads_done = 0;
};

class FakeBridge {
public:
    FakeBridge();
    ~FakeBridge();
    FakeBridge(const FakeBridge &) = delete;
    FakeBridge &operator=(const FakeBridge &) = delete;

    // Attaches a bridge; returns its list position.
    int attach(const std::string &serial);
    FakeInstrument &instrument(int index) { return instruments_[static_cast<size_t>(index)]; }

    // Scripting shorthands on bridge index.
    FakeBridge &expect(int index, const Bytes &request, std::vector<Chunk> reply = {});
    FakeBridge &reply_any(int index, std::vector<Chunk> reply);

    double now() const { return now_ms_; }
    void advance(double ms) { now_ms_ += ms; }

    std::vector<BridgeCall> calls;
    // The calls of one name, in order.
    std::vector<BridgeCall> calls_named(const std::string &name) const;
    // Concatenation of every write's bytes.
    Bytes written() const;
    void clear_calls() { calls.clear(); }
    // Steps still waiting in the scripts: a test that ends with some left
    // expected traffic that never came.
    size_t unplayed_steps() const;

    uint32_t create_status = 0;
    uint32_t get_status = 0;
    uint32_t open_status = 0;

    const platform::Platform &platform() const { return platform_; }

    // The bridge installed as the library's platform, for the C callbacks.
    static FakeBridge *active;

    // Provider calls.
    platform::Status create_list(uint32_t *count);
    platform::Status get_list(platform::BridgeEntry *entries, uint32_t *count);
    platform::Status open(int index, platform::Handle *handle);
    platform::Status close(platform::Handle handle);
    platform::Status set_timeouts(platform::Handle handle, uint32_t read_ms, uint32_t write_ms);
    platform::Status simple(const char *name, platform::Handle handle, uint32_t a, uint32_t b);
    platform::Status purge(platform::Handle handle, uint32_t mask);
    platform::Status write(platform::Handle handle, const void *bytes, uint32_t count, uint32_t *written);
    platform::Status read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned);
    void sleep(uint32_t ms);

private:
    int index_of(platform::Handle handle) const;
    void schedule(FakeInstrument &device, const std::vector<Chunk> &reply);

    std::deque<FakeInstrument> instruments_;
    double now_ms_ = 1000.0;
    platform::Platform platform_{};
};

// Reply and request builders.
Bytes nir_frame(const Bytes &command);                   // command + CRC-16
Bytes nir_reply(const Bytes &data, uint8_t ack = 0x06);  // ack + data + CRC-16
Bytes cm2_query_bytes(uint8_t reg, uint32_t address, uint16_t words);
Bytes cm2_write_bytes(uint8_t reg, uint32_t address, const Bytes &data);
// A CM2 reply as an instrument sends it: SRV E0 (data) or EA (no data).
Bytes cm2_reply(uint8_t reg, uint32_t address, const Bytes &data, uint8_t reply_code = 0xAC);
// Whole chunk, arriving at once.
inline std::vector<Chunk> at_once(const Bytes &bytes) {
    return {Chunk{bytes, 0}};
}

}  // namespace kavrel::test

#endif
