// Helpers shared by the unit tests: temporary directories, whole-file reads and writes,
// and a fixture that captures the host log and runs on the manual clock.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HostTestControl.h"
#include "ResultCodes.h"

namespace pwtest {

// A fresh directory under the build tree (or /tmp), removed with its content at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

private:
    std::string m_path;
};

void RemoveTree(const std::string& path);
bool WriteFile(const std::string& path, const std::string& content);
bool ReadFile(const std::string& path, std::string& content);
std::string ReadFileOrEmpty(const std::string& path);
bool FileExists(const std::string& path);

// Captures the log, starts on the manual clock and clears every fault switch; undoes
// all of it at the end.
class HostFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    static const uint32_t kStartSeconds = 1400000000u;

    // Texts of the captured records, in order (for messages in failed assertions).
    static std::string DumpLog();
};

}  // namespace pwtest
