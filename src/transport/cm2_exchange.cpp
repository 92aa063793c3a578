#include "transport/cm2_exchange.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "protocol/cm2_codec.h"
#include "transport/device_call.h"
#include "transport/device_table.h"
#include "transport/timing.h"

namespace kavrel {
namespace {

// Reads until count bytes are in buffer. A read that returns nothing means
// the time limit passed.
int32_t read_exactly(const platform::Bridge &bridge, platform::Handle handle, uint8_t *buffer,
                     int32_t count) {
    int32_t have = 0;
    while (have < count) {
        uint32_t got = 0;
        const auto wanted = static_cast<uint32_t>(count - have);
        if (bridge.read(handle, buffer + have, wanted, &got) != platform::kOk) return KAVREL_DIRECT_ERR_IO;
        if (got == 0) return KAVREL_DIRECT_ERR_TIMEOUT;
        have += static_cast<int32_t>(got > wanted ? wanted : got);
    }
    return KAVREL_DIRECT_OK;
}

int32_t reply_code_result(uint8_t reply) {
    switch (reply) {
        case cm2::kReplyAck: return KAVREL_DIRECT_OK;
        case cm2::kReplyTimeout: return KAVREL_DIRECT_ERR_TIMEOUT;
        case cm2::kReplyCrcMismatch: return KAVREL_DIRECT_ERR_CRC;
        case cm2::kReplyWriteProtect: return KAVREL_DIRECT_ERR_WRITE_PROTECT;
        default: return KAVREL_DIRECT_ERR_IO;  // 0xE2 Invalid Command and the unknown
    }
}

}  // namespace

int32_t send_and_recv(uint8_t reg, uint32_t address, const uint8_t *data, uint32_t length, uint8_t *answer,
                      int32_t *answer_length, int32_t query, int32_t answer_capacity) {
    // Read on every call so that tracing can be switched on in a running
    // process; only the spectrum register is traced.
    const bool tracing = reg == kRegSpectrum && std::getenv("KAVREL_DIRECT_TRACE_TIMING") != nullptr;

    device_slot *slot;
    if (int32_t rc = guard(slot)) return rc;
    if (answer_capacity < 0) return KAVREL_DIRECT_ERR_INVALID_ARG;
    if (!query && (length > static_cast<uint32_t>(cm2::kMaxWriteData) || (length > 0 && data == nullptr)))
        return KAVREL_DIRECT_ERR_INVALID_ARG;

    uint8_t request[cm2::kRequestBufferBytes];
    const int32_t request_length =
        query ? kavrel_direct_build_query(reg, address, static_cast<uint16_t>(length), request)
              : kavrel_direct_build_write(reg, address, data, static_cast<int32_t>(length), request);

    const platform::Bridge bridge = bridge_of(*slot);
    bridge.purge(slot->handle, platform::kPurgeRx | platform::kPurgeTx);
    const double t0 = tracing ? bridge.now_ms() : 0.0;
    uint32_t written = 0;
    if (bridge.write(slot->handle, request, static_cast<uint32_t>(request_length), &written) !=
            platform::kOk ||
        written != static_cast<uint32_t>(request_length))
        return KAVREL_DIRECT_ERR_IO;
    const double t1 = tracing ? bridge.now_ms() : 0.0;

    const uint32_t limit = reg == kRegSpectrum
                               ? spectrum_time_limit_ms(slot->integration_time, slot->average_number)
                               : kCm2ReplyTimeoutMs;
    bridge.set_timeouts(slot->handle, limit, kDefaultTimeoutMs);

    // The head tells the reply's length: 28 bytes of head, DataLen words of
    // data, 4 bytes of CRC.
    uint8_t reply[cm2::kMaxPacketBytes];
    if (int32_t rc = read_exactly(bridge, slot->handle, reply, cm2::kHeadBytes)) return rc;
    const double t2 = tracing ? bridge.now_ms() : 0.0;
    const int32_t reply_length = cm2::kMinPacketBytes + 4 * load_be16(reply + cm2::kDataLenOffset);
    if (reply_length > cm2::kMaxPacketBytes) return KAVREL_DIRECT_ERR_IO;
    if (int32_t rc =
            read_exactly(bridge, slot->handle, reply + cm2::kHeadBytes, reply_length - cm2::kHeadBytes))
        return rc;
    if (tracing) {
        const double t3 = bridge.now_ms();
        std::printf(
            "[trace C6] write=%.3f ms, wait_header=%.3f ms, read_body=%.3f ms, total=%.3f ms, "
            "expected=%d\n",
            t1 - t0, t2 - t1, t3 - t2, t3 - t0, static_cast<int>(reply_length));
    }
    bridge.set_timeouts(slot->handle, kDefaultTimeoutMs, kDefaultTimeoutMs);

    // The reply is judged where it lies, in the order the parser would
    // report it, and its data reaches the caller in one copy.
    if (!cm2::preamble_ok(reply)) return KAVREL_DIRECT_ERR_PARSE;
    if (!cm2::crc_ok(reply, reply_length)) return KAVREL_DIRECT_ERR_CRC;
    if (int32_t rc = reply_code_result(reply[cm2::kReplyCodeOffset])) return rc;

    int32_t handed = cm2::data_bytes(reply_length);
    if (answer != nullptr) {
        if (handed > answer_capacity) handed = answer_capacity;
        if (handed > 0) std::memcpy(answer, reply + cm2::kHeadBytes, static_cast<size_t>(handed));
    }
    if (answer_length != nullptr) *answer_length = handed;
    return KAVREL_DIRECT_OK;
}

}  // namespace kavrel

using namespace kavrel;

extern "C" int32_t kavrel_direct_send_recv(const uint8_t *request, uint32_t request_length, uint8_t *reply,
                                           uint32_t *reply_length) {
    // Silence is what ends a raw reply: 501 empty reads in a row, with a
    // pause after each of the first 500.
    constexpr int kEmptyReadsToEnd = 501;
    constexpr uint32_t kEmptyPauseMs = 10;
    return device_call([&](device_slot &device) -> int32_t {
        device_slot *slot = &device;
        if (reply_length == nullptr || (request == nullptr && request_length > 0) ||
            (reply == nullptr && *reply_length > 0))
            return KAVREL_DIRECT_ERR_INVALID_ARG;
        const platform::Bridge bridge = bridge_of(*slot);
        uint32_t written = 0;
        if (bridge.write(slot->handle, request, request_length, &written) != platform::kOk ||
            written != request_length)
            return KAVREL_DIRECT_ERR_IO;
        const uint32_t capacity = *reply_length;
        uint32_t received = 0;
        for (int empty = 0; empty < kEmptyReadsToEnd;) {
            uint32_t got = 0;
            const uint32_t wanted = capacity - received;
            if (bridge.read(slot->handle, reply + received, wanted, &got) != platform::kOk)
                return KAVREL_DIRECT_ERR_IO;
            if (got > wanted) got = wanted;
            if (got > 0) {
                received += got;
                empty = 0;
                continue;
            }
            if (++empty < kEmptyReadsToEnd) bridge.sleep_ms(kEmptyPauseMs);
        }
        *reply_length = received;
        return KAVREL_DIRECT_OK;
    });
}
