// Replays every input kept for the fuzz targets through the target's own checks (the bencode
// round trip in memory and through a file, the profile reader's consistency), so that a
// fault the fuzzer once found stays fixed on both architectures.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../fuzz/BencodeRoundTrip.h"
#include "../fuzz/ProfileCheck.h"
#include "TestSupport.h"

namespace {

class FuzzRegressionsTest : public pwtest::HostFixture {};

std::vector<std::string> RegressionInputs(const std::string& directory) {
    std::vector<std::string> names;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (struct dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && name != "README.md") {
            names.push_back(name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

// Runs `check` over every input in tests/fuzz/<directory>; it returns "" for a pass.
void ReplayAll(const std::string& directory, std::string (*check)(const uint8_t*, size_t)) {
    const std::string path = std::string(PW_SOURCE_DIR) + "/tests/fuzz/" + directory;
    const std::vector<std::string> names = RegressionInputs(path);
    ASSERT_FALSE(names.empty()) << "no inputs in " << path;
    for (const std::string& name : names) {
        std::string bytes;
        ASSERT_TRUE(pwtest::ReadFile(path + "/" + name, bytes)) << name;
        EXPECT_EQ("", check(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())) << name;
    }
}

TEST_F(FuzzRegressionsTest, EveryKeptBencodeInputSurvivesTheRoundTrip) {
    ReplayAll("corpus-regressions", bencodefuzz::CheckRoundTrip);
    ReplayAll("corpus-regressions", bencodefuzz::CheckThroughFile);
}

TEST_F(FuzzRegressionsTest, EveryKeptProfileReadsConsistently) {
    ReplayAll("corpus-regressions-profile", profilefuzz::CheckProfile);
}

}  // namespace
