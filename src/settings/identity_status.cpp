// Placeholder: these operations are not built yet and refuse every call.
#include "kavrel_direct.h"
#include "transport/api_call.h"

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_get_temperature(float * /*degrees*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_hardware_version(char * /*buffer*/, int32_t /*size*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_detector_serial_number(char * /*buffer*/, int32_t /*size*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_device_model(char * /*buffer*/, int32_t /*size*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_usb_baud_rate(uint16_t /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_usb_baud_rate(uint16_t * /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_usb_status(uint32_t * /*status*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_serial_number(const char * /*serial_number*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_serial_number(char * /*buffer*/, int32_t /*size*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_device_info(kavrel_direct_device_info * /*info*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

}  // extern "C"
