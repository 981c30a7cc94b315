// The store: where reports are kept. One interface, one file per back end (SQLite, the
// embedded default; PostgreSQL for several collector nodes sharing one database).
//
// Threads: a Store object is used by one thread at a time (the committer, or one API
// request, or a command); a program that needs more opens more. Several Store objects,
// in one process or in several, may use the same database at once.
// Failures are return values; nothing is thrown across this interface.
//
// Days are UTC days of the time received (UNIX seconds / 86400). Daily figures and
// breakdowns are rollups written in the same transaction as the reports they count, and
// corrected in the same transaction as a purge, so reading them never scans the reports.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "report/Report.h"

namespace collector {

enum class StoreResult {
    Ok = 0,
    NotFound,     // no such report, dump or machine
    Unavailable,  // storage cannot be reached or written now (database gone, disk full):
                  // the caller answers 503 and tries again later
    Error,        // anything else, logged where it happened
};

// What became of one report of a batch.
struct InsertOutcome {
    int64_t id = 0;          // the stored report's id (the earlier one for a duplicate)
    bool duplicate = false;  // same machine id, collection period and SHA-256 as a stored one
};

// A report as listed: the fields every listing shows.
struct ReportSummary {
    int64_t id = 0;
    int64_t received = 0;
    std::string machineId, customerId, version;
    ReportKind kind = ReportKind::Damaged;
    bool hasPeriod = false;
    int64_t periodStart = 0, periodEnd = 0;
    std::vector<std::string> modules;
    uint64_t size = 0;  // bytes of the stored body
    std::string sha256;
    std::string osName, osVersion;  // osVersion: "major.minor.build"
};

// One crash dump of a stored report. `repeat` is set when the same dump (machine, module,
// dump SHA-256) had already arrived in an earlier report.
struct StoredDump {
    std::string module;
    uint64_t size = 0;
    std::string sha256;
    bool repeat = false;
};

// Everything kept of one report.
struct StoredReport {
    ReportSummary summary;
    std::string body;  // verbatim
    std::string clientAddress;
    std::string damagedReason;
    std::string osType, osName, osVersionDetails, osLocale;
    int64_t osMajor = 0, osMinor = 0, osBuild = 0;
    std::string moduleDataJson;
    std::vector<StoredDump> dumps;
    bool hasThreat = false;
    std::string threatIncident;
    std::vector<int64_t> duplicateTimes;  // when each later copy of it arrived
};

// A listing's filters. Empty strings and hasKind=false mean "any"; since/until bound the
// time received, since inclusive, until exclusive (0: unbounded).
struct ReportFilter {
    bool hasKind = false;
    ReportKind kind = ReportKind::Feedback;
    std::string machineId, customerId, version, module;
    int64_t since = 0, until = 0;
};

// A position in the newest-first order (time received, then id): the listing continues
// with the reports after it. `valid` false starts at the newest.
struct ReportCursor {
    bool valid = false;
    int64_t received = 0;
    int64_t id = 0;
};

struct DailyFigures {
    int64_t day = 0;                    // UNIX seconds / 86400
    int64_t perKind[4] = {0, 0, 0, 0};  // indexed by ReportKind
    int64_t duplicates = 0;
    int64_t machines = 0;  // distinct machines that reported (the unknown machine excluded)
    int64_t bytes = 0;     // stored body bytes
};

// What a breakdown counts reports by.
enum class BreakdownBy { Version = 0, Os, Locale, Customer, CrashModule };
bool ParseBreakdownBy(const std::string& text, BreakdownBy& by);

struct BreakdownRow {
    std::string value;
    int64_t count = 0;
    int64_t repeats = 0;  // CrashModule only: dumps that had arrived before
};

// A field of a module's data (FieldValue) as the store keeps its figures.
struct ModuleFieldDay {
    int64_t day = 0;
    int64_t count = 0;
    int64_t sum = 0, min = 0, max = 0;                 // integers
    std::vector<std::pair<std::string, int64_t>> top;  // texts: most frequent values first
};
struct ModuleField {
    std::string path;
    FieldKind kind = FieldKind::Integer;
    std::vector<ModuleFieldDay> days;  // oldest first, days with values only
};
// Crash figures over a range: dumps per day and module (new ones apart from repeats),
// and crash reports per product version.
struct CrashDay {
    int64_t day = 0;
    std::string module;
    int64_t fresh = 0, repeats = 0;
};
struct CrashVersion {
    std::string version;
    int64_t count = 0;
};

struct ModuleSummary {
    std::string name;
    int64_t reports = 0;
};

// How many of a module's fields are kept: paths go at most kFieldMaxDepth deep (Report.h),
// and a module keeps at most so many distinct fields, a text field so many distinct values
// (the rest are counted under kOtherValue), so that hostile keys cannot blow up the figures.
constexpr int kMaxFieldsPerModule = 200;
constexpr int kMaxValuesPerField = 100;
constexpr const char kOtherValue[] = "(other)";

constexpr int kMachineReports = 5000;

struct StoreTotals {
    int64_t reports = 0, duplicates = 0, damaged = 0, machines = 0, bytes = 0;
    int64_t perKind[4] = {0, 0, 0, 0};
    int64_t firstDay = 0, lastDay = -1;  // the days that have figures
};

class Store {
public:
    // Opens `database`: a SQLite file path, or a postgresql:// URI. Creates the schema or
    // brings an older one up to date. Null with `error` set when it cannot.
    static std::unique_ptr<Store> Open(const std::string& database, std::string& error);

    virtual ~Store() = default;

    // Stores `batch` in one transaction that is durable when Ok is returned (synced to
    // disk, or committed by PostgreSQL). `outcomes` gets one entry per report, in order.
    // Daily figures are updated in the same transaction.
    virtual StoreResult InsertBatch(const std::vector<ValidatedReport>& batch,
                                    std::vector<InsertOutcome>& outcomes) = 0;

    // Ok when the storage answers (readiness).
    virtual StoreResult Ping() = 0;

    // For a program that writes many batches one after the other (import, migrate): the
    // back end may keep more of the database in memory, space its housekeeping out, and
    // let the batches reach the disk together at EndBulkLoad, which returns once all that
    // the load committed is durable. A crash before then can take the load's last batches
    // back whole (never part of one, never another Store's). What other Stores on the
    // database see is unchanged.
    virtual StoreResult PrepareForBulkLoad() = 0;
    virtual StoreResult EndBulkLoad() = 0;
    // A bulk load into a store that holds no reports yet drops the indexes that only
    // reading uses (`deferred` tells) and builds them once at its end with
    // BuildReadIndexes, a sort each instead of an insert per report into each. Until then
    // other Stores read correctly but slowly. BuildReadIndexes builds any that are missing
    // (after a bulk load that was killed, the next one, a purge or `serve`'s daily
    // housekeeping does) and is quick when none is.
    virtual StoreResult DeferReadIndexes(bool& deferred) = 0;
    virtual StoreResult BuildReadIndexes() = 0;
    // True when several Stores write batches to the database at once to good effect
    // (PostgreSQL); false when they would take turns (SQLite writes one at a time).
    virtual bool ConcurrentWriters() const = 0;

    // Stores reports read from another store, with their duplicate arrivals (migrate).
    virtual StoreResult CopyBatch(const std::vector<ValidatedReport>& batch,
                                  const std::vector<std::vector<int64_t>>& duplicateTimes,
                                  std::vector<InsertOutcome>& outcomes) = 0;

    // Newest first, at most `limit` after `after`; `next` is valid when more follow.
    virtual StoreResult ListReports(const ReportFilter& filter, const ReportCursor& after,
                                    int limit, std::vector<ReportSummary>& reports,
                                    ReportCursor& next) = 0;
    // Oldest id first, ids above `afterId`: the order export and migrate walk in.
    virtual StoreResult ScanReports(const ReportFilter& filter, int64_t afterId, int limit,
                                    std::vector<StoredReport>& reports) = 0;
    // The reports with ids in (afterId, lastId] that match, oldest id first: one slice of
    // the walk, so that several readers can share it (export).
    virtual StoreResult ScanReportRange(const ReportFilter& filter, int64_t afterId, int64_t lastId,
                                        std::vector<StoredReport>& reports) = 0;
    // The lowest and highest ids of the reports received within the filter's time bounds
    // (its other fields are not looked at); both 0 when there is none.
    virtual StoreResult ReportIdRange(const ReportFilter& filter, int64_t& first,
                                      int64_t& last) = 0;
    virtual StoreResult GetReport(int64_t id, StoredReport& report) = 0;
    // The decoded dump of `module` in report `id`.
    virtual StoreResult GetDump(int64_t id, const std::string& module, std::string& bytes) = 0;
    // One machine's reports, oldest first: its newest kMachineReports.
    virtual StoreResult MachineReports(const std::string& machineId,
                                       std::vector<ReportSummary>& reports) = 0;

    // Days [firstDay, lastDay], oldest first, every day present (zeros where none).
    virtual StoreResult Daily(int64_t firstDay, int64_t lastDay,
                              std::vector<DailyFigures>& days) = 0;
    // Counts per value over days [firstDay, lastDay], largest first.
    virtual StoreResult Breakdown(BreakdownBy by, int64_t firstDay, int64_t lastDay,
                                  std::vector<BreakdownRow>& rows) = 0;
    // Days oldest first, then module, days without crashes left out; versions in any order.
    virtual StoreResult CrashFigures(int64_t firstDay, int64_t lastDay, std::vector<CrashDay>& days,
                                     std::vector<CrashVersion>& versions) = 0;
    virtual StoreResult Modules(std::vector<ModuleSummary>& modules) = 0;
    virtual StoreResult ModuleFields(const std::string& module, int64_t firstDay, int64_t lastDay,
                                     std::vector<ModuleField>& fields) = 0;
    virtual StoreResult Totals(StoreTotals& totals) = 0;

    // Removes reports received before `before` (UNIX seconds; rounded down to a day) or
    // every report of `machineId`, with their dumps and their share of the daily
    // figures, and gives the space back. `removed` gets the number of reports removed.
    virtual StoreResult PurgeOlderThan(int64_t before, int64_t& removed) = 0;
    virtual StoreResult PurgeMachine(const std::string& machineId, int64_t& removed) = 0;
};

}  // namespace collector
