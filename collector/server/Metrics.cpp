#include "server/Metrics.h"

#include <cstdio>

namespace collector {

namespace {

void Family(std::string& out, const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

void Sample(std::string& out, const char* name, const std::string& labels, double value) {
    char number[64];
    std::snprintf(number, sizeof number, "%.17g", value);
    out += name;
    if (!labels.empty())
        out += "{" + labels + "}";
    out += ' ';
    out += number;
    out += '\n';
}

}  // namespace

void Metrics::CountRequest(unsigned int status) {
    size_t slot = kStatuses.size();
    for (size_t i = 0; i < kStatuses.size(); ++i) {
        if (kStatuses[i] == status)
            slot = i;
    }
    ++requests_[slot];
}

void Metrics::CountReport(ReportKind kind, bool duplicate) {
    ++reports_[static_cast<size_t>(kind)];
    if (duplicate)
        ++duplicates_;
}

void Metrics::CountCommit(double seconds, bool failed) {
    if (failed) {
        ++storageErrors_;
        return;
    }
    ++commits_;
    size_t bucket = 0;
    while (bucket < kLatencyBounds.size() && seconds > kLatencyBounds[bucket])
        ++bucket;
    ++latencyBuckets_[bucket];
    latencyMicrosSum_ += static_cast<uint64_t>(seconds * 1e6);
}

std::string Metrics::Render() const {
    std::string out;
    Family(out, "pathweave_collector_requests_total", "counter",
           "Requests answered, by HTTP status.");
    for (size_t i = 0; i <= kStatuses.size(); ++i) {
        std::string code = i < kStatuses.size() ? std::to_string(kStatuses[i]) : "other";
        Sample(out, "pathweave_collector_requests_total", "status=\"" + code + "\"",
               static_cast<double>(requests_[i].load()));
    }
    Family(out, "pathweave_collector_reports_total", "counter",
           "Reports stored, by kind (damaged ones included; duplicates counted too).");
    for (int kind = 0; kind < 4; ++kind) {
        Sample(out, "pathweave_collector_reports_total",
               std::string("kind=\"") + KindName(static_cast<ReportKind>(kind)) + "\"",
               static_cast<double>(reports_[kind].load()));
    }
    Family(out, "pathweave_collector_duplicates_total", "counter",
           "Reports that were already stored.");
    Sample(out, "pathweave_collector_duplicates_total", "", static_cast<double>(duplicates_));
    Family(out, "pathweave_collector_damaged_total", "counter",
           "Bodies that did not validate (stored as damaged).");
    Sample(out, "pathweave_collector_damaged_total", "",
           static_cast<double>(reports_[static_cast<size_t>(ReportKind::Damaged)].load()));
    Family(out, "pathweave_collector_received_bytes_total", "counter",
           "Request body bytes received whole.");
    Sample(out, "pathweave_collector_received_bytes_total", "",
           static_cast<double>(bytesReceived_));
    Family(out, "pathweave_collector_connections_open", "gauge",
           "Connections open on the receiving listeners.");
    Sample(out, "pathweave_collector_connections_open", "", static_cast<double>(connectionsOpen_));
    Family(out, "pathweave_collector_connections_refused_total", "counter",
           "Connections closed at once: past a connection cap, or while draining.");
    Sample(out, "pathweave_collector_connections_refused_total", "",
           static_cast<double>(connectionsRefused_));
    Family(out, "pathweave_collector_storage_errors_total", "counter",
           "Batches the store could not commit (answered 503).");
    Sample(out, "pathweave_collector_storage_errors_total", "",
           static_cast<double>(storageErrors_));
    Family(out, "pathweave_collector_commit_seconds", "histogram",
           "Time the store took to commit one batch durably.");
    uint64_t cumulative = 0;
    for (size_t i = 0; i <= kLatencyBounds.size(); ++i) {
        cumulative += latencyBuckets_[i].load();
        char bound[32];
        if (i < kLatencyBounds.size()) {
            std::snprintf(bound, sizeof bound, "%g", kLatencyBounds[i]);
        } else {
            std::snprintf(bound, sizeof bound, "+Inf");
        }
        Sample(out, "pathweave_collector_commit_seconds_bucket",
               std::string("le=\"") + bound + "\"", static_cast<double>(cumulative));
    }
    Sample(out, "pathweave_collector_commit_seconds_sum", "",
           static_cast<double>(latencyMicrosSum_) / 1e6);
    Sample(out, "pathweave_collector_commit_seconds_count", "", static_cast<double>(cumulative));
    return out;
}

}  // namespace collector
