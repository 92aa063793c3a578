// The simulated CM2 instrument in real time at 1 ms integration: spectra per
// second, and how close that comes to the instrument model's own maximum.
//
// The model's maximum is measured on the virtual clock, where the library's
// and the simulator's CPU take no time: one spectrum then costs exactly what
// the model charges (decoding the request, integration, readout, the reply
// through the bridge's USB packets and latency timer). The same loop on the
// real clock shows whether the simulator and the library keep up with it.
// The ideal of integration x averages + readout + reply transfer, leaving
// out the request's way and the USB framing, is given too.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include "kavrel_direct.h"
#include "kavrel_sim.h"
#include "optics.h"
#include "platform/platform.h"
#include "transport/device_table.h"
#include "usb_line.h"
#include "world.h"

namespace kavrel::bench {
namespace {

constexpr uint32_t kIntegrationUs = 1000;
constexpr int kVirtualSpectra = 50;

// A fresh simulated world with one CM2 instrument on a bridge of the given
// speed, open, at 1 ms integration and no averaging.
class SimSession {
public:
    explicit SimSession(uint32_t bridge_speed) {
        kavrel_direct_close_all_devices();
        use_provider(&sim::world_provider());
        kavrel_sim_reset();
        kavrel_sim_default_config(KAVREL_SIM_CM2, &config_);
        config_.bridge_speed = bridge_speed;
        std::snprintf(config_.chip_serial, sizeof config_.chip_serial, "BENCHSIM");
        ok_ = kavrel_sim_attach(&config_) == KAVREL_DIRECT_OK &&
              kavrel_direct_open_device_by_chip_serial(config_.chip_serial) == KAVREL_DIRECT_OK &&
              kavrel_direct_set_integration_time(kIntegrationUs) == KAVREL_DIRECT_OK &&
              kavrel_direct_set_average_number(1) == KAVREL_DIRECT_OK;
    }
    ~SimSession() {
        kavrel_direct_close_all_devices();
        kavrel_sim_reset();
        use_provider(nullptr);
    }
    SimSession(const SimSession &) = delete;
    SimSession &operator=(const SimSession &) = delete;

    bool ok() const { return ok_; }
    uint32_t points() const { return config_.point_count; }

private:
    kavrel_sim_config config_{};
    bool ok_ = false;
};

// Integration, readout and the reply's bytes at the line rate, in ms.
double ideal_cycle_ms(uint32_t bridge_speed, uint32_t points) {
    platform::Clock clock;
    platform::Inbox inbox(clock);
    const sim::UsbLine line(inbox, bridge_speed);
    const double reply_bytes = 32 + 2.0 * points;
    return kIntegrationUs / 1000.0 + sim::Detector::silicon().readout_ms(points) +
           reply_bytes * line.byte_ms();
}

void sim_spectra(benchmark::State &state) {
    const auto bridge_speed = static_cast<uint32_t>(state.range(0));
    SimSession session(bridge_speed);
    if (!session.ok()) return state.SkipWithError("setting up the simulated instrument failed");
    std::vector<uint16_t> samples(session.points());
    const auto acquire = [&] {
        return kavrel_direct_get_full_spectrum_data(samples.data(), static_cast<int32_t>(samples.size())) ==
               KAVREL_DIRECT_OK;
    };

    kavrel_sim_set_virtual_time(1);
    const double virtual_start = kavrel_sim_now_ms();
    for (int i = 0; i < kVirtualSpectra; ++i)
        if (!acquire()) return state.SkipWithError("a spectrum failed in virtual time");
    const double model_cycle_ms = (kavrel_sim_now_ms() - virtual_start) / kVirtualSpectra;
    kavrel_sim_set_virtual_time(0);

    if (!acquire()) return state.SkipWithError("a spectrum failed in real time");
    const double start = platform::host_now_ms();
    for (auto _ : state)
        if (!acquire()) return state.SkipWithError("a spectrum failed in real time");
    const double cycle_ms = (platform::host_now_ms() - start) / static_cast<double>(state.iterations());

    state.counters["per_second"] = 1000.0 / cycle_ms;
    state.counters["model_max_per_second"] = 1000.0 / model_cycle_ms;
    state.counters["share_of_model_pct"] = 100.0 * model_cycle_ms / cycle_ms;
    const double ideal_ms = ideal_cycle_ms(bridge_speed, session.points());
    state.counters["ideal_per_second"] = 1000.0 / ideal_ms;
    state.counters["share_of_ideal_pct"] = 100.0 * ideal_ms / cycle_ms;
}

BENCHMARK(sim_spectra)
    ->ArgName("high_speed")
    ->Arg(KAVREL_SIM_FULL_SPEED)
    ->Arg(KAVREL_SIM_HIGH_SPEED)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kavrel::bench
