#include "bench_bridges.h"

#include <cstdio>
#include <cstring>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "transport/device_table.h"
#include "transport/nir_exchange.h"

namespace kavrel::bench {
namespace {

constexpr uint16_t kPoints = 2048;

void fill_entries(platform::BridgeEntry *entries, uint32_t *count, uint32_t attached) {
    if (*count > attached) *count = attached;
    for (uint32_t i = 0; i < *count; ++i) {
        std::snprintf(entries[i].serial_number, sizeof entries[i].serial_number, "BENCH%03u", i);
        std::snprintf(entries[i].description, sizeof entries[i].description, "Benchmark bridge %u", i);
    }
}

// The data an instrument sends for a query of `words` words at reg/address.
std::vector<uint8_t> query_data(uint8_t reg, uint32_t address, uint16_t words) {
    std::vector<uint8_t> data(4u * words, 0);
    if (reg == 0xC2 && address == 0x00000B && words >= 1) {
        store_be16(data.data() + 2, kPoints);  // the point count
    } else if (reg == 0xC5) {
        for (size_t i = 0; i < words; ++i) {  // little-endian floats, nm
            const float nm = 190.0f + 0.45f * static_cast<float>(address + i);
            uint32_t bits;
            std::memcpy(&bits, &nm, sizeof bits);
            for (int b = 0; b < 4; ++b) data[4 * i + b] = static_cast<uint8_t>(bits >> (8 * b));
        }
    } else if (reg == 0xC6) {
        for (size_t i = 0; i < data.size() / 2; ++i)
            store_be16(data.data() + 2 * i, static_cast<uint16_t>(i * 31));
    }
    return data;
}

// A reply as an instrument sends it: SRV E0 with data for a query, EA
// without for a write; reply code 0xAC.
std::vector<uint8_t> cm2_reply_to(const uint8_t *request) {
    const bool query = request[13] == 0x0D;
    const uint8_t reg = request[21];
    const uint32_t address = (static_cast<uint32_t>(request[22]) << 16) | (request[23] << 8) | request[24];
    const std::vector<uint8_t> data =
        query ? query_data(reg, address, load_be16(request + 15)) : std::vector<uint8_t>{};
    const auto words = static_cast<uint16_t>(data.size() / 4);
    std::vector<uint8_t> reply(32 + data.size());
    std::memcpy(reply.data(), request, 28);
    store_be16(reply.data() + 9, 0x0002);
    store_be16(reply.data() + 11, 0x0001);
    reply[13] = query ? 0xE0 : 0xEA;
    store_be16(reply.data() + 15, words);
    store_be16(reply.data() + 17, words);
    reply[27] = 0xAC;
    if (!data.empty()) std::memcpy(reply.data() + 28, data.data(), data.size());
    const size_t crc_at = reply.size() - 4;
    store_be32(reply.data() + crc_at,
               kavrel_direct_crc32(reply.data() + 8, static_cast<int32_t>(crc_at - 8)));
    return reply;
}

}  // namespace

ZeroLatencyCm2::ZeroLatencyCm2(int instruments)
    : instruments_(static_cast<size_t>(instruments)),
      table_(platform::provider_table("zero-latency CM2", *this)) {}

platform::Status ZeroLatencyCm2::create_device_info_list(uint32_t *count) {
    *count = static_cast<uint32_t>(instruments_.size());
    return platform::kOk;
}

platform::Status ZeroLatencyCm2::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    fill_entries(entries, count, static_cast<uint32_t>(instruments_.size()));
    return platform::kOk;
}

platform::Status ZeroLatencyCm2::open(int index, platform::Handle *handle) {
    if (index < 0 || static_cast<size_t>(index) >= instruments_.size()) return 1;
    *handle = &instruments_[static_cast<size_t>(index)];
    return platform::kOk;
}

platform::Status ZeroLatencyCm2::purge(platform::Handle handle, uint32_t mask) {
    if (mask & platform::kPurgeRx) static_cast<Instrument *>(handle)->unread = 0;
    return platform::kOk;
}

const ZeroLatencyCm2::Answer &ZeroLatencyCm2::answer_to(const Instrument &instrument, const uint8_t *request,
                                                        uint32_t count) {
    const auto same = [&](const Answer &a) {
        return a.request.size() == count && std::memcmp(a.request.data(), request, count) == 0;
    };
    if (instrument.last != nullptr && same(*instrument.last)) return *instrument.last;
    for (const auto &a : answers_)
        if (same(*a)) return *a;
    answers_.push_back(std::make_unique<Answer>(Answer{{request, request + count}, cm2_reply_to(request)}));
    return *answers_.back();
}

platform::Status ZeroLatencyCm2::write(platform::Handle handle, const void *bytes, uint32_t count,
                                       uint32_t *written) {
    auto &instrument = *static_cast<Instrument *>(handle);
    *written = count;
    if (count < 32) return platform::kOk;  // not a CM2 request: no answer
    instrument.last = &answer_to(instrument, static_cast<const uint8_t *>(bytes), count);
    instrument.unread = instrument.last->reply.size();
    return platform::kOk;
}

platform::Status ZeroLatencyCm2::read(platform::Handle handle, void *buffer, uint32_t count,
                                      uint32_t *returned) {
    auto &instrument = *static_cast<Instrument *>(handle);
    const size_t n = count < instrument.unread ? count : instrument.unread;
    if (n > 0) {
        const std::vector<uint8_t> &reply = instrument.last->reply;
        std::memcpy(buffer, reply.data() + (reply.size() - instrument.unread), n);
        instrument.unread -= n;
    }
    *returned = static_cast<uint32_t>(n);
    return platform::kOk;
}

RealClockNir::RealClockNir()
    : clock_(platform::Clock::Mode::real),
      inbox_(clock_),
      table_(platform::provider_table("real-clock NIR", *this)) {}

platform::Status RealClockNir::create_device_info_list(uint32_t *count) {
    *count = 1;
    return platform::kOk;
}

platform::Status RealClockNir::get_device_info_list(platform::BridgeEntry *entries, uint32_t *count) {
    fill_entries(entries, count, 1);
    return platform::kOk;
}

platform::Status RealClockNir::open(int index, platform::Handle *handle) {
    if (index != 0) return 1;
    *handle = this;
    return platform::kOk;
}

platform::Status RealClockNir::set_timeouts(platform::Handle, uint32_t read_ms, uint32_t) {
    read_limit_ms_ = read_ms;
    return platform::kOk;
}

platform::Status RealClockNir::purge(platform::Handle, uint32_t mask) {
    if (mask & platform::kPurgeRx) inbox_.purge();
    return platform::kOk;
}

platform::Status RealClockNir::write(platform::Handle, const void *, uint32_t count, uint32_t *written) {
    std::vector<uint8_t> reply = {kNirAck, 0x00, 0x00, 0x27, 0x10};
    const uint16_t crc = nir_crc16(reply.data(), reply.size());
    reply.push_back(static_cast<uint8_t>(crc >> 8));
    reply.push_back(static_cast<uint8_t>(crc));
    inbox_.deliver(reply, clock_.now_ms());
    *written = count;
    return platform::kOk;
}

platform::Status RealClockNir::read(platform::Handle, void *buffer, uint32_t count, uint32_t *returned) {
    *returned = static_cast<uint32_t>(inbox_.read(static_cast<uint8_t *>(buffer), count, read_limit_ms_));
    return platform::kOk;
}

Session::Session(const platform::Platform &provider, int instruments, int32_t protocol_preference) {
    kavrel_direct_close_all_devices();
    use_provider(&provider);
    kavrel_direct_set_protocol_preference(protocol_preference);
    for (int i = 0; i < instruments; ++i)
        if (kavrel_direct_open_device(i) != KAVREL_DIRECT_OK) ok_ = false;
}

Session::~Session() {
    kavrel_direct_close_all_devices();
    kavrel_direct_set_protocol_preference(KAVREL_DIRECT_PROTOCOL_AUTO);
    use_provider(nullptr);
}

}  // namespace kavrel::bench
