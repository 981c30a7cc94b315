// Test controls of the host framework: used only by tests, never by the plug-in.
//
// The capture sink, the manual clock, the OS record and device-identifier overrides, and fault
// switches that make the next call of a host service fail, so that each failure branch
// of a caller can be driven without patching it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "OsVersion.h"

namespace pwtest {

struct LogRecord {
    std::string function;
    std::string sourceFile;
    int line = 0;
    int importance = 0;
    std::string failedCall;  // LogReturnCode only
    long result = 0;         // LogReturnCode only
    bool hasResult = false;
    unsigned int messageId = 0;  // LogMessage only
    std::string text;            // the formatted text
};

// Capture: records are kept in memory while capture is on.
void StartLogCapture();
void StopLogCapture();
std::vector<LogRecord> CapturedLogs();
void ClearCapturedLogs();
// Number of captured records whose text equals `text` exactly.
size_t CountLogText(const std::string& text);
bool HasLogText(const std::string& text);

// Manual clock: GetCurrentTimeSeconds() returns `unixSeconds` and timer time stands still
// until AdvanceManualClock moves both forward. Waits on an event list wake up as soon as the
// clock passes their deadline.
void UseManualClock(uint32_t unixSeconds);
void AdvanceManualClock(uint64_t milliseconds);
void SetManualUnixSeconds(uint32_t unixSeconds);  // moves the wall clock only
void UseRealClock();

// OS record override. (The locale environment is the process environment: tests set LC_ALL.)
void OverrideOsVersion(const OS_VERSION_INFO& record);
void ClearOsVersionOverride();

// Device identifier override (empty: use the machine's own).
void OverrideDeviceId(const std::string& deviceId);
void ClearDeviceIdOverride();

// Fault switches: the next `count` calls of the service fail with `code`.
enum class Fault {
    CreateExecutionContext,
    AcquireInstance,
    CreateEvent,
    SetEvent,
    CreateTimer,
    StartTimer,
    TimeToExpired,
    WaitOnEvents,
    CheckExpired,
    DeviceId,
    MakeDirectory,
    HttpSend,
    FaultCount
};
void FailNext(Fault fault, long code, unsigned int count = 1);
void ClearFaults();
// Framework-internal: consumes one pending failure of `fault`; true with `code` set if so.
bool TakeFault(Fault fault, long& code);

// A second loop turn counter for measurements: returns from WaitOnEvents, process-wide.
uint64_t TotalWaitReturns();

}  // namespace pwtest
