#include "transport/nir_exchange.h"

#include <cstring>

#include "kavrel_direct.h"
#include "platform/platform.h"
#include "transport/device_table.h"
#include "transport/timing.h"

namespace kavrel {
namespace {

// Each read returns after at most this long, so silence is noticed promptly.
constexpr uint32_t kPollReadMs = 50;
constexpr uint32_t kPollPauseMs = 5;

}  // namespace

uint16_t nir_crc16(const uint8_t *bytes, size_t length) {
    uint16_t crc = 0xFFFF;
    for (size_t i = 0; i < length; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) ? (crc >> 1) ^ 0xA001u : crc >> 1;
    }
    return crc;
}

int32_t nir_read_available(uint8_t *buffer, int32_t capacity, int32_t *received, uint32_t quiet_ms) {
    if (received == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    device_slot *slot;
    if (int32_t rc = guard(slot)) return rc;
    const platform::Bridge bridge = bridge_of(*slot);
    double last = bridge.now_ms();

    bridge.set_timeouts(slot->handle, kPollReadMs, kDefaultTimeoutMs);
    int32_t total = 0;
    while (total < capacity) {
        uint32_t got = 0;
        const auto wanted = static_cast<uint32_t>(capacity - total);
        if (bridge.read(slot->handle, buffer + total, wanted, &got) != platform::kOk)
            return KAVREL_DIRECT_ERR_IO;
        if (got > wanted) got = wanted;  // a driver that overstates is not believed
        if (got > 0) {
            total += static_cast<int32_t>(got);
            last = bridge.now_ms();
            continue;
        }
        // Quiet time runs from the last byte (from the start while none has
        // come), so a reply that keeps trickling in is read to its end.
        if (bridge.now_ms() - last >= quiet_ms) break;
        bridge.sleep_ms(kPollPauseMs);
    }
    bridge.set_timeouts(slot->handle, kDefaultTimeoutMs, kDefaultTimeoutMs);
    *received = total;
    return total > 0 ? KAVREL_DIRECT_OK : KAVREL_DIRECT_ERR_TIMEOUT;
}

int32_t nir_send_command(const uint8_t *command, int32_t length, uint8_t *answer, int32_t *answer_length,
                         int32_t capacity, uint32_t quiet_ms) {
    device_slot *slot;
    if (int32_t rc = guard(slot)) return rc;
    if (length < 1 || length > kNirMaxCommand || command == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;

    uint8_t frame[kNirMaxCommand + 2];
    std::memcpy(frame, command, static_cast<size_t>(length));
    const uint16_t crc = nir_crc16(command, static_cast<size_t>(length));
    frame[length] = static_cast<uint8_t>(crc >> 8);
    frame[length + 1] = static_cast<uint8_t>(crc);

    const platform::Bridge bridge = bridge_of(*slot);
    bridge.purge(slot->handle, platform::kPurgeRx | platform::kPurgeTx);
    const auto frame_length = static_cast<uint32_t>(length + 2);
    uint32_t written = 0;
    if (bridge.write(slot->handle, frame, frame_length, &written) != platform::kOk || written != frame_length)
        return KAVREL_DIRECT_ERR_IO;

    uint8_t reply[kNirReceiveLimit];
    int32_t received = 0;
    if (int32_t rc = nir_read_available(reply, kNirReceiveLimit, &received, quiet_ms)) return rc;
    if (received < 3) return KAVREL_DIRECT_ERR_IO;
    // The CRC is judged before the acknowledge: a damaged reply is a CRC
    // failure whatever its first byte.
    const uint16_t expected = nir_crc16(reply, static_cast<size_t>(received - 2));
    if (reply[received - 2] != static_cast<uint8_t>(expected >> 8) ||
        reply[received - 1] != static_cast<uint8_t>(expected))
        return KAVREL_DIRECT_ERR_CRC;
    if (reply[0] != kNirAck) return KAVREL_DIRECT_ERR_IO;

    if (answer_length == nullptr) return KAVREL_DIRECT_OK;
    int32_t count = received - 3;
    if (count > capacity) count = capacity;
    if (count < 0) count = 0;
    if (count > 0 && answer != nullptr) std::memcpy(answer, reply + 1, static_cast<size_t>(count));
    *answer_length = count;
    return KAVREL_DIRECT_OK;
}

}  // namespace kavrel
