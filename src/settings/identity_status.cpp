// Identity and status: temperature, hardware version, model, serial numbers,
// USB baud rate and status, and the combined device information.
#include <cstdio>
#include <cstring>

#include "kavrel_direct.h"
#include "protocol/byte_order.h"
#include "settings/register_io.h"
#include "transport/device_call.h"

using namespace kavrel;
using namespace kavrel::settings;

namespace {

constexpr uint8_t kUsbStatusSet = 0xAA;
constexpr float kDegreesPerCount = 0.0625f;

// An NIR instrument reports its temperature in 16 bits whose top five bits
// all set mean a value below zero, counted down from 65536; otherwise only
// the low 11 bits count. CM2 instruments report whole counts, never negative.
float nir_temperature(uint16_t raw) {
    if ((raw >> 11) == 0x1F) return static_cast<float>(65536 - raw) * -kDegreesPerCount;
    return static_cast<float>(raw & 0x07FFu) * kDegreesPerCount;
}

bool text_buffer_ok(const char *buffer, int32_t size) {
    return buffer != nullptr && size >= 2;
}


int32_t hardware_version_text(device_slot &slot, char *buffer, int32_t size) {
    if (!text_buffer_ok(buffer, size)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    uint8_t answer[kMaxAnswerBytes];
    int32_t length = 0;
    if (int32_t rc = read_setting(slot, kHardwareVersion, kNirHardwareVersion, answer, length)) return rc;
    if (speaks_nir(slot))
        copy_text(buffer, size, answer, length);
    else  // four version numbers; the second word carries nothing
        std::snprintf(buffer, static_cast<size_t>(size), "%02X.%02X.%02X.%02X", answer[0], answer[1],
                      answer[2], answer[3]);
    return KAVREL_DIRECT_OK;
}

int32_t model_text(device_slot &slot, char *buffer, int32_t size) {
    if (!text_buffer_ok(buffer, size)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    uint8_t answer[kMaxAnswerBytes];
    int32_t length = 0;
    if (!speaks_nir(slot)) {
        if (int32_t rc = read_register(kDeviceModel, answer)) return rc;
        copy_text(buffer, size, answer, kDeviceModel.bytes());
        return KAVREL_DIRECT_OK;
    }
    // Older NIR instruments may not know the model query: any failure
    // still names the family rather than fail the caller.
    if (read_nir(kNirDeviceModel, answer, length) == KAVREL_DIRECT_OK)
        std::snprintf(buffer, static_cast<size_t>(size), "NIR-T%u-%04X",
                      static_cast<unsigned>(answer[0] & 0x0F),
                      static_cast<unsigned>(load_be16(answer + 3)));
    else
        std::snprintf(buffer, static_cast<size_t>(size), "NIR");
    return KAVREL_DIRECT_OK;
}

int32_t serial_number_text(device_slot &slot, char *buffer, int32_t size) {
    if (!text_buffer_ok(buffer, size)) return KAVREL_DIRECT_ERR_INVALID_ARG;
    // NIR instruments keep no serial number the library can read.
    if (speaks_nir(slot)) {
        std::snprintf(buffer, static_cast<size_t>(size), "NIR");
        return KAVREL_DIRECT_OK;
    }
    uint8_t answer[12];
    if (int32_t rc = read_register(kSerialNumber, answer)) return rc;
    copy_text(buffer, size, answer, kSerialNumber.bytes());
    return KAVREL_DIRECT_OK;
}

}  // namespace

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_get_temperature(float *degrees) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (degrees == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[kMaxAnswerBytes];
        int32_t length = 0;
        if (int32_t rc = read_setting(slot, kTemperature, kNirTemperature, answer, length)) return rc;
        *degrees = speaks_nir(slot) ? nir_temperature(load_be16(answer))
                                    : static_cast<float>(load_be16(answer + 2)) * kDegreesPerCount;
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_hardware_version(char *buffer, int32_t size) {
    return device_call([&](device_slot &slot) { return hardware_version_text(slot, buffer, size); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_detector_serial_number(char *buffer, int32_t size) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (buffer == nullptr || size < 1) return KAVREL_DIRECT_ERR_INVALID_ARG;
        uint8_t answer[8];
        if (int32_t rc = read_cm2_only(slot, kDetectorSerial, answer)) return rc;
        copy_text(buffer, size, answer, kDetectorSerial.bytes());
        return KAVREL_DIRECT_OK;
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_device_model(char *buffer, int32_t size) {
    return device_call([&](device_slot &slot) { return model_text(slot, buffer, size); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_usb_baud_rate(uint16_t value) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (int32_t rc = require_cm2(slot)) return rc;
        return write_word(kUsbBaudRate, value);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_usb_baud_rate(uint16_t *value) {
    return device_call([&](device_slot &slot) {
        return get_cm2_value(slot, value, kUsbBaudRate, [](const uint8_t *a) { return load_be16(a + 2); });
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_usb_status(uint32_t *status) {
    return device_call([&](device_slot &slot) {
        return get_cm2_value(slot, status, kUsbStatus,
                             [](const uint8_t *a) { return a[3] == kUsbStatusSet ? 1u : 0u; });
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_serial_number(const char *serial_number) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (serial_number == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        if (int32_t rc = require_cm2(slot)) return rc;
        // Twelve bytes padded with 0; a full-length serial carries no terminator.
        uint8_t data[12] = {};
        for (size_t i = 0; i < sizeof data && serial_number[i] != '\0'; ++i)
            data[i] = static_cast<uint8_t>(serial_number[i]);
        return write_register(kSerialNumber, data, sizeof data);
    });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_serial_number(char *buffer, int32_t size) {
    return device_call([&](device_slot &slot) { return serial_number_text(slot, buffer, size); });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_device_info(kavrel_direct_device_info *info) {
    return device_call([&](device_slot &slot) -> int32_t {
        if (info == nullptr) return KAVREL_DIRECT_ERR_INVALID_ARG;
        std::memset(info, 0, sizeof *info);
        info->protocol = slot.protocol;
        info->capabilities = slot.capabilities;
        const char *name = slot.protocol == KAVREL_DIRECT_PROTOCOL_CM2   ? "UVVIS_CM2"
                           : slot.protocol == KAVREL_DIRECT_PROTOCOL_NIR ? "NIR_LEGACY"
                                                                         : "UNKNOWN";
        std::snprintf(info->protocol_name, sizeof info->protocol_name, "%s", name);
        // Each request that fails leaves only its own field empty.
        if (model_text(slot, info->model, sizeof info->model) != KAVREL_DIRECT_OK) info->model[0] = '\0';
        if (serial_number_text(slot, info->serial_number, sizeof info->serial_number) != KAVREL_DIRECT_OK)
            info->serial_number[0] = '\0';
        if (hardware_version_text(slot, info->hardware_version, sizeof info->hardware_version) !=
            KAVREL_DIRECT_OK)
            info->hardware_version[0] = '\0';
        return KAVREL_DIRECT_OK;
    });
}

}  // extern "C"
