// A fuzz target without the fuzzer: replays the files it is given, so that
// the seeds and every crash kept as a regression case run in each build,
// under any compiler, sanitizer or valgrind.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                         std::istreambuf_iterator<char>()};
        std::fprintf(stderr, "%s\n", argv[i]);
        if (!in.is_open()) return 1;
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::fprintf(stderr, "replayed %d inputs\n", argc - 1);
    return argc > 1 ? 0 : 1;
}
