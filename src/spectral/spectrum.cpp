// Placeholder: these operations are not built yet and refuse every call.
#include "kavrel_direct.h"
#include "transport/api_call.h"

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_get_full_spectrum_data(uint16_t * /*samples*/, int32_t /*capacity*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_selected_spectrum_data(uint16_t * /*samples*/,
                                                                   int32_t /*capacity*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

}  // extern "C"
