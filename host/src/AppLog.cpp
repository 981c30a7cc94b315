// Host logging: record formatting and the four sinks.
#include "AppLog.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "HostTestControl.h"
#include "LogEscape.h"
#include "ResultCodes.h"
#include "UniqueFd.h"
#include "TestControlInternal.h"

namespace {

struct LogState {
    std::mutex mutex;
    unsigned int sinks = CAppLog::SinkSyslog;
    std::string filePath;
    pwhost::UniqueFd fileFd;
    bool syslogOpen = false;
    std::vector<pwtest::LogRecord> captured;
};

LogState& State() {
    static LogState* state = new LogState;  // never destroyed: logging works during exit
    return *state;
}

const char* ImportanceName(int importance) {
    switch (importance) {
        case CAppLog::Error:
            return "E";
        case CAppLog::Warning:
            return "W";
        case CAppLog::Information:
            return "I";
        default:
            return "?";
    }
}

int SyslogPriority(int importance) {
    switch (importance) {
        case CAppLog::Error:
            return LOG_ERR;
        case CAppLog::Warning:
            return LOG_WARNING;
        default:
            return LOG_INFO;
    }
}

std::string FormatV(const char* format, va_list args) {
    if (format == nullptr) {
        return std::string();
    }
    char small[512];
    va_list copy;
    va_copy(copy, args);
    int needed = vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) {
        return std::string("(unformattable log text)");
    }
    if (static_cast<size_t>(needed) < sizeof small) {
        return std::string(small, static_cast<size_t>(needed));
    }
    std::string text(static_cast<size_t>(needed) + 1, '\0');
    vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(needed));
    return text;
}

std::string RenderLine(const pwtest::LogRecord& record) {
    std::string line;
    line.reserve(record.text.size() + 128);
    line += ImportanceName(record.importance);
    line += ' ';
    line += record.sourceFile;
    line += ':';
    line += std::to_string(record.line);
    line += ' ';
    line += record.function;
    line += ": ";
    if (record.hasResult) {
        char code[16];
        snprintf(code, sizeof code, "0x%08X",
                 static_cast<unsigned int>(PwResultNormalize(record.result)));
        line += record.failedCall;
        line += " failed (";
        line += code;
        line += ")";
        if (!record.text.empty()) {
            line += ": ";
        }
    }
    line += record.text;
    return line;
}

// "2026-11-23T22:41:44Z pathweave-host[1234]: ": the real time in UTC (ISO 8601), the
// program and its pid; the importance letter follows in the line itself.
std::string LinePrefix() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm utc {};
    gmtime_r(&now.tv_sec, &utc);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string(stamp) + ' ' + pwhost::EscapeLogText(program_invocation_short_name) + '[' +
           std::to_string(getpid()) + "]: ";
}

void WriteAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;  // logging never fails its caller
        }
        done += static_cast<size_t>(n);
    }
}

void Emit(pwtest::LogRecord&& record) {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.sinks & (CAppLog::SinkSyslog | CAppLog::SinkStderr | CAppLog::SinkFile)) {
        // Every sink gets the escaped line: one record stays one line, whatever its text
        // carries. The capture sink keeps the record as it was made.
        std::string line = pwhost::EscapeLogText(RenderLine(record));
        if (state.sinks & CAppLog::SinkSyslog) {
            if (!state.syslogOpen) {
                openlog("pathweave", LOG_PID, LOG_USER);
                state.syslogOpen = true;
            }
            syslog(SyslogPriority(record.importance), "%s", line.c_str());
        }
        if (state.sinks & (CAppLog::SinkStderr | CAppLog::SinkFile)) {
            // Syslog stamps its own lines; the file and stderr get the same facts.
            line = LinePrefix() + line + '\n';
        }
        if (state.sinks & CAppLog::SinkStderr) {
            WriteAll(STDERR_FILENO, line);
        }
        if ((state.sinks & CAppLog::SinkFile) && state.fileFd.Valid()) {
            WriteAll(state.fileFd.Get(), line);
        }
    }
    if (state.sinks & CAppLog::SinkCapture) {
        state.captured.push_back(std::move(record));
    }
}

pwtest::LogRecord MakeRecord(const char* function, const char* sourceFile, int line,
                             int importance) {
    pwtest::LogRecord record;
    record.function = function != nullptr ? function : "";
    record.sourceFile = sourceFile != nullptr ? sourceFile : "";
    record.line = line;
    record.importance = importance;
    return record;
}

// The message catalogue: built-in English texts of the catalogued messages.
const char* CatalogueText(Logging::MessageID id) {
    switch (id) {
        case Logging::PHONEHOME_SETTINGS_SUMMARY:
            return "Customer Experience Feedback settings: service %s, machine ID %s, "
                   "customer ID %s, server %s, include crash reports %s, crash check interval "
                   "%u s, feedback interval %u s, next sequence number %u";
    }
    return nullptr;
}

}  // namespace

void CAppLog::LogDebugMessage(const char* function, const char* sourceFile, int line,
                              int importance, const char* format, ...) {
    pwtest::LogRecord record = MakeRecord(function, sourceFile, line, importance);
    va_list args;
    va_start(args, format);
    record.text = FormatV(format, args);
    va_end(args);
    Emit(std::move(record));
}

void CAppLog::LogReturnCode(const char* function, const char* sourceFile, int line, int importance,
                            const char* failedCall, long result) {
    pwtest::LogRecord record = MakeRecord(function, sourceFile, line, importance);
    record.failedCall = failedCall != nullptr ? failedCall : "";
    record.result = result;
    record.hasResult = true;
    Emit(std::move(record));
}

void CAppLog::LogReturnCode(const char* function, const char* sourceFile, int line, int importance,
                            const char* failedCall, long result, const char* format, ...) {
    pwtest::LogRecord record = MakeRecord(function, sourceFile, line, importance);
    record.failedCall = failedCall != nullptr ? failedCall : "";
    record.result = result;
    record.hasResult = true;
    va_list args;
    va_start(args, format);
    record.text = FormatV(format, args);
    va_end(args);
    Emit(std::move(record));
}

void CAppLog::LogMessage(Logging::MessageID id, ...) {
    pwtest::LogRecord record = MakeRecord("LogMessage", "host/AppLog", 0, CAppLog::Information);
    record.messageId = id;
    const char* format = CatalogueText(id);
    va_list args;
    // MessageID has unsigned int as its fixed underlying type, which default argument
    // promotion leaves as it is; clang warns about any enum here all the same.
#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wvarargs"
#endif
    va_start(args, id);
#if defined(__clang__)
#pragma clang diagnostic pop
#endif
    if (format != nullptr) {
        record.text = FormatV(format, args);
    } else {
        record.text = "message " + std::to_string(static_cast<unsigned int>(id));
    }
    va_end(args);
    Emit(std::move(record));
}

namespace {

// Opens the configured log file for appending; the caller holds the state's lock.
void OpenLogFile(LogState& state) {
    if (state.filePath.empty()) {
        return;
    }
    state.fileFd.Reset(
        open(state.filePath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!state.fileFd.Valid()) {
        std::string line = "E host/AppLog: cannot open log file " +
                           pwhost::EscapeLogText(state.filePath) + ": " + strerror(errno) + "\n";
        WriteAll(STDERR_FILENO, line);
    }
}

}  // namespace

void CAppLog::ConfigureSinks(unsigned int sinks, const std::string& filePath) {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.fileFd.Valid() && (filePath != state.filePath || !(sinks & SinkFile))) {
        state.fileFd.Reset();
    }
    state.filePath = filePath;
    if ((sinks & SinkFile) && !state.fileFd.Valid()) {
        OpenLogFile(state);
    }
    state.sinks = sinks;
}

void CAppLog::ReopenLogFile() {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!(state.sinks & SinkFile)) {
        return;
    }
    state.fileFd.Reset();
    OpenLogFile(state);
}

unsigned int CAppLog::ConfiguredSinks() {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.sinks;
}

#ifdef PW_TEST_HOOKS
namespace pwtest {

void StartLogCapture() {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.captured.clear();
    // Tests see their records in memory; syslog stays out of the way.
    state.sinks =
        (state.sinks & ~static_cast<unsigned int>(CAppLog::SinkSyslog)) | CAppLog::SinkCapture;
}

void StopLogCapture() {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.sinks &= ~static_cast<unsigned int>(CAppLog::SinkCapture);
    state.captured.clear();
}

std::vector<LogRecord> CapturedLogs() {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.captured;
}

void ClearCapturedLogs() {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    state.captured.clear();
}

size_t CountLogText(const std::string& text) {
    LogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    size_t count = 0;
    for (const LogRecord& record : state.captured) {
        if (record.text == text) {
            ++count;
        }
    }
    return count;
}

bool HasLogText(const std::string& text) {
    return CountLogText(text) > 0;
}

}  // namespace pwtest
#endif  // PW_TEST_HOOKS
