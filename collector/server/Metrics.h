// The collector's counters, shown on the dashboard listener's /metrics in the Prometheus
// text format. Every member is updated lock-free from any thread (listeners, committer).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "report/Report.h"

namespace collector {

class Metrics {
public:
    // Upper bounds of the commit latency histogram, in seconds.
    static constexpr std::array<double, 10> kLatencyBounds = {0.001, 0.0025, 0.005, 0.01, 0.025,
                                                              0.05,  0.1,    0.25,  1.0,  5.0};

    void CountRequest(unsigned int status);
    void CountReport(ReportKind kind, bool duplicate);
    void CountBytesReceived(uint64_t bytes) { bytesReceived_ += bytes; }
    void ConnectionOpened() { ++connectionsOpen_; }
    void ConnectionClosed() { --connectionsOpen_; }
    void CountRefusedConnection() { ++connectionsRefused_; }
    // One committed (or failed) batch: its size and how long the store took.
    void CountCommit(double seconds, bool failed);

    // The text format: one family after another, each with its HELP and TYPE lines.
    std::string Render() const;

private:
    // The statuses the listeners answer with; anything else counts as "other".
    static constexpr std::array<unsigned int, 13> kStatuses = {200, 400, 401, 403, 404, 405, 408,
                                                               411, 413, 429, 431, 500, 503};

    std::array<std::atomic<uint64_t>, kStatuses.size() + 1> requests_{};
    std::array<std::atomic<uint64_t>, 4> reports_{};
    std::atomic<uint64_t> duplicates_{0};
    std::atomic<uint64_t> bytesReceived_{0};
    std::atomic<int64_t> connectionsOpen_{0};
    std::atomic<uint64_t> connectionsRefused_{0};
    std::atomic<uint64_t> commits_{0};
    std::atomic<uint64_t> storageErrors_{0};
    std::array<std::atomic<uint64_t>, kLatencyBounds.size() + 1> latencyBuckets_{};
    std::atomic<uint64_t> latencyMicrosSum_{0};
};

}  // namespace collector
