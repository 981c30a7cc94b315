#include "TestSupport.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace pwtest {

namespace {

std::string TempBase() {
    const char* tmp = getenv("TMPDIR");
    return tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
}

}  // namespace

TempDir::TempDir() : ScratchDir(TempBase(), "pwtest-") {
    if (path().empty()) {
        ADD_FAILURE() << "mkdtemp failed: " << strerror(errno);
    }
}

void HostFixture::SetUp() {
    StartLogCapture();
    ClearFaults();
    UseManualClock(kStartSeconds);
}

void HostFixture::TearDown() {
    ClearFaults();
    UseRealClock();
    StopLogCapture();
}

std::string HostFixture::DumpLog() {
    std::string text;
    for (const LogRecord& record : CapturedLogs()) {
        text += "  [" + std::to_string(record.importance) + "] " + record.function + ": ";
        if (record.hasResult) {
            text += record.failedCall + " (" + std::to_string(record.result) + ") ";
        }
        text += record.text + "\n";
    }
    return text;
}

std::vector<LogRecord> Failures(const std::string& failedCall) {
    std::vector<LogRecord> found;
    for (const LogRecord& record : CapturedLogs()) {
        if (record.hasResult && record.failedCall == failedCall) {
            found.push_back(record);
        }
    }
    return found;
}

}  // namespace pwtest
