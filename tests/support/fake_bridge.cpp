#include "support/fake_bridge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol/byte_order.h"
#include "protocol/cm2_codec.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"

namespace kavrel::test {

std::string hex(const Bytes &bytes) {
    std::string out;
    char group[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(group, sizeof group, "%s%02X", i == 0 ? "" : " ", bytes[i]);
        out += group;
    }
    return out;
}

// A wrapper that forwards every call and counts the bridge calls (the clock
// is not a bridge call).
struct FakeBridge::Counter : platform::Forwarder {
    using Forwarder::Forwarder;
    size_t forwarded = 0;
    platform::Status create_device_info_list(uint32_t *n) { ++forwarded; return Forwarder::create_device_info_list(n); }
    platform::Status get_device_info_list(platform::BridgeEntry *e, uint32_t *n) {
        ++forwarded;
        return Forwarder::get_device_info_list(e, n);
    }
    platform::Status open(int i, platform::Handle *h) { ++forwarded; return Forwarder::open(i, h); }
    platform::Status close(platform::Handle h) { ++forwarded; return Forwarder::close(h); }
    platform::Status set_timeouts(platform::Handle h, uint32_t r, uint32_t w) {
        ++forwarded;
        return Forwarder::set_timeouts(h, r, w);
    }
    platform::Status set_latency_timer(platform::Handle h, uint8_t ms) {
        ++forwarded;
        return Forwarder::set_latency_timer(h, ms);
    }
    platform::Status set_usb_parameters(platform::Handle h, uint32_t i, uint32_t o) {
        ++forwarded;
        return Forwarder::set_usb_parameters(h, i, o);
    }
    platform::Status purge(platform::Handle h, uint32_t m) { ++forwarded; return Forwarder::purge(h, m); }
    platform::Status reset_device(platform::Handle h) { ++forwarded; return Forwarder::reset_device(h); }
    platform::Status write(platform::Handle h, const void *b, uint32_t n, uint32_t *w) {
        ++forwarded;
        return Forwarder::write(h, b, n, w);
    }
    platform::Status read(platform::Handle h, void *b, uint32_t n, uint32_t *r) {
        ++forwarded;
        return Forwarder::read(h, b, n, r);
    }
    void sleep_ms(uint32_t ms) {
        ++forwarded;
        Forwarder::sleep_ms(ms);
    }
};

FakeBridge::FakeBridge() {
    platform_ = platform::provider_table("fake", *this);
    if (std::getenv("KAVREL_TEST_WRAPPED_PROVIDER") != nullptr) {
        wrapper_ = std::make_unique<Counter>(platform_);
        wrapped_ = platform::provider_table("counting wrapper", *wrapper_);
        use_provider(&wrapped_);
    } else {
        use_provider(&platform_);
    }
}

FakeBridge::~FakeBridge() {
    use_provider(nullptr);
    if (wrapper_) {
        EXPECT_EQ(wrapper_->forwarded, total_calls_) << "the wrapper did not see every call";
    }
}

void FakeBridge::record(BridgeCall call) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++total_calls_;
    calls.push_back(std::move(call));
}

void FakeBridge::hold(int index) {
    std::lock_guard<std::mutex> lock(mutex_);
    instrument(index).held = true;
}

void FakeBridge::release(int index) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        instrument(index).held = false;
    }
    held_changed_.notify_all();
}

void FakeBridge::wait_for_held_read() {
    std::unique_lock<std::mutex> lock(mutex_);
    held_changed_.wait(lock, [this] { return held_reads_ > 0; });
}

int FakeBridge::attach(const std::string &serial) {
    instruments_.emplace_back();
    instruments_.back().serial = serial;
    instruments_.back().inbox = std::make_unique<platform::Inbox>(clock_);
    return static_cast<int>(instruments_.size()) - 1;
}

FakeBridge &FakeBridge::expect(int index, const Bytes &request, std::vector<Chunk> reply) {
    Step step;
    step.expect = request;
    step.reply = std::move(reply);
    instrument(index).script.push_back(std::move(step));
    return *this;
}

FakeBridge &FakeBridge::reply_any(int index, std::vector<Chunk> reply) {
    Step step;
    step.reply = std::move(reply);
    instrument(index).script.push_back(std::move(step));
    return *this;
}

std::vector<BridgeCall> FakeBridge::calls_named(const std::string &name) const {
    std::vector<BridgeCall> out;
    for (const auto &call : calls)
        if (call.name == name) out.push_back(call);
    return out;
}

Bytes FakeBridge::written() const {
    Bytes out;
    for (const auto &call : calls)
        if (call.name == "write") out.insert(out.end(), call.bytes.begin(), call.bytes.end());
    return out;
}

size_t FakeBridge::unplayed_steps() const {
    size_t n = 0;
    for (const auto &device : instruments_) n += device.script.size();
    return n;
}

int FakeBridge::index_of(platform::Handle handle) const {
    for (size_t i = 0; i < instruments_.size(); ++i)
        if (&instruments_[i] == handle) return static_cast<int>(i);
    ADD_FAILURE() << "bridge call with a handle the fake never opened";
    return -1;
}

platform::Status FakeBridge::create_device_info_list(uint32_t *count) {
    record({"create_device_info_list", -1, now(), 0, 0, {}});
    *count = create_status == 0 ? static_cast<uint32_t>(instruments_.size()) : 0;
    return create_status;
}

platform::Status FakeBridge::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    record({"get_device_info_list", -1, now(), *count, 0, {}});
    if (get_status != 0) return get_status;
    const uint32_t n = std::min<uint32_t>(*count, static_cast<uint32_t>(instruments_.size()));
    for (uint32_t i = 0; i < n; ++i) {
        std::snprintf(entries[i].serial_number, sizeof entries[i].serial_number, "%s",
                      instruments_[i].serial.c_str());
        std::snprintf(entries[i].description, sizeof entries[i].description, "%s",
                      instruments_[i].description.c_str());
    }
    *count = n;
    return 0;
}

platform::Status FakeBridge::open(int index, platform::Handle *handle) {
    record({"open", index, now(), static_cast<uint32_t>(index), 0, {}});
    if (open_status != 0) return open_status;
    if (index < 0 || static_cast<size_t>(index) >= instruments_.size()) return 2;
    FakeInstrument &device = instrument(index);
    device.open = true;
    *handle = &device;
    return 0;
}

platform::Status FakeBridge::close(platform::Handle handle) {
    const int index = index_of(handle);
    record({"close", index, now(), 0, 0, {}});
    if (index >= 0) instrument(index).open = false;
    return 0;
}

platform::Status FakeBridge::set_timeouts(platform::Handle handle, uint32_t read_ms, uint32_t write_ms) {
    const int index = index_of(handle);
    record({"set_timeouts", index, now(), read_ms, write_ms, {}});
    if (index >= 0) instrument(index).read_limit_ms = read_ms;
    return 0;
}

platform::Status FakeBridge::set_latency_timer(platform::Handle handle, uint8_t ms) {
    record({"set_latency_timer", index_of(handle), now(), ms, 0, {}});
    return 0;
}

platform::Status FakeBridge::set_usb_parameters(platform::Handle handle, uint32_t in_size, uint32_t out_size) {
    record({"set_usb_parameters", index_of(handle), now(), in_size, out_size, {}});
    return 0;
}

platform::Status FakeBridge::reset_device(platform::Handle handle) {
    record({"reset_device", index_of(handle), now(), 0, 0, {}});
    return 0;
}

platform::Status FakeBridge::purge(platform::Handle handle, uint32_t mask) {
    const int index = index_of(handle);
    record({"purge", index, now(), mask, 0, {}});
    if (index >= 0 && (mask & platform::kPurgeRx)) instrument(index).inbox->purge();
    return 0;
}

void FakeBridge::schedule(FakeInstrument &device, const std::vector<Chunk> &reply) {
    double at = now();
    for (const Chunk &chunk : reply) {
        at += chunk.delay_ms;
        device.inbox->deliver(chunk.bytes, at);
    }
}

platform::Status FakeBridge::write(platform::Handle handle, const void *bytes, uint32_t count,
                                   uint32_t *written) {
    const int index = index_of(handle);
    const auto *p = static_cast<const uint8_t *>(bytes);
    Bytes data(p, p + count);
    record({"write", index, now(), count, 0, data});
    *written = count;
    if (index < 0) return 1;
    FakeInstrument &device = instrument(index);
    if (!device.script.empty()) {
        Step step = device.script.front();
        device.script.pop_front();
        if (step.expect && *step.expect != data)
            ADD_FAILURE() << "bridge " << index
                          << " got an unexpected write\n  expected: " << hex(*step.expect)
                          << "\n  actual:   " << hex(data);
        *written = step.written.value_or(count);
        if (step.write_status != 0) return step.write_status;
        schedule(device, step.reply);
    } else if (device.responder) {
        schedule(device, device.responder(data));
    }
    return 0;
}

platform::Status FakeBridge::read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    const int index = index_of(handle);
    BridgeCall call{"read", index, now(), count, 0, {}};
    *returned = 0;
    if (index < 0) return 1;
    FakeInstrument &device = instrument(index);
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (device.held) {
            ++held_reads_;
            held_changed_.notify_all();
            held_changed_.wait(lock, [&] { return !device.held; });
            --held_reads_;
        }
    }
    if (device.fail_read_after >= 0 && device.reads_done >= device.fail_read_after) {
        record(call);
        return 4;
    }
    ++device.reads_done;
    auto *out = static_cast<uint8_t *>(buffer);
    const size_t got = device.inbox->read(out, count, device.read_limit_ms);
    call.bytes.assign(out, out + got);
    *returned = static_cast<uint32_t>(got);
    record(call);
    return 0;
}

void FakeBridge::sleep_ms(uint32_t ms) {
    record({"sleep", -1, now(), ms, 0, {}});
    clock_.sleep_ms(ms);
}

Bytes nir_frame(const Bytes &command) {
    Bytes out = command;
    const uint16_t crc = nir_crc16(command.data(), command.size());
    out.push_back(static_cast<uint8_t>(crc >> 8));
    out.push_back(static_cast<uint8_t>(crc));
    return out;
}

Bytes nir_reply(const Bytes &data, uint8_t ack) {
    Bytes body{ack};
    body.insert(body.end(), data.begin(), data.end());
    return nir_frame(body);
}

Bytes cm2_query_bytes(uint8_t reg, uint32_t address, uint16_t words) {
    Bytes out(32);
    kavrel_direct_build_query(reg, address, words, out.data());
    return out;
}

Bytes cm2_write_bytes(uint8_t reg, uint32_t address, const Bytes &data) {
    Bytes out(static_cast<size_t>(cm2::write_packet_bytes(static_cast<int32_t>(data.size()))));
    const int32_t n =
        kavrel_direct_build_write(reg, address, data.data(), static_cast<int32_t>(data.size()), out.data());
    out.resize(static_cast<size_t>(n));
    return out;
}

Bytes cm2_reply(uint8_t reg, uint32_t address, const Bytes &data, uint8_t reply_code) {
    const size_t words = (data.size() + 3) / 4;
    Bytes out(28 + 4 * words + 4, 0);
    std::memset(out.data(), 0xAA, 7);
    out[7] = 0xAB;
    out[8] = 0xCC;
    store_be16(&out[9], 0x0002);
    store_be16(&out[11], 0x0001);
    out[13] = data.empty() ? 0xEA : 0xE0;
    out[14] = 0xEE;
    store_be16(&out[15], static_cast<uint16_t>(words));
    store_be16(&out[17], static_cast<uint16_t>(words));
    out[19] = out[20] = 1;
    out[21] = reg;
    store_be24(&out[22], address);
    out[27] = reply_code;
    std::copy(data.begin(), data.end(), out.begin() + 28);
    store_be32(&out[out.size() - 4],
               kavrel_direct_crc32(out.data() + 8, static_cast<int32_t>(out.size() - 12)));
    return out;
}

}  // namespace kavrel::test
