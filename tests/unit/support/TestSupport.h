// Helpers shared by the unit tests: temporary directories, whole-file reads and writes,
// and a fixture that captures the host log and runs on the manual clock.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Bencode.h"
#include "HostTestControl.h"
#include "ResultCodes.h"
#include "ScratchFiles.h"

namespace pwtest {

// A fresh directory under $TMPDIR (or /tmp), removed with its content at the end; a test
// failure if it cannot be made.
class TempDir : public pwsupport::ScratchDir {
public:
    TempDir();
};

using pwsupport::FileExists;
using pwsupport::ReadFile;
using pwsupport::ReadFileOrEmpty;
using pwsupport::RemoveTree;
using pwsupport::WriteFile;

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

// The exclusive flock of `path`, held as a module's writer holds it, through a descriptor
// of its own (flock locks of two open files conflict within one process too).
class HeldLock {
public:
    explicit HeldLock(const std::string& path);
    ~HeldLock() { Release(); }
    void Release();
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

private:
    int m_fd;
};

// The bencode bytes `value` writes, or "<write failed>".
std::string Written(CBencode& value);

// Polls every millisecond until `condition` holds (true) or `timeoutMs` passes (false).
bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs = 5000);

// Captured records of failed calls named `failedCall` (LogReturnCode records).
std::vector<LogRecord> Failures(const std::string& failedCall);

}  // namespace pwtest
