// CRC-32 throughput over a short reply, a full-spectrum reply and the
// largest packet: the path the library uses, and each path built in.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "kavrel_direct.h"
#include "protocol/crc32.h"

namespace {

constexpr int64_t kSizes[] = {32, 4096, 16384};

std::vector<uint8_t> some_bytes(int64_t count) {
    std::vector<uint8_t> bytes(static_cast<size_t>(count));
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 151 + 7);
    return bytes;
}

void crc32_exported(benchmark::State &state) {
    const auto bytes = some_bytes(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(kavrel_direct_crc32(bytes.data(), static_cast<int32_t>(bytes.size())));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(crc32_exported)->Name("crc32")->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2]);

void crc32_path(benchmark::State &state, kavrel::crc32::Update update) {
    const auto bytes = some_bytes(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(update(0xFFFFFFFFu, bytes.data(), bytes.size()));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// One benchmark per path this processor can run, named after it.
[[maybe_unused]] const bool registered_paths = [] {
    size_t count = 0;
    const kavrel::crc32::Path *paths = kavrel::crc32::paths(&count);
    for (size_t i = 0; i < count; ++i) {
        if (!paths[i].runnable) continue;
        auto *b = benchmark::RegisterBenchmark((std::string("crc32_path/") + paths[i].name).c_str(),
                                               crc32_path, paths[i].update);
        for (int64_t size : kSizes) b->Arg(size);
    }
    return true;
}();

}  // namespace
