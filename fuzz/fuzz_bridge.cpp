#include "fuzz_bridge.h"

#include <cstdio>

#include "kavrel_direct.h"
#include "protocol/cm2_codec.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"

namespace kavrel::fuzz {

FuzzBridge::FuzzBridge(int bridges, Input replies) : replies_(replies) {
    for (int i = 0; i < bridges; ++i) ports_.emplace_back(clock_);
    table_ = platform::provider_table("fuzz", *this);
    use_provider(&table_);
}

FuzzBridge::~FuzzBridge() {
    kavrel_direct_close_all_devices();
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO);
    use_provider(nullptr);
}

// A bridge call on a handle that is not open is the library's bug, whatever
// the instrument sent: it stops the run.
FuzzBridge::Port &FuzzBridge::port(Handle handle) {
    for (Port &p : ports_)
        if (&p == handle && p.open) return p;
    __builtin_trap();
}

Status FuzzBridge::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    if (*count > ports_.size()) *count = static_cast<uint32_t>(ports_.size());
    for (uint32_t i = 0; i < *count; ++i) {
        std::snprintf(entries[i].serial_number, sizeof entries[i].serial_number, "FZ%04u", i);
        std::snprintf(entries[i].description, sizeof entries[i].description, "Fuzzed Spectrometer");
    }
    return platform::kOk;
}

Status FuzzBridge::open(int index, Handle *handle) {
    if (index < 0 || static_cast<size_t>(index) >= ports_.size()) return 2;
    Port &p = ports_[static_cast<size_t>(index)];
    // A real driver refuses a second open of the same bridge: the library
    // must never ask for one.
    require(!p.open);
    p.open = true;
    p.inbox.clear();
    *handle = &p;
    return platform::kOk;
}

void FuzzBridge::schedule(Port &p, uint32_t *written) {
    double at = clock_.now_ms();
    while (!replies_.empty()) {
        const uint8_t control = replies_.byte();
        const uint16_t length = replies_.be16();
        at += chunk_delay_ms(control);
        if (length == kFailRead) {
            p.fail_next_read = true;
        } else if (length == kShortWrite) {
            if (written != nullptr && *written > 0) --*written;
        } else {
            size_t n = length;
            const uint8_t *bytes = replies_.take(n);
            p.inbox.deliver(bytes, n, at);
        }
        if (control & kEndOfReply) break;
    }
}

Status FuzzBridge::read(Handle handle, void *buffer, uint32_t count, uint32_t *returned) {
    Port &p = port(handle);
    *returned = 0;
    if (p.fail_next_read) {
        p.fail_next_read = false;
        return 4;  // the driver's I/O error
    }
    *returned = static_cast<uint32_t>(p.inbox.read(static_cast<uint8_t *>(buffer), count, p.read_limit_ms));
    return platform::kOk;
}

void put_be32(Bytes &out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

void put_chunk(Bytes &stream, const Bytes &bytes, uint8_t delay_code, bool last) {
    stream.push_back(static_cast<uint8_t>((delay_code & 0x7F) | (last ? kEndOfReply : 0)));
    stream.push_back(static_cast<uint8_t>(bytes.size() >> 8));
    stream.push_back(static_cast<uint8_t>(bytes.size()));
    stream.insert(stream.end(), bytes.begin(), bytes.end());
}

Bytes cm2_query(uint8_t reg, uint32_t address, uint16_t words) {
    Bytes out(cm2::kQueryBytes);
    kavrel_direct_build_query(reg, address, words, out.data());
    return out;
}

Bytes cm2_write(uint8_t reg, uint32_t address, const Bytes &data) {
    Bytes out(static_cast<size_t>(cm2::write_packet_bytes(static_cast<int32_t>(data.size()))));
    kavrel_direct_build_write(reg, address, data.data(), static_cast<int32_t>(data.size()), out.data());
    return out;
}

Bytes cm2_answer(uint8_t reg, uint32_t address, const Bytes &data) {
    // A write packet has the reply's layout; only the service, the reply
    // code and so the CRC differ.
    Bytes packet = cm2_write(reg, address, data);
    packet[13] = data.empty() ? cm2::kSrvResponseWriteAck : cm2::kSrvResponseData;
    packet[27] = cm2::kReplyAck;
    const size_t crc_at = packet.size() - 4;
    const uint32_t crc = kavrel_direct_crc32(packet.data() + 8, static_cast<int32_t>(crc_at - 8));
    packet.resize(crc_at);
    put_be32(packet, crc);
    return packet;
}

Bytes nir_frame(Bytes bytes) {
    const uint16_t crc = nir_crc16(bytes.data(), bytes.size());
    bytes.push_back(static_cast<uint8_t>(crc >> 8));
    bytes.push_back(static_cast<uint8_t>(crc));
    return bytes;
}

Bytes nir_answer(const Bytes &data) {
    Bytes out{kNirAck};
    out.insert(out.end(), data.begin(), data.end());
    return nir_frame(out);
}

}  // namespace kavrel::fuzz

// The targets print through the library's trace functions and the bridge
// listing: their output goes nowhere.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
#ifdef _WIN32
    const char *nowhere = "NUL";
#else
    const char *nowhere = "/dev/null";
#endif
    std::FILE *const out = std::freopen(nowhere, "w", stdout);
    static_cast<void>(out);  // where it failed, the output stays: only noise
    return 0;
}
