#include "TestSupport.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <cstdlib>
#include <cstring>

namespace pwtest {

TempDir::TempDir()
    : ScratchDir(
          getenv("TMPDIR") != nullptr && *getenv("TMPDIR") != '\0' ? getenv("TMPDIR") : "/tmp",
          "pwtest-") {
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

HeldLock::HeldLock(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    EXPECT_EQ(0, flock(m_fd, LOCK_EX | LOCK_NB)) << "lock " << path;
}

void HeldLock::Release() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
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

std::string Written(CBencode& value) {
    CBencodeStream out("", false);
    return value.Externalize(out) ? std::string(out.Data(), out.Size()) : "<write failed>";
}

}  // namespace pwtest
