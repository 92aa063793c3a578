// The NIR command exchange.
//
// The host sends a command (command byte, then its arguments) followed by a
// CRC-16; the instrument answers with 0x06, data and a CRC-16. The reply
// carries no length, so it is complete when the line has stayed quiet for a
// time the caller chooses.
#ifndef KAVREL_TRANSPORT_NIR_EXCHANGE_H
#define KAVREL_TRANSPORT_NIR_EXCHANGE_H

#include <cstddef>
#include <cstdint>

namespace kavrel {

constexpr int32_t kNirMaxCommand = 8190;
constexpr int32_t kNirReceiveLimit = 16384;
constexpr uint8_t kNirAck = 0x06;
constexpr uint8_t kNirQuery = 0x3F;  // '?' before the matching set command

// Quiet times, in milliseconds, after the last reply byte.
constexpr uint32_t kNirSetQuietMs = 300;
constexpr uint32_t kNirQueryQuietMs = 500;
constexpr uint32_t kNirFlashQuietMs = 1000;

// CRC-16/MODBUS (reflected 0xA001, initial 0xFFFF, no final XOR). It travels
// high byte first, the reverse of its order on MODBUS lines.
uint16_t nir_crc16(const uint8_t *bytes, size_t length);

// Sends length (1 to 8190) command bytes to the active device and reads the
// reply until quiet_ms pass without a byte. On success copies at most
// capacity data bytes into answer and their count into *answer_length; with a
// null answer_length the data is dropped. Results: 0, -3, -5 (length), -4
// (write, read, short reply, no acknowledge), -7 (CRC), -9 (silence). On
// failure answer and *answer_length are untouched.
int32_t nir_send_command(const uint8_t *command, int32_t length, uint8_t *answer, int32_t *answer_length,
                         int32_t capacity, uint32_t quiet_ms);

// Collects bytes from the active device into buffer until quiet_ms pass
// without one or capacity bytes are in. Results: 0 with *received > 0, -9
// when nothing came, -4 on a failed read, -5 for a null received, -3 when no
// device is open.
int32_t nir_read_available(uint8_t *buffer, int32_t capacity, int32_t *received, uint32_t quiet_ms);

}  // namespace kavrel

#endif
