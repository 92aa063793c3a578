// Placeholder: these operations are not built yet and refuse every call.
#include "kavrel_direct.h"
#include "transport/api_call.h"

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_flash_read(uint16_t /*page*/, uint8_t * /*buffer*/,
                                                   int32_t /*length*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_flash_write(uint16_t /*page*/, const uint8_t * /*data*/,
                                                    int32_t /*length*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

}  // extern "C"
