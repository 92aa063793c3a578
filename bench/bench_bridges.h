// Providers the benchmarks drive the library through, and a session that
// installs one and opens its instruments.
#ifndef KAVREL_BENCH_BRIDGES_H
#define KAVREL_BENCH_BRIDGES_H

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/platform.h"
#include "platform/timing_engine.h"

namespace kavrel::bench {

// CM2 instruments that answer at once: a reply is whole in the receive
// buffer as soon as its request has been written, and reads hand it over
// without waiting. A reply is built once per distinct request and then
// served again, so a benchmark loop measures the library's CPU per exchange
// plus one copy out of the "driver", as a real driver makes. The instruments
// are alike and share their replies: with a buffer of its own per instrument
// the stand-in driver's copies would miss the cache more with four
// instruments than with one, a cost that is not the library's.
//
// The instruments have 2048 points; the spectrum and the wavelength table
// are the largest replies (4128 and 8224 bytes), every other query is
// answered with zeros and every write is acknowledged.
class ZeroLatencyCm2 {
public:
    explicit ZeroLatencyCm2(int instruments);
    ZeroLatencyCm2(const ZeroLatencyCm2 &) = delete;
    ZeroLatencyCm2 &operator=(const ZeroLatencyCm2 &) = delete;
    const platform::Platform &table() const { return table_; }

    platform::Status create_device_info_list(uint32_t *count);
    platform::Status get_device_info_list(platform::BridgeEntry *entries, uint32_t *count);
    platform::Status open(int index, platform::Handle *handle);
    platform::Status close(platform::Handle) { return platform::kOk; }
    platform::Status set_timeouts(platform::Handle, uint32_t, uint32_t) { return platform::kOk; }
    platform::Status set_latency_timer(platform::Handle, uint8_t) { return platform::kOk; }
    platform::Status set_usb_parameters(platform::Handle, uint32_t, uint32_t) { return platform::kOk; }
    platform::Status purge(platform::Handle handle, uint32_t mask);
    platform::Status reset_device(platform::Handle) { return platform::kOk; }
    platform::Status write(platform::Handle handle, const void *bytes, uint32_t count, uint32_t *written);
    platform::Status read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned);
    double now_ms() { return platform::host_now_ms(); }
    void sleep_ms(uint32_t ms) { platform::host_sleep_ms(ms); }

private:
    struct Answer {
        std::vector<uint8_t> request;
        std::vector<uint8_t> reply;
    };
    struct Instrument {
        const Answer *last = nullptr;  // to the last request written
        size_t unread = 0;             // bytes of its reply not yet read, from the end
    };
    const Answer &answer_to(const Instrument &instrument, const uint8_t *request, uint32_t count);

    std::vector<std::unique_ptr<Answer>> answers_;
    std::vector<Instrument> instruments_;
    platform::Platform table_;
};

// One NIR instrument on the real clock that answers every command at once
// with an acknowledge, four data bytes and the CRC-16. Reads keep the
// bridge's habit: one asking for more than has arrived waits out its whole
// time limit.
class RealClockNir {
public:
    RealClockNir();
    RealClockNir(const RealClockNir &) = delete;
    RealClockNir &operator=(const RealClockNir &) = delete;
    const platform::Platform &table() const { return table_; }

    platform::Status create_device_info_list(uint32_t *count);
    platform::Status get_device_info_list(platform::BridgeEntry *entries, uint32_t *count);
    platform::Status open(int index, platform::Handle *handle);
    platform::Status close(platform::Handle) { return platform::kOk; }
    platform::Status set_timeouts(platform::Handle, uint32_t read_ms, uint32_t);
    platform::Status set_latency_timer(platform::Handle, uint8_t) { return platform::kOk; }
    platform::Status set_usb_parameters(platform::Handle, uint32_t, uint32_t) { return platform::kOk; }
    platform::Status purge(platform::Handle, uint32_t mask);
    platform::Status reset_device(platform::Handle) { return platform::kOk; }
    platform::Status write(platform::Handle, const void *bytes, uint32_t count, uint32_t *written);
    platform::Status read(platform::Handle, void *buffer, uint32_t count, uint32_t *returned);
    double now_ms() { return clock_.now_ms(); }
    void sleep_ms(uint32_t ms) { clock_.sleep_ms(ms); }

private:
    platform::Clock clock_;
    platform::Inbox inbox_;
    uint32_t read_limit_ms_ = 5000;
    platform::Platform table_;
};

// Installs a provider, opens its first `instruments` instruments with the
// given protocol preference, and closes them all and restores the build's
// default provider when it ends. ok() is false when an open failed.
class Session {
public:
    Session(const platform::Platform &provider, int instruments, int32_t protocol_preference);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    bool ok() const { return ok_; }

private:
    bool ok_ = true;
};

}  // namespace kavrel::bench

#endif
