// Settings of the collector: /etc/pathweave/collector.conf or the file given with
// --config. key=value lines, "#" comments and blank lines ignored; a bad line is logged
// with file:line and skipped (the host settings' conventions).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace collector {

struct CollectorSettings {
    std::vector<std::string> listen;  // ADDR:PORT or [IPv6]:PORT; several allowed
    bool proxyProtocol = false;       // listeners expect a PROXY protocol header
    std::string certFile;
    std::string keyFile;
    std::string database = "/var/lib/pathweave-collector/collector.db";
    unsigned int retentionDays = 365;
    unsigned int maxConnections = 20000;
    unsigned int maxConnectionsPerAddress = 256;
    unsigned int idleTimeoutSeconds = 60;
    bool keepClientAddress = true;
    unsigned int logSinks = 0;  // as the host's `log`
    std::string logFile;
    std::string dashboardListen = "127.0.0.1:8080";
    std::string dashboardToken;  // empty: generated into the state directory; "off": none
    std::string stateDirectory = "/var/lib/pathweave-collector";
    double timeScale = 1.0;
    int64_t clockStart = -1;
};

// Reads `path` into `settings`; false (logged) when the file cannot be read. Bad lines
// are logged and skipped.
bool LoadCollectorSettings(const std::string& path, CollectorSettings& settings);

}  // namespace collector
