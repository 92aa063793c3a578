// Stored defaults, the flash write protection and the reset.
//
// The stored values live in the instrument for its own start-up; the library
// gives them no meaning, and writing them changes none of the slot's caches.
#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "settings/register_io.h"
#include "transport/device_call.h"
#include "transport/nir_exchange.h"

using namespace kavrel;
using namespace kavrel::settings;

namespace {

constexpr uint8_t kWriteProtectOpen = 0xEA;
constexpr uint8_t kResetCode = 0xAA;
constexpr uint8_t kNirOpenWriteProtect = 0xA5;
constexpr uint8_t kNirReset = 0x52;  // 'R'

int32_t write_stored_byte(const device_slot &slot, const Register &r, uint8_t value) {
    if (int32_t rc = require_cm2(slot)) return rc;
    return write_byte(r, value);
}

}  // namespace

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_integration_time(uint32_t value) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (int32_t rc = require_cm2(slot)) return rc;
        return write_word(kStoredIntegrationTime, value);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_integration_time(uint32_t *value) {
    return device_call(
        [&](device_slot &slot) { return get_cm2_value(slot, value, kStoredIntegrationTime, load_be32); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_average_number(uint8_t value) {
    return device_call(
        [&](device_slot &slot) { return write_stored_byte(slot, kStoredAverageNumber, value); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_average_number(uint8_t *value) {
    return device_call(
        [&](device_slot &slot) { return get_cm2_value(slot, value, kStoredAverageNumber, low_byte); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_smoothing_width(uint8_t value) {
    return device_call([&](device_slot &slot) -> int32_t {
        // NIR instruments keep no smoothing width: accepted, nothing is sent.
        if (speaks_nir(slot)) return KAVREL_DIRECT_OK;
        return write_stored_byte(slot, kStoredSmoothingWidth, value);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_smoothing_width(uint8_t *value) {
    return device_call(
        [&](device_slot &slot) { return get_cm2_value(slot, value, kStoredSmoothingWidth, low_byte); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_slit_width(uint8_t *value) {
    return device_call([&](device_slot &slot) { return get_cm2_value(slot, value, kSlitWidth, low_byte); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_flash_write_protect(void) {
    return device_call([&](device_slot &slot) -> int32_t {
        return speaks_nir(slot) ? send_nir({kNirOpenWriteProtect, kWriteProtectOpen}, kNirSetQuietMs)
                                : write_byte(kFlashWriteProtect, kWriteProtectOpen);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_flash_write_protect(uint32_t *is_open) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (is_open == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[kMaxAnswerBytes];
        int32_t length = 0;
        if (int32_t rc = read_setting(slot, kFlashWriteProtect, kNirFlashWriteProtect, answer, length))
            return rc;
        const uint8_t state = speaks_nir(slot) ? answer[0] : answer[3];
        *is_open = state == kWriteProtectOpen ? 1 : 0;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_reset_device(void) {
    return device_call([&](device_slot &slot) -> int32_t {
        const int32_t rc =
            speaks_nir(slot) ? send_nir({kNirReset}, kNirQueryQuietMs) : write_byte(kReset, kResetCode);
        if (rc != KAVREL_DIRECT_OK) return rc;
        // The instrument forgets its wavelength state: read it afresh.
        if (device_slot *active = active_slot()) clear_wavelength_state(*active);
        return KAVREL_DIRECT_OK;
    });
}

}  // extern "C"
