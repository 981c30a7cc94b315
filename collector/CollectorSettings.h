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

    // Limits of the receiving listener (keys in brackets).
    unsigned int headerTimeoutSeconds = 10;   // [header_timeout] first byte to last header
    unsigned int slowClientStrikes = 4;       // [slow_client_strikes] deadline overruns a minute
    unsigned int minBodyRate = 4096;          // [min_body_rate] bytes/s a body must keep up
    uint64_t bodyBudgetBytes = 384ull << 20;  // [body_budget] body bytes in flight, in all
    unsigned int postsPerMinutePerAddress = 600;          // [address_posts_per_minute]
    uint64_t bytesPerHourPerAddress = 1ull << 30;         // [address_bytes_per_hour]
    uint64_t damagedBytesPerDayPerAddress = 64ull << 20;  // [address_damaged_bytes_per_day]
    uint64_t minFreeBytes = 512ull << 20;                 // [min_free_space] 503 below it
    unsigned int drainTimeoutSeconds = 60;                // [drain_timeout] SIGTERM's grace period
};

// Reads `path` into `settings`; false (logged) when the file cannot be read. Bad lines
// are logged and skipped. The `listen` lines of the file replace the default addresses;
// a `log_file` without a `log` line logs to that file.
bool LoadCollectorSettings(const std::string& path, CollectorSettings& settings);

// Whether `value` is ADDR:PORT with an IPv4 address, or [ADDR]:PORT with an IPv6 one.
bool IsListenAddress(const std::string& value);

}  // namespace collector
