// End-to-end tests: the exported functions against simulated instruments,
// on the virtual clock.
#ifndef KAVREL_TESTS_SIM_FIXTURE_H
#define KAVREL_TESTS_SIM_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kavrel_direct.h"
#include "kavrel_sim.h"
#include "sim/world.h"
#include "transport/device_table.h"

namespace kavrel::test {

constexpr uint32_t CM2 = KAVREL_SIM_CM2;
constexpr uint32_t NIR = KAVREL_SIM_NIR;
constexpr int32_t OK = KAVREL_DIRECT_OK;

// The default configuration of a kind, on a bridge with that chip serial.
inline kavrel_sim_config sim_config(uint32_t kind, const char *chip_serial) {
    kavrel_sim_config c;
    kavrel_sim_default_config(kind, &c);
    std::snprintf(c.chip_serial, sizeof c.chip_serial, "%s", chip_serial);
    return c;
}

inline std::vector<uint16_t> spectrum(size_t points) {
    std::vector<uint16_t> s(points);
    EXPECT_EQ(kavrel_direct_get_full_spectrum_data(s.data(), static_cast<int32_t>(points)), OK);
    return s;
}

inline std::string protocol_name(uint32_t kind) {
    return kind == NIR ? "NIR" : kind == CM2 ? "CM2" : "silent";
}

class SimTest : public ::testing::Test {
protected:
    void SetUp() override {
        use_provider(&sim::world_provider());
        kavrel_sim_reset();
        kavrel_sim_set_virtual_time(1);
    }
    void TearDown() override {
        kavrel_direct_close_all_devices();
        kavrel_sim_reset();
        use_provider(nullptr);
    }

    // Attaches a bridge of that kind and opens it, letting the library
    // probe its protocol.
    static kavrel_sim_config attach_and_open(uint32_t kind, const char *chip_serial) {
        const kavrel_sim_config c = sim_config(kind, chip_serial);
        EXPECT_EQ(kavrel_sim_attach(&c), OK);
        EXPECT_EQ(kavrel_direct_open_device_by_chip_serial(chip_serial), OK);
        return c;
    }
};

}  // namespace kavrel::test

#endif
