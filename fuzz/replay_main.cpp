// A fuzz target without the fuzzer: replays the inputs it is given (files,
// or every file in a folder), so that the corpus and every crash kept as a
// regression case run in each build, under any compiler, sanitizer or
// valgrind. With --write-seeds FOLDER it writes the target's seeds instead.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_bridge.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char **argv) {
    if (argc == 3 && std::string(argv[1]) == "--write-seeds") {
        fs::create_directories(argv[2]);
        for (const kavrel::fuzz::Seed &seed : kavrel::fuzz::seeds()) {
            std::ofstream out(fs::path(argv[2]) / seed.name, std::ios::binary);
            out.write(reinterpret_cast<const char *>(seed.bytes.data()),
                      static_cast<std::streamsize>(seed.bytes.size()));
            if (!out) return 1;
        }
        return 0;
    }
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
