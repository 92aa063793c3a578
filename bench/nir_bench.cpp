// NIR exchange wall time beyond its quiet time, on the real clock.
//
// A NIR reply carries no length: the reader polls with reads of at most
// 50 ms and 5 ms pauses until the line has been quiet for the command's
// quiet time. An instrument that answers at once still costs the first
// read's whole limit (it asks for more than the reply holds) and the poll
// that overshoots the quiet time; this shows how much that is.
#include <benchmark/benchmark.h>

#include "bench_bridges.h"
#include "kavrel_direct.h"
#include "transport/nir_exchange.h"

namespace kavrel::bench {
namespace {

int32_t query_command() {
    uint32_t microseconds = 0;
    return kavrel_direct_get_integration_time(&microseconds);
}
int32_t set_command() {
    return kavrel_direct_set_integration_time(10000);
}

void nir_wall_time(benchmark::State &state, int32_t (*exchange)(), uint32_t quiet_ms) {
    RealClockNir bridge;
    Session session(bridge.table(), 1, KAVREL_DIRECT_PROTOCOL_NIR);
    if (!session.ok()) return state.SkipWithError("opening failed");
    double beyond_ms = 0;
    for (auto _ : state) {
        const double start = platform::host_now_ms();
        if (exchange() != KAVREL_DIRECT_OK) return state.SkipWithError("exchange failed");
        beyond_ms += platform::host_now_ms() - start - quiet_ms;
    }
    state.counters["quiet_ms"] = quiet_ms;
    state.counters["beyond_quiet_ms"] = benchmark::Counter(beyond_ms, benchmark::Counter::kAvgIterations);
}

BENCHMARK_CAPTURE(nir_wall_time, query, query_command, kNirQueryQuietMs)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(nir_wall_time, set, set_command, kNirSetQuietMs)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kavrel::bench
