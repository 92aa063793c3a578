// Every per-call heap buffer of the spectral operations: an allocation that
// fails at any site gives -5, leaves the caller's memory and the selection as
// they were, and leaks nothing. And every spectral operation needs an open
// device first.
#include <cstring>
#include <functional>
#include <iterator>

#include "spectral/transfer_buffer.h"
#include "support/device_fixture.h"
#include "support/spectral_model.h"

namespace kavrel::test {
namespace {

struct Outputs {
    double wavelengths[8];
    uint16_t samples[8];
    uint8_t page[16];
    double low, high;
    uint16_t count;
};

Outputs untouched_outputs() {
    Outputs o;
    std::memset(&o, 0xA5, sizeof o);
    return o;
}

struct Operation {
    const char *name;
    int cm2_allocations;  // buffers one successful call takes
    int nir_allocations;  // -1: no NIR form
    std::function<int32_t(Outputs &)> call;
};

const uint8_t kPageData[4] = {1, 2, 3, 4};

const Operation kOperations[] = {
    {"count", 0, 1, [](Outputs &o) { return kavrel_direct_get_wavelength_count(&o.count); }},
    {"whole table", 1, 1,
     [](Outputs &o) { return kavrel_direct_get_full_wavelength_data(o.wavelengths, 8); }},
    {"end values", 2, 3, [](Outputs &o) { return kavrel_direct_get_full_wavelength_range(&o.low, &o.high); }},
    {"set selection", 4, 6, [](Outputs &) { return kavrel_direct_set_selected_wavelength_range(405, 435); }},
    {"selected wavelengths", 1, 3,
     [](Outputs &o) { return kavrel_direct_get_selected_wavelength_data(o.wavelengths, 8); }},
    {"whole spectrum", 1, 1, [](Outputs &o) { return kavrel_direct_get_full_spectrum_data(o.samples, 8); }},
    {"selected spectrum", 2, 3,
     [](Outputs &o) { return kavrel_direct_get_selected_spectrum_data(o.samples, 8); }},
    {"flash write", 0, 1, [](Outputs &) { return kavrel_direct_flash_write(3, kPageData, 4); }},
    {"flash read", 0, 0, [](Outputs &o) { return kavrel_direct_flash_read(3, o.page, 16); }},
    {"external spectrum", 1, -1,
     [](Outputs &o) { return kavrel_direct_external_spectrum_control(1, o.samples, 8); }},
};

class SpectralAllocation : public DeviceTest, public ::testing::WithParamInterface<bool> {
protected:
    SpectralModel model;
    bool nir() const { return GetParam(); }

    void SetUp() override {
        DeviceTest::SetUp();
        model.table = {400, 410, 420, 430, 440};
        model.spectrum = {10, 11, 12, 13, 14};
        const int device = nir() ? open_nir() : open_cm2();
        model.serve(bridge, device, nir());
    }
    void TearDown() override {
        transfer_hooks::fail_nth_allocation(0);
        DeviceTest::TearDown();
    }
    // The state every run starts from: nothing cached, points 1 to 3 selected.
    void prepare() {
        active().wavelength_count = 0;
        active().selection_valid = 1;
        active().start_index = 1;
        active().end_index = 3;
        active().selected_count = 3;
    }
};

TEST_P(SpectralAllocation, EveryAllocationSiteFailsCleanly) {
    for (const Operation &op : kOperations) {
        SCOPED_TRACE(op.name);
        const int expected = nir() ? op.nir_allocations : op.cm2_allocations;
        if (expected < 0) continue;

        prepare();
        Outputs out = untouched_outputs();
        const int before = transfer_hooks::allocations_attempted();
        ASSERT_GE(op.call(out), 0);
        ASSERT_EQ(transfer_hooks::allocations_attempted() - before, expected);
        EXPECT_EQ(transfer_hooks::buffers_live(), 0);

        for (int nth = 1; nth <= expected; ++nth) {
            SCOPED_TRACE(nth);
            prepare();
            out = untouched_outputs();
            transfer_hooks::fail_nth_allocation(nth);
            EXPECT_EQ(op.call(out), KAVREL_DIRECT_ERR_INVALID_ARG);
            EXPECT_EQ(transfer_hooks::buffers_live(), 0);
            const Outputs untouched = untouched_outputs();
            EXPECT_EQ(std::memcmp(&out, &untouched, sizeof out), 0) << "output written on failure";
            EXPECT_EQ(active().start_index, 1);
            EXPECT_EQ(active().selected_count, 3);
        }
        transfer_hooks::fail_nth_allocation(0);
    }
}

INSTANTIATE_TEST_SUITE_P(Spectral, SpectralAllocation, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &info) {
                             return info.param ? "Nir" : "Cm2";
                         });

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
