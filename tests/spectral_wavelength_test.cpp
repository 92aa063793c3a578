// Wavelength calibration: coefficients, point count, table, end values and
// the selected range, in both protocols.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>

#include "support/device_fixture.h"
#include "support/spectral_model.h"

namespace kavrel::test {
namespace {

constexpr double kUntouched = -7.0;

const Bytes kCountQuery = cm2_query_bytes(0xC2, 0x0B, 1);
const Bytes kTableQuery = cm2_query_bytes(0xC5, 0, 2048);
const Bytes kNirTableRead = nir_frame({0x3F, 0x53});

Bytes count_word(uint16_t count) {
    return {0xFF, 0xFF, static_cast<uint8_t>(count >> 8), static_cast<uint8_t>(count)};
}

Bytes be_double(double value) {
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    Bytes out;
    for (int shift = 56; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(bits >> shift));
    return out;
}

class WavelengthTest : public DeviceTest {
protected:
    int device = -1;
    double out[8];

    void SetUp() override {
        DeviceTest::SetUp();
        std::fill(std::begin(out), std::end(out), kUntouched);
    }
    void expect_cm2_count(uint16_t count) {
        bridge.expect(device, kCountQuery, at_once(cm2_reply(0xC2, 0x0B, count_word(count))));
    }
    void expect_cm2_table(const std::vector<float> &entries) {
        bridge.expect(device, kTableQuery, at_once(cm2_reply(0xC5, 0, le_floats(entries))));
    }
    void expect_nir_table(const std::vector<float> &entries) {
        bridge.expect(device, kNirTableRead, at_once(nir_reply(le_floats(entries))));
    }
};

class WavelengthCm2 : public WavelengthTest {
protected:
    void SetUp() override {
        WavelengthTest::SetUp();
        device = open_cm2();
    }
};

class WavelengthNir : public WavelengthTest {
protected:
    void SetUp() override {
        WavelengthTest::SetUp();
        device = open_nir();
    }
};

TEST_F(WavelengthCm2, CoefficientsAreBigEndianDoublesInOrder) {
    const double values[4] = {1.5, -2.25e-3, 3.0e-7, 400.125};
    bridge.expect(device, cm2_query_bytes(0xC1, 0x20, 8),
                  at_once(cm2_reply(0xC1, 0x20,
                                    concat({be_double(values[0]), be_double(values[1]), be_double(values[2]),
                                            be_double(values[3])}))));
    double coefficients[4] = {};
    ASSERT_EQ(kavrel_direct_get_calibration_coefficients(coefficients), KAVREL_DIRECT_OK);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(coefficients[k], values[k]) << k;

    bridge.reply_any(device, at_once(cm2_reply(0xC1, 0x20, Bytes(28, 1))));
    double untouched[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
    EXPECT_EQ(kavrel_direct_get_calibration_coefficients(untouched), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(untouched[0], kUntouched);
    EXPECT_EQ(kavrel_direct_get_calibration_coefficients(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
}

TEST_F(WavelengthNir, CoefficientsTakeTheFirst32BytesOfALongerReply) {
    bridge.expect(device, nir_frame({0x78}),
                  at_once(nir_reply(concat(
                      {be_double(1.0), be_double(2.0), be_double(3.0), be_double(-4.0), Bytes(8, 0xFF)}))));
    double coefficients[4] = {};
    ASSERT_EQ(kavrel_direct_get_calibration_coefficients(coefficients), KAVREL_DIRECT_OK);
    EXPECT_EQ(coefficients[3], -4.0);

    bridge.reply_any(device, at_once(nir_reply(Bytes(31, 0))));
    EXPECT_EQ(kavrel_direct_get_calibration_coefficients(coefficients), KAVREL_DIRECT_ERR_IO);
}

TEST_F(WavelengthCm2, CountAlwaysAsksAndIsCached) {
    for (uint16_t count : {uint16_t{5}, uint16_t{2049}}) {
        expect_cm2_count(count);
        uint16_t read = 0;
        ASSERT_EQ(kavrel_direct_get_wavelength_count(&read), KAVREL_DIRECT_OK);
        EXPECT_EQ(read, count);
        EXPECT_EQ(active().wavelength_count, count);
    }
    // An answer without its count word changes nothing.
    bridge.reply_any(device, at_once(cm2_reply(0xC2, 0x0B, {})));
    uint16_t read = 77;
    EXPECT_EQ(kavrel_direct_get_wavelength_count(&read), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(read, 77);
    EXPECT_EQ(active().wavelength_count, 2049);
}

TEST_F(WavelengthNir, CountIsTheTableLengthInEntries) {
    expect_nir_table({1, 2});
    uint16_t read = 0;
    ASSERT_EQ(kavrel_direct_get_wavelength_count(&read), KAVREL_DIRECT_OK);
    EXPECT_EQ(read, 2);
    EXPECT_EQ(active().wavelength_count, 2);

    for (const Bytes &bad : {Bytes(10, 1), Bytes{}}) {
        bridge.reply_any(device, at_once(nir_reply(bad)));
        EXPECT_EQ(kavrel_direct_get_wavelength_count(&read), KAVREL_DIRECT_ERR_IO) << bad.size();
    }
}

TEST_F(WavelengthCm2, FullTableReadsTheCountOnceThenOnlyTheTable) {
    expect_cm2_count(3);
    expect_cm2_table({400.5f, 500.25f, -1.0f});
    ASSERT_EQ(kavrel_direct_get_full_wavelength_data(out, 3), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[0], 400.5);
    EXPECT_EQ(out[1], 500.25);
    EXPECT_EQ(out[2], -1.0);
    EXPECT_EQ(out[3], kUntouched);

    bridge.clear_calls();
    expect_cm2_table({1.0f, 2.0f, 3.0f});
    ASSERT_EQ(kavrel_direct_get_full_wavelength_data(out, 8), KAVREL_DIRECT_OK);
    EXPECT_EQ(bridge.calls_named("write").size(), 1u);
}

TEST_F(WavelengthCm2, FullTableDeliversOnlyWhatTheAnswerHolds) {
    active().wavelength_count = 4;
    expect_cm2_table({7.0f, 8.0f});  // shorter than the count
    ASSERT_EQ(kavrel_direct_get_full_wavelength_data(out, 4), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[1], 8.0);
    EXPECT_EQ(out[2], kUntouched);

    expect_cm2_table({});
    std::fill(std::begin(out), std::end(out), kUntouched);
    ASSERT_EQ(kavrel_direct_get_full_wavelength_data(out, 4), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[0], kUntouched);

    // A longer answer is cut at the caller's capacity.
    expect_cm2_table({1, 2, 3, 4, 5, 6});
    ASSERT_EQ(kavrel_direct_get_full_wavelength_data(out, 5), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[4], 5.0);
    EXPECT_EQ(out[5], kUntouched);
}

TEST_F(WavelengthCm2, CapacityBelowTheCachedCountAsksNothing) {
    active().wavelength_count = 9;
    EXPECT_EQ(kavrel_direct_get_full_wavelength_data(out, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_full_wavelength_data(out, 0), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_full_wavelength_data(nullptr, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_TRUE(bridge.calls.empty());
    EXPECT_EQ(out[0], kUntouched);
}

TEST_F(WavelengthNir, FullTableIsOneReadAndCachesItsLength) {
    expect_nir_table({900.5f, 901.5f, 902.5f});
    ASSERT_EQ(kavrel_direct_get_full_wavelength_data(out, 3), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[2], 902.5);
    EXPECT_EQ(active().wavelength_count, 3);

    // More entries than room: nothing is written, the cache keeps its value.
    expect_nir_table({1, 2, 3, 4});
    std::fill(std::begin(out), std::end(out), kUntouched);
    EXPECT_EQ(kavrel_direct_get_full_wavelength_data(out, 3), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(out[0], kUntouched);
    EXPECT_EQ(active().wavelength_count, 3);

    bridge.reply_any(device, at_once(nir_reply(Bytes(10, 0))));
    EXPECT_EQ(kavrel_direct_get_full_wavelength_data(out, 8), KAVREL_DIRECT_ERR_IO);
}

TEST_F(WavelengthCm2, EndValuesAskTheCountThenTheTableAndComeOutAscending) {
    expect_cm2_count(3);
    expect_cm2_table({800.0f, 123.0f, 500.0f});
    double low = 0, high = 0;
    ASSERT_EQ(kavrel_direct_get_full_wavelength_range(&low, &high), KAVREL_DIRECT_OK);
    EXPECT_EQ(low, 500.0);  // the end entries only, not the minimum
    EXPECT_EQ(high, 800.0);

    const float nan = std::numeric_limits<float>::quiet_NaN();
    expect_cm2_count(2);
    expect_cm2_table({nan, 5.0f});
    ASSERT_EQ(kavrel_direct_get_full_wavelength_range(&low, &high), KAVREL_DIRECT_OK);
    EXPECT_TRUE(std::isnan(low));
    EXPECT_EQ(high, 5.0);
}

TEST_F(WavelengthCm2, EndValuesRefuseNoPointsAndAShortTable) {
    double low = kUntouched, high = kUntouched;
    expect_cm2_count(0);
    EXPECT_EQ(kavrel_direct_get_full_wavelength_range(&low, &high), KAVREL_DIRECT_ERR_IO);
    // The last entry would be memory no answer filled.
    expect_cm2_count(3);
    expect_cm2_table({1.0f, 2.0f});
    EXPECT_EQ(kavrel_direct_get_full_wavelength_range(&low, &high), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(low, kUntouched);
    EXPECT_EQ(high, kUntouched);
    EXPECT_EQ(kavrel_direct_get_full_wavelength_range(&low, nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
}

TEST_F(WavelengthCm2, SettingARangeReadsCountAndTableTwice) {
    const std::vector<float> table{400, 410, 420, 430};
    expect_cm2_count(4);
    expect_cm2_table(table);
    expect_cm2_count(4);
    expect_cm2_table(table);
    ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(405, 425), KAVREL_DIRECT_OK);

    kavrel_direct_wavelength_selection selection{};
    ASSERT_EQ(kavrel_direct_get_selected_wavelength_range(&selection), KAVREL_DIRECT_OK);
    EXPECT_EQ(selection.requested_start, 405.0);
    EXPECT_EQ(selection.requested_end, 425.0);
    EXPECT_EQ(selection.actual_start, 410.0);
    EXPECT_EQ(selection.actual_end, 420.0);
    EXPECT_EQ(selection.start_index, 1);
    EXPECT_EQ(selection.end_index, 2);
    EXPECT_EQ(selection.selected_count, 2);
}

TEST_F(WavelengthNir, SettingARangeMakesFourTableReads) {
    for (int i = 0; i < 4; ++i) expect_nir_table({1000, 1100, 1200});
    ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(1000, 1200), KAVREL_DIRECT_OK);
    EXPECT_EQ(active().selected_count, 3);
}

// Selection cases on a model instrument that answers any table request.
struct SelectionCase {
    const char *name;
    std::vector<float> table;
    double start, end;
    int32_t result;
    uint16_t start_index, end_index;
};

class WavelengthSelection : public WavelengthTest, public ::testing::WithParamInterface<bool> {
protected:
    SpectralModel model;
    void SetUp() override {
        WavelengthTest::SetUp();
        device = GetParam() ? open_nir() : open_cm2();
        model.serve(bridge, device, GetParam());
    }
    // A known selection to see whether a failed set keeps it.
    void select_first_two() {
        model.table = {1, 2, 3};
        ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(1, 2), KAVREL_DIRECT_OK);
    }
};

TEST_P(WavelengthSelection, Cases) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const double dnan = std::numeric_limits<double>::quiet_NaN();
    const std::vector<float> rising{400, 410, 420, 430, 440};
    const SelectionCase cases[] = {
        {"whole table by its exact ends", rising, 400, 440, KAVREL_DIRECT_OK, 0, 4},
        {"inner run", rising, 405, 425, KAVREL_DIRECT_OK, 1, 2},
        {"one point", rising, 419, 421, KAVREL_DIRECT_OK, 2, 2},
        {"bounds between two entries", rising, 411, 419, KAVREL_DIRECT_ERR_INVALID_ARG, 0, 0},
        {"start = end", rising, 420, 420, KAVREL_DIRECT_ERR_INVALID_ARG, 0, 0},
        {"end below start", rising, 430, 420, KAVREL_DIRECT_ERR_INVALID_ARG, 0, 0},
        {"NaN start", rising, dnan, 420, KAVREL_DIRECT_ERR_INVALID_ARG, 0, 0},
        {"start below the table", rising, 399.5, 420, KAVREL_DIRECT_ERR_INVALID_ARG, 0, 0},
        {"end above the table", rising, 400, 440.5, KAVREL_DIRECT_ERR_INVALID_ARG, 0, 0},
        {"descending table", {440, 430, 420, 410, 400}, 405, 425, KAVREL_DIRECT_OK, 2, 3},
        {"NaN entry between inside entries", {400, nan, 420, 430}, 400, 420, KAVREL_DIRECT_OK, 0, 2},
        {"NaN entry never inside", {400, nan, 420, 430}, 401, 425, KAVREL_DIRECT_OK, 2, 2},
        {"not monotonic: the run spans the outsider",
         {400, 420, 500, 410, 430},
         405,
         425,
         KAVREL_DIRECT_OK,
         1,
         3},
    };
    for (const SelectionCase &c : cases) {
        SCOPED_TRACE(c.name);
        select_first_two();
        model.table = c.table;
        ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(c.start, c.end), c.result);
        kavrel_direct_wavelength_selection selection{};
        ASSERT_EQ(kavrel_direct_get_selected_wavelength_range(&selection), KAVREL_DIRECT_OK);
        if (c.result != KAVREL_DIRECT_OK) {
            EXPECT_EQ(selection.requested_start, 1.0);  // the previous selection stays whole
            EXPECT_EQ(selection.selected_count, 2);
            continue;
        }
        EXPECT_EQ(selection.start_index, c.start_index);
        EXPECT_EQ(selection.end_index, c.end_index);
        EXPECT_EQ(selection.selected_count, c.end_index - c.start_index + 1);
        EXPECT_EQ(selection.actual_start, c.table[c.start_index]);
        EXPECT_EQ(selection.actual_end, c.table[c.end_index]);
        EXPECT_EQ(selection.requested_start, c.start);
        EXPECT_EQ(selection.requested_end, c.end);
    }
}

TEST_P(WavelengthSelection, SelectedWavelengthsAreTheRun) {
    model.table = {400, 410, 420, 430, 440};
    ASSERT_EQ(kavrel_direct_set_selected_wavelength_range(405, 435), KAVREL_DIRECT_OK);
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_data(out, 2), KAVREL_DIRECT_ERR_INVALID_ARG);
    ASSERT_EQ(kavrel_direct_get_selected_wavelength_data(out, 3), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[0], 410.0);
    EXPECT_EQ(out[2], 430.0);
    EXPECT_EQ(out[3], kUntouched);
}

TEST_P(WavelengthSelection, ReadsWithoutASelectionGiveGenericAfterTheNullCheck) {
    kavrel_direct_wavelength_selection selection{};
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_range(nullptr), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_range(&selection), KAVREL_DIRECT_ERR_GENERIC);
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_data(nullptr, 8), KAVREL_DIRECT_ERR_INVALID_ARG);
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_data(out, 0), KAVREL_DIRECT_ERR_GENERIC);
    EXPECT_TRUE(bridge.calls.empty());
}

TEST_P(WavelengthSelection, ReopeningClearsTheSelection) {
    select_first_two();
    const std::string serial = GetParam() ? "NIRA0001" : "CM2A0001";
    kavrel_direct_close_device();
    kavrel_direct_set_protocol_preference(GetParam() ? KAVREL_DIRECT_PROTOCOL_NIR
                                                     : KAVREL_DIRECT_PROTOCOL_CM2);
    ASSERT_EQ(kavrel_direct_open_device_by_chip_serial(serial.c_str()), KAVREL_DIRECT_OK);
    kavrel_direct_wavelength_selection selection{};
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_range(&selection), KAVREL_DIRECT_ERR_GENERIC);
    EXPECT_EQ(active().wavelength_count, 0);
}

TEST_P(WavelengthSelection, ATableLongerThan2048PointsCannotBeSelected) {
    model.table.assign(2049, 500.0f);
    model.table.front() = 400;
    EXPECT_EQ(kavrel_direct_set_selected_wavelength_range(400, 500),
              GetParam() ? KAVREL_DIRECT_OK  // the NIR reply is cut at 2048 entries
                         : KAVREL_DIRECT_ERR_IO);
}

INSTANTIATE_TEST_SUITE_P(Spectral, WavelengthSelection, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &info) {
                             return info.param ? "Nir" : "Cm2";
                         });

TEST_F(WavelengthCm2, SelectedWavelengthsReadOnlyTheRunAndMayComeShort) {
    active().selection_valid = 1;
    active().start_index = 5;
    active().selected_count = 3;
    bridge.expect(device, cm2_query_bytes(0xC5, 5, 3), at_once(cm2_reply(0xC5, 5, le_floats({7.5f, 8.5f}))));
    ASSERT_EQ(kavrel_direct_get_selected_wavelength_data(out, 3), KAVREL_DIRECT_OK);
    EXPECT_EQ(out[1], 8.5);
    EXPECT_EQ(out[2], kUntouched);
}

TEST_F(WavelengthNir, SelectedWavelengthsRefuseATableThatShrankUnderTheSelection) {
    active().selection_valid = 1;
    active().start_index = 1;
    active().selected_count = 3;
    expect_nir_table({1, 2, 3});  // the count: three points, the run needs four
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_data(out, 3), KAVREL_DIRECT_ERR_IO);
    // The count still fits, but the table read right after comes short.
    expect_nir_table({1, 2, 3, 4});
    expect_nir_table({1, 2, 3});
    EXPECT_EQ(kavrel_direct_get_selected_wavelength_data(out, 3), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(out[0], kUntouched);
}

TEST_F(WavelengthCm2, AShortTableDuringASetKeepsThePreviousSelection) {
    expect_cm2_count(3);
    expect_cm2_table({1, 2, 3});
    expect_cm2_count(3);
    expect_cm2_table({1, 2});
    EXPECT_EQ(kavrel_direct_set_selected_wavelength_range(1, 3), KAVREL_DIRECT_ERR_IO);
    EXPECT_EQ(active().selection_valid, 0u);
}

}  // namespace
}  // namespace kavrel::test
