// export: every report that matches, oldest id first, one JSON object a line.
//
// A store of a million reports is gigabytes of JSON, nearly all of it the reports' own text,
// and reading the rows costs as much as writing their text. So both are spread over the
// cores: workers (one per core, each with its own connection to the store) take pages of
// the id range in turn, read them and turn them into lines, and this thread writes the pages
// out in id order, one large write a page. At most two pages a worker are held at once, and
// a page holds at most about kPageBytes of report bodies (fewer reports when they are
// large), so memory stays bounded whatever the store's size. Reports stored after the
// export began are not in it.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>

#include "Commands.h"
#include "api/ApiParams.h"
#include "commands/CommandSupport.h"
#include "report/ReportReader.h"

namespace collector {

namespace {

using Json = nlohmann::ordered_json;

const char kUsage[] = "export [--since DATE] [--until DATE] [--kind KIND] [--machine ID]";

constexpr unsigned kMaxWorkers = 8;
constexpr int kFirstPageReports = 16;
constexpr int kMaxPageReports = 1000;
constexpr uint64_t kPageBytes = 32u * 1024 * 1024;

// A string as the JSON library writes it (invalid UTF-8 replaced). Most stored fields are
// printable ASCII that needs no escape: those are copied as they are, which is what the
// library would write for them.
void AppendString(std::string& out, const std::string& text) {
    bool plain = true;
    for (unsigned char c : text) {
        if (c < 0x20 || c >= 0x7f || c == '"' || c == '\\') {
            plain = false;
            break;
        }
    }
    if (plain) {
        out += '"';
        out += text;
        out += '"';
        return;
    }
    out += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void AppendKey(std::string& out, const char* key) {
    out += ",\"";
    out += key;
    out += "\":";
}

void AppendTimeOrNull(std::string& out, bool present, int64_t time) {
    if (present) {
        AppendString(out, IsoTime(time));
    } else {
        out += "null";
    }
}

// The module data is the report's own JSON mapping already, written again in the form of
// the rest of the line; kept as text when it is not JSON, so that a line is always one
// valid object.
void AppendModuleData(std::string& out, const std::string& moduleDataJson) {
    if (moduleDataJson.empty()) {
        out += "null";
        return;
    }
    Json moduleData = Json::parse(moduleDataJson, nullptr, false);
    if (moduleData.is_discarded()) {
        AppendString(out, moduleDataJson);
        return;
    }
    out += moduleData.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// One report's line: its stored fields, then the report in the shared JSON form as that
// writer wrote it (null when the body does not read as a report).
void AppendLine(const StoredReport& r, std::string& out, std::string& json) {
    const ReportSummary& s = r.summary;
    out += "{\"id\":";
    out += std::to_string(s.id);
    AppendKey(out, "received");
    AppendString(out, IsoTime(s.received));
    AppendKey(out, "client_address");
    AppendString(out, r.clientAddress);
    AppendKey(out, "kind");
    AppendString(out, KindName(s.kind));
    AppendKey(out, "damaged_reason");
    if (s.kind == ReportKind::Damaged) {
        AppendString(out, r.damagedReason);
    } else {
        out += "null";
    }
    AppendKey(out, "machine_id");
    AppendString(out, s.machineId);
    AppendKey(out, "unknown_machine");
    out += s.machineId == kUnknownMachineId ? "true" : "false";
    AppendKey(out, "customer_id");
    AppendString(out, s.customerId);
    AppendKey(out, "version");
    AppendString(out, s.version);
    out += ",\"os\":{\"type\":";
    AppendString(out, r.osType);
    AppendKey(out, "name");
    AppendString(out, r.osName);
    AppendKey(out, "major");
    out += std::to_string(r.osMajor);
    AppendKey(out, "minor");
    out += std::to_string(r.osMinor);
    AppendKey(out, "build");
    out += std::to_string(r.osBuild);
    AppendKey(out, "details");
    AppendString(out, r.osVersionDetails);
    AppendKey(out, "locale");
    AppendString(out, r.osLocale);
    out += '}';
    AppendKey(out, "period_start");
    AppendTimeOrNull(out, s.hasPeriod, s.periodStart);
    AppendKey(out, "period_end");
    AppendTimeOrNull(out, s.hasPeriod, s.periodEnd);
    AppendKey(out, "modules");
    out += '[';
    for (size_t i = 0; i < s.modules.size(); ++i) {
        out += i == 0 ? "" : ",";
        AppendString(out, s.modules[i]);
    }
    out += ']';
    AppendKey(out, "size");
    out += std::to_string(s.size);
    AppendKey(out, "sha256");
    AppendString(out, s.sha256);
    AppendKey(out, "module_data");
    AppendModuleData(out, r.moduleDataJson);
    AppendKey(out, "crash_dumps");
    out += '[';
    for (size_t i = 0; i < r.dumps.size(); ++i) {
        const StoredDump& dump = r.dumps[i];
        out += i == 0 ? "{\"module\":" : ",{\"module\":";
        AppendString(out, dump.module);
        AppendKey(out, "size");
        out += std::to_string(dump.size);
        AppendKey(out, "sha256");
        AppendString(out, dump.sha256);
        AppendKey(out, "repeat");
        out += dump.repeat ? "true}" : "false}";
    }
    out += ']';
    AppendKey(out, "threat_incident");
    if (r.hasThreat) {
        AppendString(out, r.threatIncident);
    } else {
        out += "null";
    }
    AppendKey(out, "duplicates");
    out += '[';
    for (size_t i = 0; i < r.duplicateTimes.size(); ++i) {
        out += i == 0 ? "" : ",";
        AppendString(out, IsoTime(r.duplicateTimes[i]));
    }
    out += ']';
    AppendKey(out, "report");
    // A damaged body may not read as a report at all: it goes the long way, which says so.
    std::string reason;
    if (s.kind == ReportKind::Damaged || !AppendAcceptedReportJson(r.body, out)) {
        out += ReportToJson(r.body, json, reason) ? json : "null";
    }
    out += "}\n";
}

// How many ids the next page covers: twice as many as `width`, the last page's, but no
// more reports than fit kPageBytes if they are as large as the largest of that page. The
// first pages are small, so that a store of large reports never has a large page in memory.
int64_t NextPageWidth(const std::vector<StoredReport>& page, int64_t width) {
    uint64_t largest = 1;
    for (const StoredReport& report : page) {
        largest = std::max<uint64_t>(largest, report.body.size());
    }
    const uint64_t fit = std::max<uint64_t>(1, kPageBytes / largest);
    return static_cast<int64_t>(
        std::min<uint64_t>({kMaxPageReports, fit, 2 * static_cast<uint64_t>(width)}));
}

// Writes all of `data` to `fd`; false on an error (a closed pipe included).
bool WriteAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t written = write(fd, data.data() + done, data.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += static_cast<size_t>(written);
    }
    return true;
}

// The workers and the writer (the caller's thread) of one export. The id range is cut into
// pages, handed out in order: each worker, with a store connection of its own, claims the
// next page, reads its reports and turns them into lines; the writer puts the pages out by
// their sequence number, so the output keeps the id order whichever worker finishes first.
// A machine's reports are few and found through its index, so that export is one worker
// walking them page after page instead.
class ExportPipeline {
public:
    explicit ExportPipeline(const ReportFilter& filter) : m_filter(filter) {}

    // 0 when every matching report was written to `fd`; 1 (reported) otherwise.
    int Run(const std::string& database, int fd) {
        const bool byMachine = !m_filter.machineId.empty();
        // Two at least, so that reading overlaps writing; at most kMaxWorkers connections.
        const unsigned workers =
            byMachine ? 1
                      : std::min(kMaxWorkers, std::max(2u, std::thread::hardware_concurrency()));
        std::vector<std::unique_ptr<Store>> stores;
        for (unsigned i = 0; i < workers; ++i) {
            stores.push_back(OpenForCommand(database));
            if (!stores.back()) {
                return 1;
            }
        }
        // The pages cover the ids of the reports received within the time bounds.
        int64_t first = 0;
        if (!byMachine) {
            if (stores[0]->ReportIdRange(m_filter, first, m_lastId) != StoreResult::Ok) {
                CommandFailed("export stopped: the store could not be read");
                return 1;
            }
            m_nextId = first - 1;
            m_claimedAll = m_lastId == 0;
        }
        m_workersLeft = workers;
        m_maxInFlight = 2 * workers;
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < workers; ++i) {
            threads.emplace_back(&ExportPipeline::Work, this, stores[i].get(), byMachine);
        }
        const bool written = Write(fd);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_all();
        for (std::thread& thread : threads) {
            thread.join();
        }
        if (m_failedPage != kNoPage) {
            CommandFailed("export stopped: the store could not be read");
            return 1;
        }
        if (!written) {
            CommandFailed("export stopped: cannot write");
            return 1;
        }
        return 0;
    }

private:
    static constexpr uint64_t kNoPage = UINT64_MAX;

    struct Page {
        uint64_t sequence = 0;
        std::string text;
    };

    // Claims the next page: its sequence number and the ids after `afterId` it covers, up
    // to `lastId` (0: a page of at most `width` reports). False when none is left, or the
    // export is stopping.
    bool Claim(bool byMachine, uint64_t& sequence, int64_t& afterId, int64_t& lastId,
               int64_t& width) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_stop || m_inFlight < m_maxInFlight; });
        if (m_stop || m_failedPage != kNoPage || m_claimedAll) {
            return false;
        }
        afterId = m_nextId;
        width = m_width;
        lastId = byMachine ? 0 : std::min(m_lastId, afterId + width);
        if (!byMachine) {
            m_nextId = lastId;
            m_claimedAll = lastId == m_lastId;
        }
        sequence = m_pagesClaimed++;
        ++m_inFlight;
        return true;
    }

    void Work(Store* store, bool byMachine) {
        std::vector<StoredReport> reports;
        std::string json;
        uint64_t sequence = 0;
        int64_t afterId = 0, lastId = 0, width = 0;
        while (Claim(byMachine, sequence, afterId, lastId, width)) {
            StoreResult result =
                byMachine ? store->ScanReports(m_filter, afterId, static_cast<int>(width), reports)
                          : store->ScanReportRange(m_filter, afterId, lastId, reports);
            std::unique_ptr<Page> page(new Page);
            page->sequence = sequence;
            // Room for the lines at once: a line is about its body and a kilobyte of fields.
            size_t expected = 0;
            for (const StoredReport& report : reports) {
                expected += report.body.size() + report.moduleDataJson.size() + 1024;
            }
            page->text.reserve(expected);
            for (const StoredReport& report : reports) {
                AppendLine(report, page->text, json);
            }
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (result != StoreResult::Ok) {
                    m_failedPage = std::min(m_failedPage, sequence);
                } else {
                    m_width = NextPageWidth(reports, width);
                    if (byMachine) {
                        m_nextId = reports.empty() ? m_nextId : reports.back().summary.id;
                        m_claimedAll = reports.empty();
                    }
                    m_converted[sequence] = std::move(page);
                }
            }
            m_changed.notify_all();
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            --m_workersLeft;
        }
        m_changed.notify_all();
    }

    // Writes the pages in sequence until the last, or the first that could not be read.
    bool Write(int fd) {
        for (uint64_t next = 0;; ++next) {
            std::unique_ptr<Page> page;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_changed.wait(lock, [&] {
                    return m_converted.count(next) != 0 || next >= m_failedPage ||
                           (m_workersLeft == 0 && next == m_pagesClaimed);
                });
                auto found = m_converted.find(next);
                if (found == m_converted.end()) {
                    return true;
                }
                page = std::move(found->second);
                m_converted.erase(found);
            }
            if (!WriteAll(fd, page->text)) {
                return false;
            }
            page.reset();
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                --m_inFlight;
            }
            m_changed.notify_all();
        }
    }

    const ReportFilter& m_filter;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<uint64_t, std::unique_ptr<Page>> m_converted;  // by sequence, waiting to be written
    int64_t m_lastId = 0;                 // the highest id to export (fixed as it begins)
    int64_t m_nextId = 0;                 // the next page begins after this id
    int64_t m_width = kFirstPageReports;  // ids (or reports) a page covers
    bool m_claimedAll = false;
    uint64_t m_pagesClaimed = 0;
    size_t m_inFlight = 0;  // pages claimed and not yet written
    size_t m_maxInFlight = 0;
    unsigned m_workersLeft = 0;
    uint64_t m_failedPage = kNoPage;  // the first page that could not be read
    bool m_stop = false;              // the writer is done: everyone stops
};

}  // namespace

int RunExport(const CollectorSettings& settings, const std::vector<std::string>& args) {
    std::map<std::string, std::string> options;
    if (!ReadOptions(args, {"since", "until", "kind", "machine"}, kUsage, options)) {
        return 2;
    }
    ReportFilter filter;
    ApiTarget values;
    values.query = options;
    if (!ReadTime(values, "since", filter.since) || !ReadTime(values, "until", filter.until)) {
        fprintf(stderr, "pathweave-collector: a date is YYYY-MM-DD or YYYY-MM-DDTHH:MM:SSZ\n");
        return 2;
    }
    if (options.count("kind") != 0 && !(filter.hasKind = ParseKind(options["kind"], filter.kind))) {
        fprintf(stderr, "pathweave-collector: a kind is feedback, crash, threat or damaged\n");
        return 2;
    }
    filter.machineId = options["machine"];
    if (!filter.machineId.empty() && !ReadMachineId(filter.machineId)) {
        fprintf(stderr, "pathweave-collector: a machine id is 40 lower-case hex digits\n");
        return 2;
    }
    ExportPipeline pipeline(filter);
    return pipeline.Run(settings.database, STDOUT_FILENO);
}

}  // namespace collector
