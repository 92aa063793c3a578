// The operations whose answers come from the simulated instrument's model,
// through the exported functions, on a simulated CM2 and NIR instrument:
// the calibration, the counted spectra, the flash, the reset and the
// external trigger. (The bytes of every operation are the unit tests'; the
// settings read back through the simulator are the Python tests'.)
#include <cmath>
#include <numeric>

#include "sim_fixture.h"

namespace kavrel::test {
namespace {

#define TRY(call) \
    if (const int32_t rc_ = (call); rc_ != OK) return rc_

bool is_nir(const kavrel_sim_config &c) {
    return c.instrument == NIR;
}

double polynomial(const kavrel_sim_config &c, double i) {
    const double *k = c.coefficients;
    return k[0] + k[1] * i + k[2] * i * i + k[3] * i * i * i;
}

struct Operation {
    const char *name;
    bool cm2_only;  // NIR answers KAVREL_DIRECT_ERR_UNSUPPORTED
    int32_t (*run)(const kavrel_sim_config &c);
};

const Operation kOperations[] = {
    {"ConfiguredIdentity", false,
     [](auto &c) {
         kavrel_direct_device_info info;
         float t = 0;
         TRY(kavrel_direct_get_device_info(&info));
         TRY(kavrel_direct_get_temperature(&t));
         EXPECT_EQ(
             std::string(info.model) + "|" + info.serial_number + "|" + info.hardware_version,
             std::string(c.model) + "|" + (is_nir(c) ? "NIR" : c.serial_number) + "|" + c.hardware_version);
         EXPECT_EQ(t, c.temperature_c);
         return OK;
     }},
    {"DacKeeps12Bits", true,
     [](auto &) {
         uint16_t v = 0;
         TRY(kavrel_direct_set_dac_voltage(0x1234));
         TRY(kavrel_direct_get_dac_voltage(&v));
         EXPECT_EQ(v, 0x234);
         return OK;
     }},
    {"ResetReloadsStoredSettings", false,
     [](auto &c) {
         uint32_t time = 0, open = 2, before = 2;
         uint8_t averages = 0;
         if (!is_nir(c)) TRY(kavrel_direct_set_stored_average_number(5));
         TRY(kavrel_direct_set_integration_time(20000));
         TRY(kavrel_direct_set_average_number(9));
         TRY(kavrel_direct_get_flash_write_protect(&before));
         TRY(kavrel_direct_set_flash_write_protect());
         TRY(kavrel_direct_get_flash_write_protect(&open));
         EXPECT_EQ(before * 10 + open, 1u);  // closed at power-up, then open
         TRY(kavrel_direct_reset_device());
         TRY(kavrel_direct_get_integration_time(&time));
         TRY(kavrel_direct_get_average_number(&averages));
         TRY(kavrel_direct_get_flash_write_protect(&open));
         EXPECT_EQ(time, 10000u);
         EXPECT_EQ(averages, is_nir(c) ? 1 : 5);
         EXPECT_EQ(open, 0u);
         return OK;
     }},
    {"WavelengthTableIsTheCalibrationPolynomial", false,
     [](auto &c) {
         uint16_t count = 0;
         double k[4] = {}, first = 0, last = 0;
         TRY(kavrel_direct_get_calibration_coefficients(k));
         EXPECT_EQ(std::vector<double>(k, k + 4), std::vector<double>(c.coefficients, c.coefficients + 4));
         TRY(kavrel_direct_get_wavelength_count(&count));
         EXPECT_EQ(count, c.point_count);
         std::vector<double> w(count);
         TRY(kavrel_direct_get_full_wavelength_data(w.data(), count));
         for (uint32_t i = 0; i < count; ++i) EXPECT_NEAR(w[i], polynomial(c, i), 2e-4) << "point " << i;
         TRY(kavrel_direct_get_full_wavelength_range(&first, &last));
         EXPECT_EQ(first, w.front());
         EXPECT_EQ(last, w.back());
         return OK;
     }},
    // The middle third of the table, selected by its end wavelengths.
    {"SelectedSpectrumIsItsPartOfTheWhole", false,
     [](auto &c) {
         const uint32_t from = c.point_count / 3, to = 2 * c.point_count / 3;
         kavrel_direct_wavelength_selection s;
         TRY(kavrel_direct_set_selected_wavelength_range(polynomial(c, from) - 1e-3,
                                                         polynomial(c, to) + 1e-3));
         TRY(kavrel_direct_get_selected_wavelength_range(&s));
         EXPECT_EQ(s.start_index * 10000 + s.end_index, from * 10000 + to);
         std::vector<double> w(s.selected_count);
         TRY(kavrel_direct_get_selected_wavelength_data(w.data(), s.selected_count));
         EXPECT_NEAR(w.front(), polynomial(c, from), 2e-4);
         EXPECT_NEAR(w.back(), polynomial(c, to), 2e-4);
         std::vector<uint16_t> part(s.selected_count);
         TRY(kavrel_direct_set_average_number(16));  // quiet enough to compare two spectra
         TRY(kavrel_direct_get_selected_spectrum_data(part.data(), s.selected_count));
         const std::vector<uint16_t> whole = spectrum(c.point_count);
         const double a = std::accumulate(part.begin(), part.end(), 0.0);
         EXPECT_NEAR(a / std::accumulate(whole.begin() + from, whole.begin() + to + 1, 0.0), 1.0, 0.01);
         return OK;
     }},
    // Two pages written, the first read back: from flash, not from the page
    // buffer the second write left behind.
    {"FlashPagesRoundTrip", false,
     [](auto &) {
         // CM2 reads whole words: the room for 101 bytes is 104.
         std::vector<uint8_t> page(101), other(101, 0x3C), back(104);
         for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i * 7);
         TRY(kavrel_direct_set_flash_write_protect());  // NIR page writes need it; CM2 opens it itself
         TRY(kavrel_direct_flash_write(7, page.data(), 101));
         TRY(kavrel_direct_flash_write(8, other.data(), 101));
         const int32_t n = kavrel_direct_flash_read(7, back.data(), 101);
         if (n < 0) return n;
         EXPECT_GE(n, 101);
         EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + 101), page);
         return OK;
     }},
    // The trigger starts one acquisition, of 300 ms here; the spectrum read
    // afterwards is the one it took, not another.
    {"ExternalSpectrumIsTheTriggeredOne", true,
     [](auto &c) {
         std::vector<uint16_t> s(c.point_count);
         uint64_t before = 0, after = 0;
         TRY(kavrel_direct_set_integration_time(300000));
         TRY(kavrel_direct_get_spectrum_capture_status(&before));
         const double start = kavrel_sim_now_ms();
         const int32_t n =
             kavrel_direct_external_spectrum_control(1, s.data(), static_cast<int32_t>(s.size()));
         const double took = kavrel_sim_now_ms() - start;
         if (n < 0) return n;
         TRY(kavrel_direct_get_spectrum_capture_status(&after));
         EXPECT_EQ(n, static_cast<int32_t>(2 * c.point_count));
         EXPECT_EQ(after, before + 1);
         EXPECT_GT(took, 300);
         EXPECT_LT(took, 400);
         EXPECT_GT(*std::min_element(s.begin(), s.end()), 0);
         // A spectrum taken on request counts too.
         spectrum(c.point_count);
         TRY(kavrel_direct_get_spectrum_capture_status(&before));
         EXPECT_EQ(before, after + 1);
         return OK;
     }},
};

class Operations : public SimTest, public ::testing::WithParamInterface<std::tuple<Operation, uint32_t>> {};

TEST_P(Operations, AnswerAsTheInstrumentHoldsThem) {
    const auto &[operation, kind] = GetParam();
    const kavrel_sim_config c = attach_and_open(kind, "SIM-A");
    const bool none = kind == NIR && operation.cm2_only;
    EXPECT_EQ(operation.run(c), none ? KAVREL_DIRECT_ERR_UNSUPPORTED : OK);
}

INSTANTIATE_TEST_SUITE_P(BothProtocols, Operations,
                         ::testing::Combine(::testing::ValuesIn(kOperations), ::testing::Values(CM2, NIR)),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    protocol_name(std::get<1>(info.param));
                         });

}  // namespace
}  // namespace kavrel::test
