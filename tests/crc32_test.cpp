// Every CRC-32 path this build has, against the bitwise definition.
#include <random>

#include "protocol/crc32.h"
#include "support/fake_bridge.h"

namespace kavrel::test {
namespace {

std::vector<crc32::Path> built_paths() {
    size_t count = 0;
    const crc32::Path *all = crc32::paths(&count);
    return {all, all + count};
}

class Crc32Path : public ::testing::TestWithParam<size_t> {};  // by position: a stable test name

TEST_P(Crc32Path, MatchesTheBitwiseDefinitionAtEveryLengthAndAlignment) {
    const crc32::Path path = built_paths()[GetParam()];
    if (!path.runnable) GTEST_SKIP() << path.name << " needs instructions this processor lacks";

    const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(~path.update(0xFFFFFFFFu, check, sizeof check), 0xCBF43926u);

    std::mt19937 random(15);
    std::vector<uint8_t> bytes(16 * 1024 + 64);
    for (auto &b : bytes) b = static_cast<uint8_t>(random());
    // Every start within a 16-byte vector, every length up to a few folding
    // blocks, and the sizes of real replies with odd tails.
    std::vector<size_t> lengths{1000, 4128, 16384 + 13};
    for (size_t n = 0; n <= 320; ++n) lengths.push_back(n);
    for (size_t start = 0; start < 16; ++start)
        for (size_t n : lengths) {
            const uint8_t *p = bytes.data() + start;
            // A register other than the initial one: the path must continue
            // a CRC, not only begin one.
            const uint32_t reg = static_cast<uint32_t>(random());
            ASSERT_EQ(path.update(reg, p, n), crc_bitwise(reg, 0xEDB88320u, p, n))
                << path.name << ": start " << start << ", length " << n;
        }
}

// Every path gives the same CRC, so only this notices the library settling
// for the slow one.
TEST(Crc32, TheLibraryTakesTheFastestPathThisProcessorRuns) {
    crc32::Update fastest = nullptr;
    for (const auto &path : built_paths())
        if (path.runnable) fastest = path.update;
    EXPECT_EQ(crc32::fastest(), fastest);
}

INSTANTIATE_TEST_SUITE_P(Crc32, Crc32Path, ::testing::Range<size_t>(0, built_paths().size()));

}  // namespace
}  // namespace kavrel::test
