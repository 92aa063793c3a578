// Library CPU per exchange, against instruments that answer at once, as a
// share of the time the reply alone needs on the wire.
//
// Each iteration selects the next instrument (1 or 4 taken in turn) and makes
// one exported call that is one CM2 exchange: a short register query (a
// 36-byte reply), a full spectrum of 2048 points (4128 bytes) or the whole
// wavelength table (8224 bytes). The floors are the reply's bytes at what a
// bridge sustains: about 2.6 MB/s on a high-speed chip, about 300 KB/s on a
// full-speed one; the counters give the CPU time in parts per million of
// each floor.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "bench_bridges.h"
#include "kavrel_direct.h"

namespace kavrel::bench {
namespace {

constexpr double kHighSpeedBytesPerSecond = 2.6e6;
constexpr double kFullSpeedBytesPerSecond = 0.3e6;
constexpr int32_t kPoints = 2048;

uint16_t g_samples[kPoints];
double g_wavelengths[kPoints];

int32_t register_query() {
    uint32_t microseconds = 0;
    return kavrel_direct_get_integration_time(&microseconds);
}
int32_t full_spectrum() {
    return kavrel_direct_get_full_spectrum_data(g_samples, kPoints);
}
int32_t wavelength_table() {
    return kavrel_direct_get_full_wavelength_data(g_wavelengths, kPoints);
}

void per_exchange(benchmark::State &state, int32_t (*exchange)(), double reply_bytes) {
    const int instruments = static_cast<int>(state.range(0));
    ZeroLatencyCm2 bridge(instruments);
    Session session(bridge.table(), instruments, KAVREL_DIRECT_PROTOCOL_AUTO);
    if (!session.ok()) return state.SkipWithError("opening failed");
    // One round off the clock: every instrument caches its point count and
    // its bridge has the reply ready, as in a long acquisition run.
    for (int i = 0; i < instruments; ++i)
        if (kavrel_direct_select_device(i) != KAVREL_DIRECT_OK || exchange() != KAVREL_DIRECT_OK)
            return state.SkipWithError("exchange failed");

    int next = 0;
    const std::clock_t cpu_start = std::clock();
    for (auto _ : state) {
        kavrel_direct_select_device(next);
        if (exchange() != KAVREL_DIRECT_OK) return state.SkipWithError("exchange failed");
        next = next + 1 == instruments ? 0 : next + 1;
    }
    // The process's CPU time over the loop (the program has one thread),
    // measured here so that the shares print as plain numbers.
    const double cpu_seconds = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC /
                               static_cast<double>(state.iterations());
    state.counters["hs_floor_ppm"] = cpu_seconds / (reply_bytes / kHighSpeedBytesPerSecond) * 1e6;
    state.counters["fs_floor_ppm"] = cpu_seconds / (reply_bytes / kFullSpeedBytesPerSecond) * 1e6;
}

double smallest(const std::vector<double> &v) {
    return *std::min_element(v.begin(), v.end());
}
double largest(const std::vector<double> &v) {
    return *std::max_element(v.begin(), v.end());
}

void configure(benchmark::internal::Benchmark *b) {
    b->ArgName("instruments")
        ->Arg(1)
        ->Arg(4)
        ->ComputeStatistics("min", smallest)
        ->ComputeStatistics("max", largest);
}

BENCHMARK_CAPTURE(per_exchange, register_query, register_query, 32 + 4)->Apply(configure);
BENCHMARK_CAPTURE(per_exchange, full_spectrum, full_spectrum, 32 + 2 * kPoints)->Apply(configure);
BENCHMARK_CAPTURE(per_exchange, wavelength_table, wavelength_table, 32 + 4 * kPoints)->Apply(configure);

}  // namespace
}  // namespace kavrel::bench
