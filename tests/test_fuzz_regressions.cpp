// Replays the fuzz seed corpora (fuzz/corpus/<target>/) and every input the
// fuzzers ever found (tests/data/fuzz_regressions/<target>/) through the same
// harness bodies as the libFuzzer targets: each must pass the harness checks,
// and under the sanitizer build it must not touch memory outside its buffers.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harnesses.h"

namespace {

namespace fs = std::filesystem;

const fs::path kCorpusDir = VQ_FUZZ_CORPUS_DIR;
const fs::path kRegressionDir = fs::path(VQ_TEST_DATA_DIR) / "fuzz_regressions";

// Regular files of a directory, sorted; none when it does not exist.
std::vector<fs::path> inputsIn(const fs::path& dir) {
    std::vector<fs::path> files;
    if (!fs::is_directory(dir))
        return files;
    for (const auto& entry : fs::directory_iterator(dir))
        if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<uint8_t> contentsOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    EXPECT_TRUE(in.good()) << "cannot read " << file;
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void replay(const vq_fuzz::Target& target, const std::vector<fs::path>& files) {
    for (const auto& file : files) {
        SCOPED_TRACE(file.string());
        std::vector<uint8_t> bytes = contentsOf(file);
        EXPECT_EQ(target.run(bytes.data(), bytes.size()), "");
    }
}

class FuzzReplay : public testing::TestWithParam<std::string> {
protected:
    const vq_fuzz::Target& target() const { return *vq_fuzz::findTarget(GetParam()); }
};

std::vector<std::string> targetNames() {
    std::vector<std::string> names;
    for (const auto& target : vq_fuzz::targets())
        names.push_back(target.name);
    return names;
}

TEST_P(FuzzReplay, SeedCorpusPassesTheHarness) {
    const auto seeds = inputsIn(kCorpusDir / GetParam());
    ASSERT_FALSE(seeds.empty()) << "no seeds in " << (kCorpusDir / GetParam());
    replay(target(), seeds);
}

TEST_P(FuzzReplay, KeptFindingsPassTheHarness) { replay(target(), inputsIn(kRegressionDir / GetParam())); }

TEST_P(FuzzReplay, EmptyAndTinyInputsPass) {
    const uint8_t bytes[4] = {0xFF, 0x47, 0x00, 0x10};
    for (size_t size = 0; size <= sizeof bytes; ++size)
        EXPECT_EQ(target().run(bytes, size), "") << size << " bytes";
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, testing::ValuesIn(targetNames()),
                         [](const testing::TestParamInfo<std::string>& info) { return info.param; });

// Every subdirectory of kept findings belongs to a harness, so no finding is
// silently left out of the replay.
TEST(FuzzRegressions, EveryFindingDirectoryNamesAHarness) {
    if (!fs::is_directory(kRegressionDir))
        return;
    for (const auto& entry : fs::directory_iterator(kRegressionDir)) {
        if (entry.is_directory()) {
            EXPECT_NE(vq_fuzz::findTarget(entry.path().filename().string()), nullptr) << entry.path();
        }
    }
}

}  // namespace
