// Placeholder: these operations are not built yet and refuse every call.
#include "kavrel_direct.h"
#include "transport/api_call.h"

extern "C" {

KAVREL_DIRECT_API int32_t kavrel_direct_get_calibration_coefficients(double /*coefficients*/[4]) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_wavelength_count(uint16_t * /*count*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_full_wavelength_data(double * /*wavelengths*/,
                                                                 int32_t /*capacity*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_full_wavelength_range(double * /*first*/, double * /*last*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_set_selected_wavelength_range(double /*start*/, double /*end*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t
kavrel_direct_get_selected_wavelength_range(kavrel_direct_wavelength_selection * /*selection*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

KAVREL_DIRECT_API int32_t kavrel_direct_get_selected_wavelength_data(double * /*wavelengths*/,
                                                                     int32_t /*capacity*/) {
    return kavrel::api_call([] { return int32_t{KAVREL_DIRECT_ERR_UNSUPPORTED}; });
}

}  // extern "C"
