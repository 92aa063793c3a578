// The operations whose answers come from the simulated instrument's model,
// through the exported functions, on a simulated CM2 and NIR instrument:
// the calibration, the counted spectra, the flash, the reset and the
// external trigger. (The bytes of every operation are the unit tests'; the
// settings read back through the simulator are the Python tests'.)
#include <cmath>
#include <cstring>
#include <functional>
#include <numeric>

#include "sim_fixture.h"

namespace kavrel::test {
namespace {

constexpr int32_t OK = KAVREL_DIRECT_OK;
constexpr int32_t NONE = KAVREL_DIRECT_ERR_UNSUPPORTED;

#define TRY(call) \
    if (const int32_t rc_ = (call); rc_ != OK) return rc_

struct Operation {
    const char *name;
    int32_t cm2;  // the result on each protocol
    int32_t nir;
    std::function<int32_t(const kavrel_sim_config &)> run;
};

bool is_nir(const kavrel_sim_config &c) {
    return c.instrument == KAVREL_SIM_NIR;
}

double polynomial(const kavrel_sim_config &c, double i) {
    return c.coefficients[0] + c.coefficients[1] * i + c.coefficients[2] * i * i +
           c.coefficients[3] * i * i * i;
}

// The middle third of the table, selected by its end wavelengths.
int32_t select_middle(const kavrel_sim_config &c, kavrel_direct_wavelength_selection &s) {
    const double first = polynomial(c, c.point_count / 3), last = polynomial(c, 2 * c.point_count / 3);
    TRY(kavrel_direct_set_selected_wavelength_range(first - 1e-3, last + 1e-3));
    return kavrel_direct_get_selected_wavelength_range(&s);
}

const Operation kOperations[] = {
    {"ConfiguredIdentity", OK, OK,
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
    {"DacKeeps12Bits", OK, NONE,
     [](auto &) {
         uint16_t v = 0;
         TRY(kavrel_direct_set_dac_voltage(0x1234));
         TRY(kavrel_direct_get_dac_voltage(&v));
         EXPECT_EQ(v, 0x234);
         return OK;
     }},
    {"CaptureStatusCountsSpectra", OK, NONE,
     [](auto &c) {
         uint64_t before = 0, after = 0;
         TRY(kavrel_direct_get_spectrum_capture_status(&before));
         std::vector<uint16_t> s(c.point_count);
         TRY(kavrel_direct_get_full_spectrum_data(s.data(), static_cast<int32_t>(s.size())));
         TRY(kavrel_direct_get_spectrum_capture_status(&after));
         EXPECT_EQ(after, before + 1);
         return OK;
     }},
    {"FlashWriteProtect", OK, OK,
     [](auto &) {
         uint32_t before = 2, after = 2;
         TRY(kavrel_direct_get_flash_write_protect(&before));
         TRY(kavrel_direct_set_flash_write_protect());
         TRY(kavrel_direct_get_flash_write_protect(&after));
         EXPECT_EQ(before * 10 + after, 1u);  // closed at power-up, then open
         return OK;
     }},
    {"ResetReloadsStoredSettings", OK, OK,
     [](auto &c) {
         uint32_t time = 0, open = 2;
         uint8_t averages = 0;
         if (!is_nir(c)) TRY(kavrel_direct_set_stored_average_number(5));
         TRY(kavrel_direct_set_integration_time(20000));
         TRY(kavrel_direct_set_average_number(9));
         TRY(kavrel_direct_set_flash_write_protect());
         TRY(kavrel_direct_reset_device());
         TRY(kavrel_direct_get_integration_time(&time));
         TRY(kavrel_direct_get_average_number(&averages));
         TRY(kavrel_direct_get_flash_write_protect(&open));
         EXPECT_EQ(time, 10000u);
         EXPECT_EQ(averages, is_nir(c) ? 1 : 5);
         EXPECT_EQ(open, 0u);
         return OK;
     }},
    {"WavelengthTableIsTheCalibrationPolynomial", OK, OK,
     [](auto &c) {
         uint16_t count = 0;
         double k[4] = {};
         TRY(kavrel_direct_get_calibration_coefficients(k));
         EXPECT_EQ(std::vector<double>(k, k + 4), std::vector<double>(c.coefficients, c.coefficients + 4));
         TRY(kavrel_direct_get_wavelength_count(&count));
         EXPECT_EQ(count, c.point_count);
         std::vector<double> w(count);
         TRY(kavrel_direct_get_full_wavelength_data(w.data(), count));
         for (uint32_t i = 0; i < count; ++i) EXPECT_NEAR(w[i], polynomial(c, i), 2e-4) << "point " << i;
         double first = 0, last = 0;
         TRY(kavrel_direct_get_full_wavelength_range(&first, &last));
         EXPECT_EQ(first, w.front());
         EXPECT_EQ(last, w.back());
         return OK;
     }},
    {"SelectedSpectrumIsItsPartOfTheWhole", OK, OK,
     [](auto &c) {
         kavrel_direct_wavelength_selection s;
         TRY(select_middle(c, s));
         EXPECT_EQ(s.start_index * 10000 + s.end_index, c.point_count / 3 * 10000 + 2 * c.point_count / 3);
         std::vector<double> w(s.selected_count);
         TRY(kavrel_direct_get_selected_wavelength_data(w.data(), s.selected_count));
         EXPECT_NEAR(w.front(), polynomial(c, s.start_index), 2e-4);
         EXPECT_NEAR(w.back(), polynomial(c, s.end_index), 2e-4);
         std::vector<uint16_t> part(s.selected_count), whole(c.point_count);
         TRY(kavrel_direct_set_average_number(16));  // quiet enough to compare two spectra
         TRY(kavrel_direct_get_selected_spectrum_data(part.data(), s.selected_count));
         TRY(kavrel_direct_get_full_spectrum_data(whole.data(), static_cast<int32_t>(whole.size())));
         const double a = std::accumulate(part.begin(), part.end(), 0.0);
         const double b =
             std::accumulate(whole.begin() + s.start_index, whole.begin() + s.end_index + 1, 0.0);
         EXPECT_NEAR(a / b, 1.0, 0.01);
         return OK;
     }},
    // Two pages written, the first read back: from flash, not from the page
    // buffer the second write left behind.
    {"FlashPagesRoundTrip", OK, OK,
     [](auto &) {
         // CM2 reads whole words: the room for 101 bytes is 104.
         std::vector<uint8_t> page(101), other(101, 0x3C), back(104);
         for (size_t i = 0; i < page.size(); ++i) page[i] = static_cast<uint8_t>(i * 7);
         TRY(kavrel_direct_set_flash_write_protect());  // NIR page writes need it; CM2 opens it itself
         TRY(kavrel_direct_flash_write(7, page.data(), static_cast<int32_t>(page.size())));
         TRY(kavrel_direct_flash_write(8, other.data(), static_cast<int32_t>(other.size())));
         const int32_t n = kavrel_direct_flash_read(7, back.data(), static_cast<int32_t>(page.size()));
         if (n < 0) return n;
         EXPECT_GE(n, 101);
         EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + 101), page);
         return OK;
     }},
    // The trigger starts one acquisition, of 300 ms here; the spectrum read
    // afterwards is the one it took, not another.
    {"ExternalSpectrumIsTheTriggeredOne", OK, NONE,
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
         return OK;
     }},
};

void PrintTo(const Operation &o, std::ostream *os) {
    *os << o.name;
}

class Operations : public SimTest, public ::testing::WithParamInterface<std::tuple<Operation, uint32_t>> {};

TEST_P(Operations, AnswerAsTheInstrumentHoldsThem) {
    const auto &[operation, kind] = GetParam();
    const kavrel_sim_config c = attach_and_open(kind, "SIM-A");
    EXPECT_EQ(operation.run(c), kind == KAVREL_SIM_NIR ? operation.nir : operation.cm2);
}

INSTANTIATE_TEST_SUITE_P(BothProtocols, Operations,
                         ::testing::Combine(::testing::ValuesIn(kOperations),
                                            ::testing::Values(KAVREL_SIM_CM2, KAVREL_SIM_NIR)),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    protocol_name(std::get<1>(info.param));
                         });

}  // namespace
}  // namespace kavrel::test
