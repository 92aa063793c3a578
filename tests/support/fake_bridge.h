// A fake USB bridge with scripted instruments, on the library's timing
// engine in virtual time.
//
// Each attached bridge plays a script: every write takes the next step, is
// compared with the bytes the step expects (a mismatch fails the test with
// both sides in hex) and schedules the step's reply in the bridge's inbox.
// Reads, purges and the clock are the engine's, so a two-minute time limit
// passes in microseconds. Every bridge call is recorded, so a test states
// the traffic as one line (trace()).
//
// Requests and replies are built by an encoder of the tests' own, CRCs
// included, so a fault in the library's codec cannot hide on both sides.
#ifndef KAVREL_TESTS_FAKE_BRIDGE_H
#define KAVREL_TESTS_FAKE_BRIDGE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/timing_engine.h"

namespace kavrel::test {

using Bytes = std::vector<uint8_t>;
std::string hex(const Bytes &bytes);
// Values in one line, apart by spaces; bytes as numbers.
template <typename... T>
std::string str(const T &...values) {
    std::ostringstream s;
    ((s << (s.tellp() > 0 ? " " : "") << +values), ...);
    return s.str();
}

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
    // Answers writes once the script is used up; none: a write then fails
    // the test.
    std::function<std::vector<Chunk>(const Bytes &)> responder;
    int fail_read_after = -1;  // the read after this many fails (-1: never)
    uint32_t read_limit_ms = 5000;
    std::unique_ptr<platform::Inbox> inbox;
};

class FakeBridge {
public:
    FakeBridge();  // installs itself as the provider in force
    ~FakeBridge();

    // Attaches a bridge; returns its list position.
    int attach(const std::string &serial);
    FakeInstrument &instrument(int index) { return instruments_[static_cast<size_t>(index)]; }
    // Scripts the next write of bridge index: the bytes it must carry (or
    // any), and the reply.
    void expect(int index, std::optional<Bytes> request, std::vector<Chunk> reply = {}) {
        instrument(index).script.push_back(Step{std::move(request), std::move(reply), 0, std::nullopt});
    }
    void reply_any(int index, std::vector<Chunk> reply) { expect(index, std::nullopt, std::move(reply)); }

    // Each bridge call with its arguments: "purge 3", "write 32", "timeouts
    // 200 5000", "read 28:28" (the count asked and the count returned).
    std::vector<std::string> calls;
    // The calls in one line; a call or a pair of calls repeated in a row
    // shows once, with " xN".
    std::string trace() const;
    size_t unplayed_steps() const;  // traffic that was expected and never came

    uint32_t create_status = 0, get_status = 0, open_status = 0;
    // A driver that misbehaves: runs inside listing, writes and reads before
    // they act (to throw, or to call the library back); a read that fills
    // its count reports overstate bytes more.
    std::function<void()> during = [] {};
    uint32_t overstate = 0;

    // The provider's calls, filled into the table by name.
    platform::Status create_device_info_list(uint32_t *count);
    platform::Status get_device_info_list(platform::BridgeEntry *entries, uint32_t *count);
    platform::Status open(int index, platform::Handle *handle);
    platform::Status close(platform::Handle h) { return record(str("close", index_of(h))), 0; }
    platform::Status set_timeouts(platform::Handle h, uint32_t read_ms, uint32_t write_ms);
    platform::Status set_latency_timer(platform::Handle, uint8_t ms) { return record(str("latency", ms)), 0; }
    platform::Status set_usb_parameters(platform::Handle, uint32_t in, uint32_t out) {
        return record(str("usb", in, out)), 0;
    }
    platform::Status purge(platform::Handle h, uint32_t mask);
    platform::Status reset_device(platform::Handle) { return record("reset"), 0; }
    platform::Status write(platform::Handle h, const void *bytes, uint32_t count, uint32_t *written);
    platform::Status read(platform::Handle h, void *buffer, uint32_t count, uint32_t *returned);
    double now_ms() { return clock_.now_ms(); }
    void sleep_ms(uint32_t ms) { record(str("sleep", ms)), clock_.sleep_ms(ms); }

private:
    int index_of(platform::Handle handle) const;
    void record(std::string call);

    platform::Clock clock_{platform::Clock::Mode::virtual_time};
    std::deque<FakeInstrument> instruments_;
    platform::Platform table_{};
    // With KAVREL_TEST_WRAPPED_PROVIDER set, a forwarding wrapper stands in
    // front of the fake: a wrapper must change nothing.
    std::unique_ptr<platform::Forwarder> wrapper_;
    platform::Platform wrapped_{};
    std::mutex mutex_;  // the calls, for tests with several threads
};

// CM2 packets: a query of words, a write of data (padded to whole words),
// and a reply as an instrument sends it (service E0 with data, EA without).
Bytes cm2_query_bytes(uint8_t reg, uint32_t address, uint16_t words);
Bytes cm2_write_bytes(uint8_t reg, uint32_t address, const Bytes &data);
Bytes cm2_reply(uint8_t reg, uint32_t address, const Bytes &data, uint8_t reply_code = 0xAC);
// NIR frames: command + CRC-16; a reply is ack + data + CRC-16.
Bytes nir_frame(const Bytes &command);
Bytes nir_reply(const Bytes &data, uint8_t ack = 0x06);
// The whole reply, arriving at once.
inline std::vector<Chunk> at_once(const Bytes &bytes) {
    return {Chunk{bytes, 0}};
}

}  // namespace kavrel::test

#endif
