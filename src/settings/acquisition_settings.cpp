// Acquisition settings: integration time, average number, level output, the
// xenon lamp, the external trigger, the DAC and the capture status word.
//
// The integration time and the average number size the spectrum time limit,
// so every successful set or get of them refreshes the slot's cache; a failed
// call leaves it alone.
#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "settings/register_io.h"
#include "transport/device_call.h"
#include "transport/nir_exchange.h"

using namespace kavrel;
using namespace kavrel::settings;

namespace {

constexpr uint8_t kNirSetIntegrationTime = 0x69;  // 'i'
constexpr uint8_t kNirSetAverageNumber = 0x41;    // 'A'
constexpr uint8_t kNirSetLevelOutput = 0x40;
// The 12-bit DAC value sits in the top 12 bits of its word.
constexpr int kDacShift = 20;

void cache_integration_time(uint32_t microseconds) {
    if (device_slot *slot = active_slot()) slot->integration_time = microseconds;
}

// The spectrum time limit multiplies by the average number: 0 counts as 1.
void cache_average_number(uint8_t average_number) {
    if (device_slot *slot = active_slot()) slot->average_number = average_number == 0 ? 1 : average_number;
}

}  // namespace

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_set_integration_time(uint32_t microseconds) {
    return device_call([&](device_slot &slot) -> int32_t {
        uint8_t value[4];
        store_be32(value, microseconds);
        const int32_t rc =
            speaks_nir(slot)
                ? send_nir({kNirSetIntegrationTime, value[0], value[1], value[2], value[3]}, kNirSetQuietMs)
                : write_register(kIntegrationTime, value, sizeof value);
        if (rc == KAVREL_DIRECT_OK) cache_integration_time(microseconds);
        return rc;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_integration_time(uint32_t *microseconds) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (microseconds == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[kMaxAnswerBytes];
        int32_t length = 0;
        if (int32_t rc = read_setting(slot, kIntegrationTime, kNirIntegrationTime, answer, length)) return rc;
        *microseconds = load_be32(answer);
        cache_integration_time(*microseconds);
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_average_number(uint8_t average_number) {
    return device_call([&](device_slot &slot) -> int32_t {
        // NIR takes the average number as 16 bits.
        const int32_t rc = speaks_nir(slot)
                               ? send_nir({kNirSetAverageNumber, 0x00, average_number}, kNirSetQuietMs)
                               : write_byte(kAverageNumber, average_number);
        if (rc == KAVREL_DIRECT_OK) cache_average_number(average_number);
        return rc;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_average_number(uint8_t *average_number) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (average_number == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[kMaxAnswerBytes];
        int32_t length = 0;
        if (int32_t rc = read_setting(slot, kAverageNumber, kNirAverageNumber, answer, length)) return rc;
        // NIR answers 16 bits big-endian, of which the low byte counts.
        *average_number = speaks_nir(slot) ? answer[1] : answer[3];
        cache_average_number(*average_number);
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_level_output(uint8_t level) {
    return device_call([&](device_slot &slot) -> int32_t {
        return speaks_nir(slot) ? send_nir({kNirSetLevelOutput, level}, kNirSetQuietMs)
                                : write_byte(kLevelOutput, level);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_level_output(uint8_t *level) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (level == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[kMaxAnswerBytes];
        int32_t length = 0;
        if (int32_t rc = read_setting(slot, kLevelOutput, kNirLevelOutput, answer, length)) return rc;
        *level = speaks_nir(slot) ? answer[0] : answer[3];
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_xenon_pulse(uint32_t first, uint32_t second) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (int32_t rc = require_cm2(slot)) return rc;
        uint8_t data[8];
        store_be32(data, first);
        store_be32(data + 4, second);
        return write_register(kXenonPulse, data, sizeof data);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_xenon_pulse(uint32_t *first, uint32_t *second) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (first == nullptr || second == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[8];
        if (int32_t rc = read_cm2_only(slot, kXenonPulse, answer)) return rc;
        *first = load_be32(answer);
        *second = load_be32(answer + 4);
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_xenon_mode(uint8_t mode) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (int32_t rc = require_cm2(slot)) return rc;
        return write_byte(kXenonMode, mode);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_xenon_mode(uint8_t *mode) {
    return device_call([&](device_slot &slot) { return get_cm2_value(slot, mode, kXenonMode, low_byte); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_external_trigger_config(uint8_t first, uint8_t second,
                                                                    uint8_t third) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (int32_t rc = require_cm2(slot)) return rc;
        const uint8_t data[4] = {first, second, 0, third};
        return write_register(kTriggerConfig, data, sizeof data);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_external_trigger_config(uint8_t *first, uint8_t *second,
                                                                    uint8_t *third) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (first == nullptr || second == nullptr || third == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[4];
        if (int32_t rc = read_cm2_only(slot, kTriggerConfig, answer)) return rc;
        *first = answer[0];
        *second = answer[1];
        *third = answer[3];  // byte 2 carries nothing
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_dac_voltage(uint16_t value) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (int32_t rc = require_cm2(slot)) return rc;
        return write_word(kDacVoltage, static_cast<uint32_t>(value & 0x0FFFu) << kDacShift);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_dac_voltage(uint16_t *value) {
    return device_call([&](device_slot &slot) {
        return get_cm2_value(slot, value, kDacVoltage, [](const uint8_t *a) {
            return static_cast<uint16_t>(load_be32(a) >> kDacShift);
        });
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_spectrum_capture_status(uint64_t *status) {
    return device_call(
        [&](device_slot &slot) { return get_cm2_value(slot, status, kCaptureStatus, load_be64); });
}

}  // extern "C"
