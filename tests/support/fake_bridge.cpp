#include "support/fake_bridge.h"

#include <cstdio>
#include <cstdlib>

namespace kavrel::test {

std::string hex(const Bytes &bytes) {
    std::string out;
    char group[4];
    for (uint8_t byte : bytes) out += (std::snprintf(group, sizeof group, " %02X", byte), group);
    return out.empty() ? out : out.substr(1);
}

FakeBridge::FakeBridge() {
    table_ = platform::provider_table("fake", *this);
    if (std::getenv("KAVREL_TEST_WRAPPED_PROVIDER") != nullptr) {
        wrapper_ = std::make_unique<platform::Forwarder>(table_);
        wrapped_ = platform::provider_table("forwarding wrapper", *wrapper_);
    }
    use_provider(wrapper_ ? &wrapped_ : &table_);
}

int FakeBridge::attach(const std::string &serial) {
    instruments_.emplace_back();
    instruments_.back().serial = serial;
    instruments_.back().inbox = std::make_unique<platform::Inbox>(clock_);
    return static_cast<int>(instruments_.size()) - 1;
}

std::string FakeBridge::trace() const {
    std::string out;
    for (size_t i = 0; i < calls.size();) {
        const auto runs = [&](size_t k) {  // how many times the next k calls come in a row
            size_t n = 1;
            const auto *c = &calls[i];
            while (i + (n + 1) * k <= calls.size() && std::equal(c, c + k, c + n * k)) ++n;
            return n;
        };
        const size_t k = runs(1) > 1 || runs(2) == 1 ? 1 : 2, n = runs(k);
        out += (out.empty() ? "" : ", ") + (k == 2 ? "(" + calls[i] + ", " + calls[i + 1] + ")" : calls[i]) +
               (n > 1 ? " x" + std::to_string(n) : "");
        i += k * n;
    }
    return out;
}

int FakeBridge::index_of(platform::Handle handle) const {
    for (size_t i = 0; i < instruments_.size(); ++i)
        if (&instruments_[i] == handle) return static_cast<int>(i);
    ADD_FAILURE() << "bridge call with a handle the fake never opened";
    return 0;
}

platform::Status FakeBridge::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    record(str("entries", *count));
    if (get_status != 0) return get_status;
    *count = std::min<uint32_t>(*count, static_cast<uint32_t>(instruments_.size()));
    for (uint32_t i = 0; i < *count; ++i) {
        std::snprintf(entries[i].serial_number, 16, "%s", instruments_[i].serial.c_str());
        std::snprintf(entries[i].description, 64, "%s", instruments_[i].description.c_str());
    }
    return 0;
}

platform::Status FakeBridge::write(platform::Handle h, const void *bytes, uint32_t count, uint32_t *written) {
    during();
    record(str("write", count));
    const Bytes data(static_cast<const uint8_t *>(bytes), static_cast<const uint8_t *>(bytes) + count);
    FakeInstrument &device = instrument(index_of(h));
    *written = count;
    std::vector<Chunk> reply;
    if (!device.script.empty()) {
        const Step step = device.script.front();
        device.script.pop_front();
        if (step.expect && *step.expect != data)
            ADD_FAILURE() << "unexpected write\n  expected: " << hex(*step.expect)
                          << "\n  actual:   " << hex(data);
        *written = step.written.value_or(count);
        if (step.write_status != 0) return step.write_status;
        reply = step.reply;
    } else if (device.responder) {
        reply = device.responder(data);
    } else {
        ADD_FAILURE() << "a write that no step expects: " << hex(data);
    }
    double at = now_ms();
    for (const Chunk &chunk : reply) device.inbox->deliver(chunk.bytes, at += chunk.delay_ms);
    return 0;
}

platform::Status FakeBridge::read(platform::Handle h, void *buffer, uint32_t count, uint32_t *returned) {
    during();
    FakeInstrument &device = instrument(index_of(h));
    const bool fails = device.fail_read_after >= 0 && device.fail_read_after-- == 0;
    *returned = fails ? 0 : static_cast<uint32_t>(device.inbox->read(static_cast<uint8_t *>(buffer), count,
                                                                      device.read_limit_ms));
    if (count > 0 && *returned == count) *returned += overstate;
    record(str("read", count) + ":" + std::to_string(*returned));
    return fails ? 4 : 0;
}

// The tests' own codec: fields big-endian, CRCs bit by bit.
uint32_t crc_bitwise(uint32_t reg, uint32_t polynomial, const uint8_t *bytes, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        reg ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) reg = (reg >> 1) ^ (polynomial & (0u - (reg & 1u)));
    }
    return reg;
}

namespace {

void put_be(Bytes &out, uint32_t value, int bytes) {
    while (bytes-- > 0) out.push_back(static_cast<uint8_t>(value >> (8 * bytes)));
}

// A query names the words it asks for and carries none; other packets
// carry their data padded to whole words.
Bytes cm2_packet(uint8_t srv, uint16_t asked, uint8_t reg, uint32_t address, uint8_t reply,
                 const Bytes &data) {
    const bool query = srv == 0x0D;
    const auto words = static_cast<uint16_t>(query ? asked : (data.size() + 3) / 4);
    Bytes out{0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAB, 0xCC};
    put_be(out, query || srv == 0xAD ? 0x00010002 : 0x00020001, 4);  // target, source
    out.insert(out.end(), {srv, 0xEE});
    put_be(out, words, 2);
    put_be(out, query ? 0 : words, 2);
    out.insert(out.end(), {0x01, 0x01, reg});
    put_be(out, address, 3);
    out.insert(out.end(), {0x00, 0x00, reply});
    out.insert(out.end(), data.begin(), data.end());
    out.resize(28 + (data.size() + 3) / 4 * 4, 0);
    put_be(out, ~crc_bitwise(0xFFFFFFFFu, 0xEDB88320u, &out[8], out.size() - 8), 4);
    return out;
}

}  // namespace

Bytes cm2_query_bytes(uint8_t reg, uint32_t address, uint16_t words) {
    return cm2_packet(0x0D, words, reg, address, 0x00, {});
}

Bytes cm2_write_bytes(uint8_t reg, uint32_t address, const Bytes &data) {
    return cm2_packet(0xAD, 0, reg, address, 0x00, data);
}

Bytes cm2_reply(uint8_t reg, uint32_t address, const Bytes &data, uint8_t reply_code) {
    return cm2_packet(data.empty() ? 0xEA : 0xE0, 0, reg, address, reply_code, data);
}

Bytes nir_frame(const Bytes &command) {
    Bytes out = command;
    put_be(out, crc_bitwise(0xFFFF, 0xA001, command.data(), command.size()), 2);  // CRC-16/MODBUS
    return out;
}

Bytes nir_reply(const Bytes &data, uint8_t ack) {
    return nir_frame(concat({{ack}, data}));
}

}  // namespace kavrel::test
