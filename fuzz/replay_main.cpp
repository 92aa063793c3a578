// A fuzz target without the fuzzer: replays the inputs it is given (files,
// or every file in a folder), so that the corpus and every crash kept as a
// regression case run in each build, under any compiler, sanitizer or
// valgrind.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char **argv) {
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_directory(argv[i])) {
            for (const auto &entry : fs::directory_iterator(argv[i]))
                if (entry.is_regular_file()) files.push_back(entry.path());
        } else if (fs::exists(argv[i])) {
            files.emplace_back(argv[i]);
        } else {
            std::fprintf(stderr, "%s: nothing there\n", argv[i]);
        }
    }
    for (const fs::path &file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in),
                                         std::istreambuf_iterator<char>()};
        std::fprintf(stderr, "%s\n", file.string().c_str());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::fprintf(stderr, "replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
