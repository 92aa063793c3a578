#include "support/fake_bridge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "transport/device_table.h"

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

FakeBridge::FakeBridge() {
    platform_ = platform::provider_table("fake", *this);
    if (std::getenv("KAVREL_TEST_WRAPPED_PROVIDER") != nullptr) {
        wrapper_ = std::make_unique<platform::Forwarder>(platform_);
        wrapped_ = platform::provider_table("forwarding wrapper", *wrapper_);
    }
    use_provider(wrapper_ ? &wrapped_ : &platform_);
}

FakeBridge::~FakeBridge() {
    use_provider(nullptr);
}

void FakeBridge::record(BridgeCall call) {
    std::lock_guard<std::mutex> lock(mutex_);
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
    instrument(index).script.push_back(Step{request, std::move(reply), 0, std::nullopt});
    return *this;
}

FakeBridge &FakeBridge::reply_any(int index, std::vector<Chunk> reply) {
    instrument(index).script.push_back(Step{std::nullopt, std::move(reply), 0, std::nullopt});
    return *this;
}

std::vector<BridgeCall> FakeBridge::calls_named(const std::string &name) const {
    std::vector<BridgeCall> out;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(out),
                 [&](const BridgeCall &call) { return call.name == name; });
    return out;
}

std::string FakeBridge::trace() const {
    std::vector<std::string> items;
    for (const BridgeCall &call : calls) {
        std::string item = call.name;
        if (call.name == "read")
            item += " " + std::to_string(call.a) + ":" + std::to_string(call.b);
        else if (call.name == "timeouts" || call.name == "usb")
            item += " " + std::to_string(call.a) + " " + std::to_string(call.b);
        else if (call.name != "list" && call.name != "reset")
            item += " " + std::to_string(call.a);
        items.push_back(item);
    }
    std::string out;
    for (size_t i = 0; i < items.size();) {
        size_t period = 1, times = 1;
        for (size_t k : {1, 2}) {
            size_t n = 1;
            while (i + (n + 1) * k <= items.size() &&
                   std::equal(items.begin() + i, items.begin() + i + k, items.begin() + i + n * k))
                ++n;
            if (n > 1) {
                period = k, times = n;
                break;
            }
        }
        std::string item = items[i];
        if (period == 2) item = "(" + item + ", " + items[i + 1] + ")";
        if (times > 1) item += " x" + std::to_string(times);
        out += (out.empty() ? "" : ", ") + item;
        i += period * times;
    }
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
    record({"list", -1, 0, 0, {}});
    *count = create_status == 0 ? static_cast<uint32_t>(instruments_.size()) : 0;
    return create_status;
}

platform::Status FakeBridge::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    record({"entries", -1, *count, 0, {}});
    if (get_status != 0) return get_status;
    *count = std::min<uint32_t>(*count, static_cast<uint32_t>(instruments_.size()));
    for (uint32_t i = 0; i < *count; ++i) {
        std::snprintf(entries[i].serial_number, sizeof entries[i].serial_number, "%s",
                      instruments_[i].serial.c_str());
        std::snprintf(entries[i].description, sizeof entries[i].description, "%s",
                      instruments_[i].description.c_str());
    }
    return 0;
}

platform::Status FakeBridge::open(int index, platform::Handle *handle) {
    record({"open", index, static_cast<uint32_t>(index), 0, {}});
    if (open_status != 0) return open_status;
    if (index < 0 || static_cast<size_t>(index) >= instruments_.size()) return 2;
    *handle = &instrument(index);
    return 0;
}

platform::Status FakeBridge::close(platform::Handle handle) {
    const int index = index_of(handle);
    record({"close", index, static_cast<uint32_t>(index), 0, {}});
    return 0;
}

platform::Status FakeBridge::set_timeouts(platform::Handle handle, uint32_t read_ms, uint32_t write_ms) {
    const int index = index_of(handle);
    record({"timeouts", index, read_ms, write_ms, {}});
    if (index >= 0) instrument(index).read_limit_ms = read_ms;
    return 0;
}

platform::Status FakeBridge::set_latency_timer(platform::Handle handle, uint8_t ms) {
    record({"latency", index_of(handle), ms, 0, {}});
    return 0;
}

platform::Status FakeBridge::set_usb_parameters(platform::Handle handle, uint32_t in_size, uint32_t out_size) {
    record({"usb", index_of(handle), in_size, out_size, {}});
    return 0;
}

platform::Status FakeBridge::reset_device(platform::Handle handle) {
    record({"reset", index_of(handle), 0, 0, {}});
    return 0;
}

platform::Status FakeBridge::purge(platform::Handle handle, uint32_t mask) {
    const int index = index_of(handle);
    record({"purge", index, mask, 0, {}});
    if (index >= 0 && (mask & platform::kPurgeRx)) instrument(index).inbox->purge();
    return 0;
}

platform::Status FakeBridge::write(platform::Handle handle, const void *bytes, uint32_t count,
                                   uint32_t *written) {
    const int index = index_of(handle);
    const auto *p = static_cast<const uint8_t *>(bytes);
    const Bytes data(p, p + count);
    record({"write", index, count, 0, data});
    *written = count;
    if (index < 0) return 1;
    FakeInstrument &device = instrument(index);
    std::vector<Chunk> reply;
    if (!device.script.empty()) {
        const Step step = device.script.front();
        device.script.pop_front();
        if (step.expect && *step.expect != data)
            ADD_FAILURE() << "bridge " << index << " got an unexpected write\n  expected: " << hex(*step.expect)
                          << "\n  actual:   " << hex(data);
        *written = step.written.value_or(count);
        if (step.write_status != 0) return step.write_status;
        reply = step.reply;
    } else if (device.responder) {
        reply = device.responder(data);
    }
    double at = now();
    for (const Chunk &chunk : reply) device.inbox->deliver(chunk.bytes, at += chunk.delay_ms);
    return 0;
}

platform::Status FakeBridge::read(platform::Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    const int index = index_of(handle);
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
        record({"read", index, count, 0, {}});
        return 4;
    }
    ++device.reads_done;
    *returned = static_cast<uint32_t>(device.inbox->read(static_cast<uint8_t *>(buffer), count, device.read_limit_ms));
    record({"read", index, count, *returned, {}});
    return 0;
}

void FakeBridge::sleep_ms(uint32_t ms) {
    record({"sleep", -1, ms, 0, {}});
    clock_.sleep_ms(ms);
}

// The tests' own codec: CRC-32 (IEEE, reflected) and CRC-16/MODBUS bit by
// bit, big-endian fields.
namespace {

uint32_t crc32(const uint8_t *p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return ~c;
}

void put_be(Bytes &out, uint32_t value, int bytes) {
    while (bytes-- > 0) out.push_back(static_cast<uint8_t>(value >> (8 * bytes)));
}

Bytes cm2_packet(uint8_t srv, bool from_host, uint16_t file_len, uint16_t data_len, uint8_t reg, uint32_t address,
                 uint8_t reply, const Bytes &data) {
    Bytes out{0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAB, 0xCC};
    put_be(out, from_host ? 1 : 2, 2);  // target, then source
    put_be(out, from_host ? 2 : 1, 2);
    out.insert(out.end(), {srv, 0xEE});
    put_be(out, file_len, 2);
    put_be(out, data_len, 2);
    out.insert(out.end(), {0x01, 0x01, reg});
    put_be(out, address, 3);
    out.insert(out.end(), {0x00, 0x00, reply});
    out.insert(out.end(), data.begin(), data.end());
    out.resize(28 + (data.size() + 3) / 4 * 4, 0);
    put_be(out, crc32(out.data() + 8, out.size() - 8), 4);
    return out;
}

}  // namespace

Bytes cm2_query_bytes(uint8_t reg, uint32_t address, uint16_t words) {
    return cm2_packet(0x0D, true, words, 0, reg, address, 0x00, {});
}

Bytes cm2_write_bytes(uint8_t reg, uint32_t address, const Bytes &data) {
    const auto words = static_cast<uint16_t>((data.size() + 3) / 4);
    return cm2_packet(0xAD, true, words, words, reg, address, 0x00, data);
}

Bytes cm2_reply(uint8_t reg, uint32_t address, const Bytes &data, uint8_t reply_code) {
    const auto words = static_cast<uint16_t>((data.size() + 3) / 4);
    return cm2_packet(data.empty() ? 0xEA : 0xE0, false, words, words, reg, address, reply_code, data);
}

Bytes nir_frame(const Bytes &command) {
    uint16_t c = 0xFFFF;
    for (uint8_t byte : command) {
        c ^= byte;
        for (int k = 0; k < 8; ++k) c = static_cast<uint16_t>((c >> 1) ^ (0xA001u & (0u - (c & 1u))));
    }
    Bytes out = command;
    put_be(out, c, 2);
    return out;
}

Bytes nir_reply(const Bytes &data, uint8_t ack) {
    Bytes body{ack};
    body.insert(body.end(), data.begin(), data.end());
    return nir_frame(body);
}

}  // namespace kavrel::test
