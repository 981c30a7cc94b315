// Settings of the host framework: one key=value file that only the host reads.
//
//   log=syslog,stderr,file       sinks (comma separated)
//   log_file=/path/to/log
//   ca_file=/path/to/ca.pem      trust anchors for HTTPS (default: the system store)
//   connect_to=HOST:PORT:ADDR:PORT   send connections for HOST:PORT to ADDR:PORT (several
//                                mappings separated by commas)
//   time_scale=1000              host clock scale (1 = real time)
//   clock_start=2027-01-01       host clock start: UNIX seconds, YYYY-MM-DD or
//                                YYYY-MM-DDTHH:MM:SSZ (UTC); it runs on at time_scale
//   request_timeout=300          longest time in seconds that one HTTPS request (connect,
//                                handshake, send, wait, reply) may take; decimals allowed,
//                                from 0.001 to 86400; default 300. Counted in real time,
//                                not on the host clock: a scaled clock speeds up the
//                                schedule, never the network.
//
// Lines starting with "#" and blank lines are ignored; an unknown key or a bad value is
// logged and skipped. The plug-in never reads this file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace pwhost {

struct HostSettings {
    unsigned int logSinks = 0;  // 0: keep the default (syslog)
    std::string logFile;
    std::string caFile;
    std::string connectTo;
    double timeScale = 1.0;
    int64_t clockStart = -1;  // UNIX seconds; -1: the current real time
    unsigned int requestTimeoutMs = 300000;
};

// Reads `path` into `settings`. false (with a log line) when the file cannot be read.
bool LoadHostSettings(const std::string& path, HostSettings& settings);
// Applies the settings to the framework: sinks, clock scale, HTTPS trust and routing.
void ApplyHostSettings(const HostSettings& settings);
// The settings applied last (HTTP sessions read the CA file, the connect-to mapping and
// the request timeout).
HostSettings CurrentHostSettings();

// The conventions of this file, for other programs' settings files (the collector's): at most
// 1 MiB; "#" comments and blank lines ignored; keys and values trimmed. Each key=value line
// goes to the handler; a line without "=", a bad value or an unknown key is logged with
// file:line and skipped. False (logged) when the file cannot be read.
enum class SettingVerdict { Applied, BadValue, UnknownKey };
using SettingsLineHandler =
    std::function<SettingVerdict(const std::string& key, const std::string& value)>;
bool ReadSettingsFile(const std::string& path, const SettingsLineHandler& apply);
// The values of `log`, `time_scale` and `clock_start` as this file takes them; false when
// `value` is not one.
bool ParseLogSinks(const std::string& value, unsigned int& sinks);
bool ParseTimeScale(const std::string& value, double& scale);
bool ParseClockStartValue(const std::string& value, int64_t& seconds);

// The HOST:PORT:ADDR:PORT mappings of a connect_to value, in order.
std::vector<std::string> ConnectToMappings(const std::string& connectTo);

}  // namespace pwhost
