#include "support/fake_bridge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "protocol/byte_order.h"
#include "protocol/cm2_codec.h"
#include "transport/nir_exchange.h"

namespace kavrel::test {

FakeBridge *FakeBridge::active = nullptr;

std::string hex(const Bytes &bytes) {
    std::string out;
    char group[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(group, sizeof group, "%s%02X", i == 0 ? "" : " ", bytes[i]);
        out += group;
    }
    return out;
}

namespace {

platform::Status c_create(uint32_t *count) {
    return FakeBridge::active->create_list(count);
}
platform::Status c_get(platform::BridgeEntry *e, uint32_t *count) {
    return FakeBridge::active->get_list(e, count);
}
platform::Status c_open(int index, platform::Handle *h) {
    return FakeBridge::active->open(index, h);
}
platform::Status c_close(platform::Handle h) {
    return FakeBridge::active->close(h);
}
platform::Status c_timeouts(platform::Handle h, uint32_t r, uint32_t w) {
    return FakeBridge::active->set_timeouts(h, r, w);
}
platform::Status c_latency(platform::Handle h, uint8_t ms) {
    return FakeBridge::active->simple("set_latency_timer", h, ms, 0);
}
platform::Status c_usb(platform::Handle h, uint32_t in, uint32_t out) {
    return FakeBridge::active->simple("set_usb_parameters", h, in, out);
}
platform::Status c_purge(platform::Handle h, uint32_t mask) {
    return FakeBridge::active->purge(h, mask);
}
platform::Status c_reset(platform::Handle h) {
    return FakeBridge::active->simple("reset_device", h, 0, 0);
}
platform::Status c_write(platform::Handle h, const void *b, uint32_t n, uint32_t *w) {
    return FakeBridge::active->write(h, b, n, w);
}
platform::Status c_read(platform::Handle h, void *b, uint32_t n, uint32_t *r) {
    return FakeBridge::active->read(h, b, n, r);
}
double c_now() {
    return FakeBridge::active->now();
}
void c_sleep(uint32_t ms) {
    FakeBridge::active->sleep(ms);
}

}  // namespace

FakeBridge::FakeBridge() {
    platform_.name = "fake";
    platform_.create_device_info_list = c_create;
    platform_.get_device_info_list = c_get;
    platform_.open = c_open;
    platform_.close = c_close;
    platform_.set_timeouts = c_timeouts;
    platform_.set_latency_timer = c_latency;
    platform_.set_usb_parameters = c_usb;
    platform_.purge = c_purge;
    platform_.reset_device = c_reset;
    platform_.write = c_write;
    platform_.read = c_read;
    platform_.now_ms = c_now;
    platform_.sleep_ms = c_sleep;
    active = this;
    platform::install(&platform_);
}

FakeBridge::~FakeBridge() {
    platform::install(nullptr);
    active = nullptr;
}

int FakeBridge::attach(const std::string &serial) {
    instruments_.emplace_back();
    instruments_.back().serial = serial;
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

platform::Status FakeBridge::create_list(uint32_t *count) {
    calls.push_back({"create_device_info_list", -1, now_ms_, 0, 0, {}});
    *count = create_status == 0 ? static_cast<uint32_t>(instruments_.size()) : 0;
    return create_status;
}

platform::Status FakeBridge::get_list(platform::BridgeEntry *entries, uint32_t *count) {
    calls.push_back({"get_device_info_list", -1, now_ms_, *count, 0, {}});
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
    calls.push_back({"open", index, now_ms_, static_cast<uint32_t>(index), 0, {}});
    if (open_status != 0) return open_status;
    if (index < 0 || static_cast<size_t>(index) >= instruments_.size()) return 2;
    FakeInstrument &device = instrument(index);
    device.open = true;
    *handle = &device;
    return 0;
}

platform::Status FakeBridge::close(platform::Handle handle) {
    const int index = index_of(handle);
    calls.push_back({"close", index, now_ms_, 0, 0, {}});
    if (index >= 0) instrument(index).open = false;
    return 0;
}

platform::Status FakeBridge::set_timeouts(platform::Handle handle, uint32_t read_ms, uint32_t write_ms) {
    const int index = index_of(handle);
    calls.push_back({"set_timeouts", index, now_ms_, read_ms, write_ms, {}});
    if (index >= 0) {
        instrument(index).read_limit_ms = read_ms;
        instrument(index).write_limit_ms = write_ms;
    }
    return 0;
}

platform::Status FakeBridge::simple(const char *name, platform::Handle handle, uint32_t a, uint32_t b) {
    calls.push_back({name, index_of(handle), now_ms_, a, b, {}});
    return 0;
}

platform::Status FakeBridge::purge(platform::Handle handle, uint32_t mask) {
    const int index = index_of(handle);
    calls.push_back({"purge", index, now_ms_, mask, 0, {}});
    // Whatever the instrument had sent or was still sending is dropped.
    if (index >= 0) instrument(index).incoming.clear();
    return 0;
}

void FakeBridge::schedule(FakeInstrument &device, const std::vector<Chunk> &reply) {
    double at = now_ms_;
    for (const Chunk &chunk : reply) {
        at += chunk.delay_ms;
        device.incoming.push_back({at, chunk.bytes});
    }
}

platform::Status FakeBridge::write(platform::Handle handle, const void *bytes, uint32_t count,
                                   uint32_t *written) {
    const int index = index_of(handle);
    const auto *p = static_cast<const uint8_t *>(bytes);
    Bytes data(p, p + count);
    calls.push_back({"write", index, now_ms_, count, 0, data});
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
    BridgeCall call{"read", index, now_ms_, count, 0, {}};
    *returned = 0;
    if (index < 0) return 1;
    FakeInstrument &device = instrument(index);
    if (device.fail_read_after >= 0 && device.reads_done >= device.fail_read_after) {
        calls.push_back(call);
        return 4;
    }
    ++device.reads_done;
    // Block in virtual time until count bytes have arrived or the limit ends.
    const double deadline = now_ms_ + device.read_limit_ms;
    auto *out = static_cast<uint8_t *>(buffer);
    uint32_t got = 0;
    for (;;) {
        while (got < count && !device.incoming.empty() && device.incoming.front().at <= now_ms_) {
            Bytes &front = device.incoming.front().bytes;
            const size_t take = std::min<size_t>(count - got, front.size());
            std::memcpy(out + got, front.data(), take);
            call.bytes.insert(call.bytes.end(), front.begin(), front.begin() + static_cast<long>(take));
            got += static_cast<uint32_t>(take);
            front.erase(front.begin(), front.begin() + static_cast<long>(take));
            if (front.empty()) device.incoming.pop_front();
        }
        if (got >= count) break;
        if (!device.incoming.empty() && device.incoming.front().at <= deadline) {
            now_ms_ = std::max(now_ms_, device.incoming.front().at);
            continue;
        }
        now_ms_ = deadline;
        break;
    }
    *returned = got;
    calls.push_back(call);
    return 0;
}

void FakeBridge::sleep(uint32_t ms) {
    calls.push_back({"sleep", -1, now_ms_, ms, 0, {}});
    now_ms_ += ms;
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
