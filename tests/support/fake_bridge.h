// A fake USB bridge with scripted instruments, on the library's timing
// engine in virtual time: each write takes the next step of its bridge's
// script, is compared with the bytes the step expects (a mismatch fails the
// test, both sides in hex) and schedules the step's reply; reads, purges and
// the clock are the engine's, so a two-minute limit passes in microseconds.
// Every call is recorded (trace()). Requests and replies come from an
// encoder of the tests' own, so a fault in the library's codec cannot hide
// on both sides. Also: a model spectrometer answering from its wavelength
// table, and the fixture of the device tests.
#ifndef KAVREL_TESTS_FAKE_BRIDGE_H
#define KAVREL_TESTS_FAKE_BRIDGE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "kavrel_direct.h"
#include "platform/platform.h"
#include "platform/timing_engine.h"
#include "protocol/byte_order.h"
#include "transport/device_table.h"

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

// What fn prints on standard output.
template <typename Fn>
std::string printed(Fn &&fn) {
    ::testing::internal::CaptureStdout();
    fn();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
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
    // Answers writes once the script is used up; none: a write then fails the test.
    std::function<std::vector<Chunk>(const Bytes &)> responder;
    int fail_read_after = -1;  // the read after this many fails (-1: never)
    uint32_t read_limit_ms = 5000;
    std::unique_ptr<platform::Inbox> inbox;
};

class FakeBridge {
public:
    FakeBridge();  // installs itself as the provider in force
    ~FakeBridge() { use_provider(nullptr); }

    int attach(const std::string &serial);  // a bridge; returns its list position
    FakeInstrument &instrument(int index) { return instruments_[static_cast<size_t>(index)]; }
    // Scripts the next write of bridge index: the bytes it must carry (none: any), the reply.
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
    size_t unplayed_steps() const {  // traffic that was expected and never came
        size_t n = 0;
        for (const auto &device : instruments_) n += device.script.size();
        return n;
    }

    uint32_t create_status = 0, get_status = 0, open_status = 0;
    // A driver that misbehaves: runs inside listing, writes and reads before
    // they act (to throw, or to call the library back); a read that fills
    // its count reports overstate bytes more.
    std::function<void()> during = [] {};
    uint32_t overstate = 0;

    // The provider's calls, filled into the table by name.
    platform::Status create_device_info_list(uint32_t *count) {
        during();
        record("list");
        *count = create_status == 0 ? static_cast<uint32_t>(instruments_.size()) : 0;
        return create_status;
    }
    platform::Status get_device_info_list(platform::BridgeEntry *entries, uint32_t *count);
    platform::Status open(int index, platform::Handle *handle) {
        record(str("open", index));
        if (open_status == 0) *handle = &instrument(index);
        return open_status;
    }
    platform::Status close(platform::Handle h) { return record(str("close", index_of(h))), 0; }
    platform::Status set_timeouts(platform::Handle h, uint32_t read_ms, uint32_t write_ms) {
        record(str("timeouts", read_ms, write_ms));
        instrument(index_of(h)).read_limit_ms = read_ms;
        return 0;
    }
    platform::Status set_latency_timer(platform::Handle, uint8_t ms) { return record(str("latency", ms)), 0; }
    platform::Status set_usb_parameters(platform::Handle, uint32_t in, uint32_t out) {
        return record(str("usb", in, out)), 0;
    }
    platform::Status purge(platform::Handle h, uint32_t mask) {
        record(str("purge", mask));
        if (mask & platform::kPurgeRx) instrument(index_of(h)).inbox->purge();
        return 0;
    }
    platform::Status reset_device(platform::Handle) { return record("reset"), 0; }
    platform::Status write(platform::Handle h, const void *bytes, uint32_t count, uint32_t *written);
    platform::Status read(platform::Handle h, void *buffer, uint32_t count, uint32_t *returned);
    double now_ms() { return clock_.now_ms(); }
    void sleep_ms(uint32_t ms) { record(str("sleep", ms)), clock_.sleep_ms(ms); }

private:
    int index_of(platform::Handle handle) const;
    void record(std::string call) {
        std::lock_guard<std::mutex> lock(mutex_);
        calls.push_back(std::move(call));
    }

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
// A reflected CRC, bit by bit: CRC-32 with 0xEDB88320, CRC-16 with 0xA001.
uint32_t crc_bitwise(uint32_t reg, uint32_t polynomial, const uint8_t *bytes, size_t length);
// NIR frames: command + CRC-16; a reply is ack + data + CRC-16.
Bytes nir_frame(const Bytes &command);
Bytes nir_reply(const Bytes &data, uint8_t ack = 0x06);
const auto at_once = [](const Bytes &bytes) { return std::vector<Chunk>{Chunk{bytes, 0}}; };

// Values as the instruments send them, most significant byte first (big)
// or last: samples and calibration coefficients big-endian, wavelength
// entries (floats) little-endian, as every host the tests run on.
template <typename T>
Bytes encode(const std::vector<T> &values, bool big = true) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(values.data());
    Bytes out(bytes, bytes + sizeof(T) * values.size());
    for (size_t i = 0; big && i < out.size(); i += sizeof(T)) std::reverse(&out[i], &out[i] + sizeof(T));
    return out;
}
const auto le_floats = [](const std::vector<float> &values) { return encode(values, false); };
const auto be_samples = [](const std::vector<uint16_t> &values) { return encode(values); };

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A model spectrometer. CM2: every write is acknowledged; queries of the
// point count and the table are served from the model, any other query gets
// the words asked for, all 0xAA (so a command block's status reads back
// done). NIR: the table, a spectrum of as many samples, and 40 bytes of
// 0xAA for any other command.
struct SpectralModel {
    std::vector<float> table;

    Bytes answer(const Bytes &request, bool nir) const {
        if (nir) {
            const bool table_query = request[0] == 0x3F && request[1] == 0x53, spectrum = request[0] == 0x53;
            return nir_reply(table_query ? le_floats(table) : Bytes(spectrum ? 2 * table.size() : 40, 0xAA));
        }
        const uint8_t reg = request[21];
        const uint32_t address = static_cast<uint32_t>(request[22] << 16) | load_be16(&request[23]);
        if (request[13] != 0x0D) return cm2_reply(reg, address, {});
        const size_t words = load_be16(&request[15]);
        Bytes data(4 * words, 0xAA);
        if (reg == 0xC2 && address == 0x0B) {
            data = {0, 0, static_cast<uint8_t>(table.size() >> 8), static_cast<uint8_t>(table.size())};
        } else if (reg == 0xC5) {
            const auto first = table.begin() + std::min<long>(address, static_cast<long>(table.size()));
            data = le_floats({first, first + std::min<long>(static_cast<long>(words), table.end() - first)});
        }
        return cm2_reply(reg, address, data);
    }
    // Makes bridge device answer as this model, in the given protocol.
    void serve(FakeBridge &bridge, int device, bool nir) const {
        bridge.instrument(device).responder = [=](const Bytes &w) { return at_once(answer(w, nir)); };
    }
};

// Results and protocols, short for the tables.
constexpr int32_t OK = KAVREL_DIRECT_OK, IO = KAVREL_DIRECT_ERR_IO, ARG = KAVREL_DIRECT_ERR_INVALID_ARG,
                  TIMEOUT = KAVREL_DIRECT_ERR_TIMEOUT, CRC = KAVREL_DIRECT_ERR_CRC;
constexpr bool CM2 = false, NIR = true;

const auto active = []() -> device_slot & { return g_devices[g_active_index]; };

// A test fixture with a fake bridge installed and a clean device table.
class DeviceTest : public ::testing::Test {
protected:
    FakeBridge bridge;

    void SetUp() override {
        ASSERT_EQ(kavrel_direct_get_open_device_count(), 0) << "a previous test left a device open";
    }

    void TearDown() override {
        operation.reset();
        EXPECT_EQ(bridge.unplayed_steps(), 0u) << "scripted traffic that never happened";
        kavrel_direct_close_all_devices();
        kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO);
    }

    // Attaches a bridge and opens it with the protocol forced, so no probe
    // traffic is scripted; the recorded calls start empty afterwards.
    int open_with(uint32_t protocol, const std::string &serial) {
        const int index = bridge.attach(serial);
        kavrel_direct_set_protocol_preference(static_cast<int32_t>(protocol));
        EXPECT_EQ(kavrel_direct_open_device(index), KAVREL_DIRECT_OK);
        kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO);
        bridge.calls.clear();
        return index;
    }
    int open_cm2(const std::string &sn = "CM2A0001") { return open_with(KAVREL_DIRECT_PROTOCOL_CM2, sn); }
    int open_nir(const std::string &sn = "NIRA0001") { return open_with(KAVREL_DIRECT_PROTOCOL_NIR, sn); }

    // Internal calls the test makes itself (the exchanges) work on the slot
    // bound here, as they do inside an exported operation.
    std::optional<OperationScope> operation;
    void bind_active() { operation.emplace(active()); }
};

}  // namespace kavrel::test

#endif
