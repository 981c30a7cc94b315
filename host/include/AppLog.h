// Host logging.
//
// Every record carries the function name, the source file, the line, the importance, the
// text and, for LogReturnCode, the name of the failed call and its result code. Records go
// to the configured sinks (syslog by default; stderr, a file and an in-memory capture sink
// that tests read, see HostTestControl.h). All operations are safe from any thread; a
// record is written whole or not at all, and logging never fails the caller.
#pragma once

#include <string>

namespace Logging {
enum MessageID : unsigned int {
    // The agent's settings summary: eight arguments (const char* enabled state, machine id,
    // customer id, server URL, const char* crash reports "Yes"/"No", unsigned crash-check
    // interval, unsigned feedback interval, unsigned sequence number).
    PHONEHOME_SETTINGS_SUMMARY = 6300,
};
}

class CAppLog {
public:
    enum Importance : int { Error = 69, Information = 73, Warning = 87 };

    enum Sink : unsigned int {
        SinkSyslog = 1u << 0,
        SinkStderr = 1u << 1,
        SinkFile = 1u << 2,
        SinkCapture = 1u << 3,
    };

    static void LogDebugMessage(const char* function, const char* sourceFile, int line,
                                int importance, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

    // The failed call's name and its code, without further text.
    static void LogReturnCode(const char* function, const char* sourceFile, int line,
                              int importance, const char* failedCall, long result);

    // The failed call's name and its code, followed by a printf-style text.
    static void LogReturnCode(const char* function, const char* sourceFile, int line,
                              int importance, const char* failedCall, long result,
                              const char* format, ...) __attribute__((format(printf, 7, 8)));

    // A catalogued message: the catalogue gives the text for `id`, the arguments fill it.
    static void LogMessage(Logging::MessageID id, ...);

    // Sink configuration, normally done once by the host program from its settings.
    // `sinks` is a mask of Sink bits; `filePath` is used when SinkFile is set.
    static void ConfigureSinks(unsigned int sinks, const std::string& filePath = std::string());
    static unsigned int ConfiguredSinks();
    // Closes and reopens the log file at its configured path (after logrotate moved it).
    // Without a file sink it does nothing; a failure is reported on stderr, as at
    // configuration, and file records are dropped until the next successful reopen.
    static void ReopenLogFile();
};
