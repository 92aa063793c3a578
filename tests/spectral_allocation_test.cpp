// Every spectral operation needs an open device first. (Their allocation
// failures are tested with every other operation's, in allocation_failure.cpp.)
#include <functional>
#include <iterator>

#include "support/device_fixture.h"

namespace kavrel::test {
namespace {

using SpectralGuard = DeviceTest;

TEST_F(SpectralGuard, EveryOperationNeedsAnOpenDeviceBeforeItsArguments) {
    const std::function<int32_t()> calls[] = {
        [] { return kavrel_direct_get_calibration_coefficients(nullptr); },
        [] { return kavrel_direct_get_wavelength_count(nullptr); },
        [] { return kavrel_direct_get_full_wavelength_data(nullptr, 0); },
        [] { return kavrel_direct_get_full_wavelength_range(nullptr, nullptr); },
        [] { return kavrel_direct_set_selected_wavelength_range(2, 1); },
        [] { return kavrel_direct_get_selected_wavelength_range(nullptr); },
        [] { return kavrel_direct_get_selected_wavelength_data(nullptr, 0); },
        [] { return kavrel_direct_get_full_spectrum_data(nullptr, 0); },
        [] { return kavrel_direct_get_selected_spectrum_data(nullptr, 0); },
        [] { return kavrel_direct_flash_read(0, nullptr, 0); },
        [] { return kavrel_direct_flash_write(0, nullptr, -1); },
        [] { return kavrel_direct_external_spectrum_control(0, nullptr, 0); },
    };
    bridge.attach("CM2A0001");
    for (size_t i = 0; i < std::size(calls); ++i) EXPECT_EQ(calls[i](), KAVREL_DIRECT_ERR_NOT_OPEN) << i;
    EXPECT_TRUE(bridge.calls.empty());
}

}  // namespace
}  // namespace kavrel::test
