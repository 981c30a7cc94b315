// The host's own settings file and its application to the framework.
#include "HostSettings.h"

#include <fcntl.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "AppLog.h"
#include "HostClock.h"
#include "HostLogInternal.h"
#include "ResultCodes.h"
#include "UniqueFd.h"

namespace {

const char kLogSource[] = "host/src/HostSettings";
const size_t kMaxSettingsBytes = 1024u * 1024u;

struct AppliedSettings {
    std::mutex mutex;
    pwhost::HostSettings settings;
};

AppliedSettings& Applied() {
    static AppliedSettings* applied = new AppliedSettings;
    return *applied;
}

std::string Trim(const std::string& text) {
    const char* blanks = " \t\r\v\f";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

bool ParseSinks(const std::string& value, unsigned int& sinks) {
    unsigned int parsed = 0;
    size_t start = 0;
    for (;;) {
        size_t comma = value.find(',', start);
        std::string name = Trim(
            value.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (name == "syslog") {
            parsed |= CAppLog::SinkSyslog;
        } else if (name == "stderr") {
            parsed |= CAppLog::SinkStderr;
        } else if (name == "file") {
            parsed |= CAppLog::SinkFile;
        } else {
            return false;
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    sinks = parsed;
    return true;
}

bool IsPort(const std::string& text) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    long port = strtol(text.c_str(), nullptr, 10);
    return port >= 1 && port <= 65535;
}

// HOST:PORT:ADDR:PORT[,...]; ADDR may be a bracketed IPv6 address, which holds colons
// itself.
bool IsConnectTo(const std::string& value) {
    std::vector<std::string> mappings = pwhost::ConnectToMappings(value);
    for (const std::string& mapping : mappings) {
        size_t hostEnd = mapping.find(':');
        if (hostEnd == std::string::npos || hostEnd == 0) {
            return false;
        }
        size_t portEnd = mapping.find(':', hostEnd + 1);
        size_t lastColon = mapping.rfind(':');
        if (portEnd == std::string::npos || lastColon <= portEnd + 1 ||
            !IsPort(mapping.substr(hostEnd + 1, portEnd - hostEnd - 1)) ||
            !IsPort(mapping.substr(lastColon + 1))) {
            return false;
        }
    }
    return !mappings.empty();
}

// A positive finite decimal number.
bool ParsePositive(const std::string& value, double& number) {
    if (value.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    double parsed = strtod(value.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(parsed) || !(parsed > 0.0)) {
        return false;
    }
    number = parsed;
    return true;
}

// Seconds, 0.001 to 86400, into milliseconds.
bool ParseRequestTimeout(const std::string& value, unsigned int& milliseconds) {
    double seconds = 0;
    if (!ParsePositive(value, seconds) || seconds < 0.001 || seconds > 86400.0) {
        return false;
    }
    milliseconds = static_cast<unsigned int>(std::lround(seconds * 1000.0));
    return true;
}

// UNIX seconds, or a UTC date "YYYY-MM-DD" with an optional "THH:MM:SSZ".
bool ParseClockStart(const std::string& value, int64_t& seconds) {
    if (!value.empty() && value.find_first_not_of("0123456789") == std::string::npos) {
        errno = 0;
        long long parsed = strtoll(value.c_str(), nullptr, 10);
        if (errno != 0 || parsed > 0xFFFFFFFFll) {
            return false;
        }
        seconds = parsed;
        return true;
    }
    struct tm date = {};
    const char* end = strptime(value.c_str(), "%Y-%m-%d", &date);
    if (end != nullptr && *end == 'T') {
        end = strptime(end, "T%H:%M:%SZ", &date);
    }
    if (end == nullptr || *end != '\0') {
        return false;
    }
    // The host clock counts unsigned 32-bit seconds; a 32-bit time_t ends before that.
    const int64_t parsed = timegm(&date);
    if (parsed < 0 || parsed > static_cast<int64_t>(0xFFFFFFFFll)) {
        return false;
    }
    seconds = parsed;
    return true;
}

// Applies one key and value; false when the value is not acceptable for the key.
bool ApplyKey(const std::string& key, const std::string& value, pwhost::HostSettings& settings,
              bool& known) {
    known = true;
    if (key == "log") {
        return ParseSinks(value, settings.logSinks);
    }
    if (key == "log_file" || key == "ca_file") {
        if (value.empty()) {
            return false;
        }
        (key == "log_file" ? settings.logFile : settings.caFile) = value;
        return true;
    }
    if (key == "connect_to") {
        if (!IsConnectTo(value)) {
            return false;
        }
        settings.connectTo = value;
        return true;
    }
    if (key == "time_scale") {
        return ParsePositive(value, settings.timeScale);
    }
    if (key == "request_timeout") {
        return ParseRequestTimeout(value, settings.requestTimeoutMs);
    }
    if (key == "clock_start") {
        return ParseClockStart(value, settings.clockStart);
    }
    known = false;
    return false;
}

}  // namespace

namespace pwhost {

bool ReadSettingsFile(const std::string& path, const SettingsLineHandler& apply) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.Valid()) {
        PWHOST_LOG_ERRNO_ON("open", pwresult::kFailure, errno, path);
        return false;
    }
    std::string content;
    int read = ReadAll(fd.Get(), content, kMaxSettingsBytes);
    if (read < 0) {
        PWHOST_LOG_ERRNO_ON("read", pwresult::kFailure, errno, path);
        return false;
    }
    if (read > 0) {
        PWHOST_LOG(CAppLog::Error, "%s: larger than %zu bytes", path.c_str(), kMaxSettingsBytes);
        return false;
    }
    unsigned int lineNumber = 0;
    size_t start = 0;
    while (start < content.size()) {
        size_t newline = content.find('\n', start);
        size_t end = newline == std::string::npos ? content.size() : newline;
        std::string line = Trim(content.substr(start, end - start));
        start = end + 1;
        ++lineNumber;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        size_t equals = line.find('=');
        if (equals == std::string::npos) {
            PWHOST_LOG(CAppLog::Warning, "%s:%u: no \"=\", line skipped", path.c_str(), lineNumber);
            continue;
        }
        std::string key = Trim(line.substr(0, equals));
        std::string value = Trim(line.substr(equals + 1));
        switch (apply(key, value)) {
            case SettingVerdict::Applied:
                break;
            case SettingVerdict::BadValue:
                PWHOST_LOG(CAppLog::Warning, "%s:%u: bad value \"%s\" for %s, skipped",
                           path.c_str(), lineNumber, value.c_str(), key.c_str());
                break;
            case SettingVerdict::UnknownKey:
                PWHOST_LOG(CAppLog::Warning, "%s:%u: unknown key \"%s\", skipped", path.c_str(),
                           lineNumber, key.c_str());
                break;
        }
    }
    return true;
}

bool LoadHostSettings(const std::string& path, HostSettings& settings) {
    return ReadSettingsFile(path, [&settings](const std::string& key, const std::string& value) {
        bool known = false;
        if (ApplyKey(key, value, settings, known)) {
            return SettingVerdict::Applied;
        }
        return known ? SettingVerdict::BadValue : SettingVerdict::UnknownKey;
    });
}

bool ParseLogSinks(const std::string& value, unsigned int& sinks) {
    return ParseSinks(value, sinks);
}

bool ParseTimeScale(const std::string& value, double& scale) {
    return ParsePositive(value, scale);
}

bool ParseClockStartValue(const std::string& value, int64_t& seconds) {
    return ParseClockStart(value, seconds);
}

void ApplyHostSettings(const HostSettings& settings) {
    if (settings.logSinks != 0) {
        if ((settings.logSinks & CAppLog::SinkFile) && settings.logFile.empty()) {
            PWHOST_LOG(CAppLog::Warning, "file log requested without log_file");
        }
        // The capture sink belongs to the tests that turned it on.
        unsigned int keep = CAppLog::ConfiguredSinks() & CAppLog::SinkCapture;
        CAppLog::ConfigureSinks(settings.logSinks | keep, settings.logFile);
    }
    // A manual clock belongs to the tests that set it; otherwise the scale applies.
    if (!ClockIsManual()) {
        UseScaledClock(settings.timeScale, settings.clockStart);
    }
    AppliedSettings& applied = Applied();
    std::lock_guard<std::mutex> lock(applied.mutex);
    applied.settings = settings;
}

HostSettings CurrentHostSettings() {
    AppliedSettings& applied = Applied();
    std::lock_guard<std::mutex> lock(applied.mutex);
    return applied.settings;
}

std::vector<std::string> ConnectToMappings(const std::string& connectTo) {
    std::vector<std::string> mappings;
    size_t start = 0;
    while (start < connectTo.size()) {
        size_t comma = connectTo.find(',', start);
        if (comma == std::string::npos) {
            comma = connectTo.size();
        }
        if (comma > start) {
            mappings.push_back(connectTo.substr(start, comma - start));
        }
        start = comma + 1;
    }
    return mappings;
}

}  // namespace pwhost
