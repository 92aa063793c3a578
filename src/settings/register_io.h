// The register map of the settings, identity and stored values, and the few
// shapes every such request takes.
//
// Each operation of these families is one request: an NIR command, or a CM2
// query or write of a few words at one register address. The operations
// differ only in that address, the command bytes and how the answer decodes,
// so they are written as a line of data here plus a decoder.
#ifndef KAVREL_SETTINGS_REGISTER_IO_H
#define KAVREL_SETTINGS_REGISTER_IO_H

#include <cstdint>
#include <initializer_list>

#include "kavrel_direct.h"
#include "transport/cm2_exchange.h"
#include "transport/device_table.h"

namespace kavrel::settings {

// One CM2 register word run: register byte, address of the first word, words.
struct Register {
    uint8_t reg;
    uint32_t address;
    uint32_t words;
    int32_t bytes() const { return static_cast<int32_t>(4 * words); }
};

// Register 0xC1: acquisition settings, identity and status, control words.
constexpr Register kIntegrationTime{kRegControl, 0x000000, 1};
constexpr Register kXenonPulse{kRegControl, 0x000001, 2};
constexpr Register kXenonMode{kRegControl, 0x000003, 1};
constexpr Register kAverageNumber{kRegControl, 0x000010, 1};
constexpr Register kLevelOutput{kRegControl, 0x000011, 1};
constexpr Register kFlashWriteProtect{kRegControl, 0x000012, 1};
constexpr Register kReset{kRegControl, 0x000013, 1};
constexpr Register kTemperature{kRegControl, 0x000040, 1};
constexpr Register kHardwareVersion{kRegControl, 0x000041, 2};
constexpr Register kUsbBaudRate{kRegControl, 0x000043, 1};
constexpr Register kDetectorSerial{kRegControl, 0x000044, 2};
constexpr Register kDeviceModel{kRegControl, 0x000046, 4};
constexpr Register kUsbStatus{kRegControl, 0x000050, 1};
constexpr Register kTriggerConfig{kRegControl, 0x000051, 1};
constexpr Register kCaptureStatus{kRegControl, 0x000052, 2};
constexpr Register kDacVoltage{kRegControl, 0x000064, 1};
// Register 0xC2: values the instrument keeps across power cycles.
constexpr Register kStoredIntegrationTime{kRegStored, 0x000000, 1};
constexpr Register kStoredAverageNumber{kRegStored, 0x000001, 1};
constexpr Register kStoredSmoothingWidth{kRegStored, 0x000002, 1};
constexpr Register kSlitWidth{kRegStored, 0x000003, 1};
constexpr Register kSerialNumber{kRegStored, 0x000004, 3};

// An NIR query: its command bytes, the reply room handed to the exchange and
// the fewest data bytes that make a usable answer.
struct NirQuery {
    uint8_t command[2];
    int32_t command_length;
    int32_t capacity;
    int32_t minimum;
};

// The settings an NIR instrument answers; a query is '?' and the byte of the
// matching set command, the identity requests are plain command bytes.
constexpr NirQuery kNirIntegrationTime{{0x3F, 0x69}, 2, 4, 4};
constexpr NirQuery kNirAverageNumber{{0x3F, 0x41}, 2, 2, 2};
constexpr NirQuery kNirLevelOutput{{0x3F, 0x40}, 2, 1, 1};
constexpr NirQuery kNirFlashWriteProtect{{0x3F, 0xA5}, 2, 1, 1};
constexpr NirQuery kNirTemperature{{0x74}, 1, 2, 2};
constexpr NirQuery kNirHardwareVersion{{0x56}, 1, 20, 0};  // any text, even none
constexpr NirQuery kNirDeviceModel{{0xBB}, 1, 8, 8};

// Room for the answer of any query here: the NIR hardware version's 20
// bytes, the largest; the model's four words (16 bytes) fit too.
constexpr int32_t kMaxAnswerBytes = 20;

// Reads register r into answer (room for r.bytes()). An answer shorter than
// the words asked for is -4; exchange failures are returned unchanged.
int32_t read_register(const Register &r, uint8_t *answer);

// Sends q and reads its answer into answer (room for q.capacity); length
// receives the data bytes. Fewer than q.minimum is -4.
int32_t read_nir(const NirQuery &q, uint8_t *answer, int32_t &length);

// A value with both forms: the NIR query on an NIR instrument, the register
// on any other. answer has room for kMaxAnswerBytes.
int32_t read_setting(const device_slot &slot, const Register &r, const NirQuery &q, uint8_t *answer,
                     int32_t &length);

// A register of an operation that has only a CM2 form: -11 on any other
// protocol before anything is sent, else as read_register.
int32_t read_cm2_only(const device_slot &slot, const Register &r, uint8_t *answer);

// A getter with only a CM2 form: -5 for a null output, -11 on any other
// protocol, then the register decoded into *out. out is written only on
// success.
template <typename T, typename Decode>
int32_t get_cm2_value(const device_slot &slot, T *out, const Register &r, Decode decode) {
    if (out == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
    uint8_t answer[kMaxAnswerBytes];
    if (int32_t rc = read_cm2_only(slot, r, answer)) return rc;
    *out = decode(answer);
    return KAVREL_DIRECT_OK;
}

// Byte 3 of a word: where every one-byte setting sits.
inline uint8_t low_byte(const uint8_t *word) {
    return word[3];
}

// CM2 writes: length bytes as they are; a 32-bit word big-endian; a one-byte
// setting in byte 3 of its word with the other three bytes 0.
int32_t write_register(const Register &r, const uint8_t *data, uint32_t length);
int32_t write_word(const Register &r, uint32_t value);
int32_t write_byte(const Register &r, uint8_t value);

// An NIR command without answer data; the reply is still read and checked.
int32_t send_nir(std::initializer_list<uint8_t> command, uint32_t quiet_ms);

// Copies n text bytes into buffer of size bytes, cut to size - 1 and always
// terminated. size is at least 1.
void copy_text(char *buffer, int32_t size, const uint8_t *text, int32_t n);

}  // namespace kavrel::settings

#endif
