// Settings of the host framework: one key=value file that only the host reads.
//
//   log=syslog,stderr,file       sinks (comma separated)
//   log_file=/path/to/log
//   ca_file=/path/to/ca.pem      trust anchors for HTTPS (default: the system store)
//   connect_to=HOST:PORT:ADDR:PORT   send connections for HOST:PORT to ADDR:PORT
//   time_scale=1000              host clock scale (1 = real time)
//   clock_start=2027-01-01       host clock start: UNIX seconds, YYYY-MM-DD or
//                                YYYY-MM-DDTHH:MM:SSZ (UTC); it runs on at time_scale
//
// Lines starting with "#" and blank lines are ignored; an unknown key or a bad value is
// logged and skipped. The plug-in never reads this file.
#pragma once

#include <cstdint>
#include <string>

namespace pwhost {

struct HostSettings {
    unsigned int logSinks = 0;  // 0: keep the default (syslog)
    std::string logFile;
    std::string caFile;
    std::string connectTo;
    double timeScale = 1.0;
    int64_t clockStart = -1;  // UNIX seconds; -1: the current real time
};

// Reads `path` into `settings`. false (with a log line) when the file cannot be read.
bool LoadHostSettings(const std::string& path, HostSettings& settings);
// Applies the settings to the framework: sinks, clock scale, HTTPS trust and routing.
void ApplyHostSettings(const HostSettings& settings);
// The settings applied last (HTTP sessions read the CA file and connect-to mapping).
HostSettings CurrentHostSettings();

}  // namespace pwhost
