// Placeholder: these operations are not built yet and refuse every call.
#include "kavrel_direct.h"
#include "transport/api_call.h"

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_integration_time(uint32_t /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_integration_time(uint32_t * /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_average_number(uint8_t /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_average_number(uint8_t * /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_stored_smoothing_width(uint8_t /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_stored_smoothing_width(uint8_t * /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_slit_width(uint8_t * /*value*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_flash_write_protect(void) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_flash_write_protect(uint32_t * /*is_open*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_reset_device(void) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

}  // extern "C"
