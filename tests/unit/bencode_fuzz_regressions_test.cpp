// Replays every input kept in tests/fuzz/corpus-regressions/ through the fuzz target's
// round-trip check, so that a fault the fuzzer once found stays fixed on both
// architectures.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../fuzz/BencodeRoundTrip.h"
#include "TestSupport.h"

namespace {

class BencodeFuzzRegressionsTest : public pwtest::HostFixture {};

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

TEST_F(BencodeFuzzRegressionsTest, EveryKeptInputSurvivesTheRoundTrip) {
    const std::string directory = std::string(PW_SOURCE_DIR) + "/tests/fuzz/corpus-regressions";
    const std::vector<std::string> names = RegressionInputs(directory);
    ASSERT_FALSE(names.empty()) << "no inputs in " << directory;
    for (const std::string& name : names) {
        std::string bytes;
        ASSERT_TRUE(pwtest::ReadFile(directory + "/" + name, bytes)) << name;
        EXPECT_EQ("", bencodefuzz::CheckRoundTrip(reinterpret_cast<const uint8_t*>(bytes.data()),
                                                  bytes.size()))
            << name;
    }
}

}  // namespace
