// migrate --to DATABASE: every report with all it keeps (body, fields, dumps, duplicate
// arrivals) copied into another store, whose rollups are built as the copies arrive.
#include <cstdio>

#include "Commands.h"
#include "commands/CommandSupport.h"

namespace collector {

namespace {

constexpr int kPage = 500;

ValidatedReport ToValidated(const StoredReport& r) {
    ValidatedReport v;
    const ReportSummary& s = r.summary;
    v.body = r.body;
    v.sha256 = s.sha256;
    v.received = s.received;
    v.clientAddress = r.clientAddress;
    v.kind = s.kind;
    v.damagedReason = r.damagedReason;
    v.machineId = s.machineId;
    v.customerId = s.customerId;
    v.version = s.version;
    v.osType = r.osType;
    v.osName = r.osName;
    v.osVersionDetails = r.osVersionDetails;
    v.osLocale = r.osLocale;
    v.osMajor = r.osMajor;
    v.osMinor = r.osMinor;
    v.osBuild = r.osBuild;
    v.hasPeriod = s.hasPeriod;
    v.periodStart = s.periodStart;
    v.periodEnd = s.periodEnd;
    v.modules = s.modules;
    v.moduleDataJson = r.moduleDataJson;
    v.hasThreat = r.hasThreat;
    v.threatIncident = r.threatIncident;
    return v;
}

// Copies every report of `from` into `to`, counting them in `copied`; what stopped it, or
// empty.
std::string CopyReports(Store& from, Store& to, int64_t& copied) {
    int64_t afterId = 0;
    for (;;) {
        std::vector<StoredReport> page;
        if (from.ScanReports(ReportFilter(), afterId, kPage, page) != StoreResult::Ok) {
            return "migrate stopped: the source could not be read";
        }
        if (page.empty()) {
            return std::string();
        }
        std::vector<ValidatedReport> batch;
        std::vector<std::vector<int64_t>> duplicateTimes;
        for (const StoredReport& r : page) {
            batch.push_back(ToValidated(r));
            duplicateTimes.push_back(r.duplicateTimes);
            // A dump's bytes travel in the body; the destination keeps its module, size
            // and SHA-256 (and, by the order of the copies, which dumps are repeats).
            for (const StoredDump& dump : r.dumps) {
                batch.back().crashDumps.push_back(
                    CrashDump{dump.module, dump.sha256, dump.size, std::string()});
            }
        }
        std::vector<InsertOutcome> outcomes;
        if (to.CopyBatch(batch, duplicateTimes, outcomes) != StoreResult::Ok) {
            return "migrate stopped: the destination could not be written";
        }
        copied += static_cast<int64_t>(page.size());
        afterId = page.back().summary.id;
    }
}

}  // namespace

int RunMigrate(const CollectorSettings& settings, const std::vector<std::string>& args) {
    std::map<std::string, std::string> options;
    if (!ReadOptions(args, {"to"}, "migrate --to DATABASE", options) || options.empty()) {
        if (args.empty()) {
            fprintf(stderr, "usage: pathweave-collector migrate --to DATABASE\n");
        }
        return 2;
    }
    std::unique_ptr<Store> from = OpenForCommand(settings.database);
    std::unique_ptr<Store> to = from ? OpenForCommand(options["to"]) : nullptr;
    if (!to) {
        return 1;
    }
    if (to->PrepareForBulkLoad() != StoreResult::Ok) {
        CommandFailed("migrate: " + options["to"] + " cannot be prepared for the copy");
        return 1;
    }
    // Copies into a store that holds reports would count them again as duplicates.
    StoreTotals existing;
    if (to->Totals(existing) != StoreResult::Ok || existing.reports + existing.duplicates != 0) {
        CommandFailed("migrate: " + options["to"] + " is not empty");
        return 1;
    }
    bool deferred = false;
    if (to->DeferReadIndexes(deferred) != StoreResult::Ok) {
        CommandFailed("migrate: " + options["to"] + " cannot be prepared for the copy");
        return 1;
    }
    int64_t copied = 0;
    const std::string failure = CopyReports(*from, *to, copied);
    if (!failure.empty()) {
        CommandFailed(failure);
    }
    // Built after a failure too: what was copied stays listed at full speed.
    if (!FinishBulkLoad(*to, deferred, "migrate") || !failure.empty()) {
        return 1;
    }
    printf("copied %lld reports\n", static_cast<long long>(copied));
    return 0;
}

}  // namespace collector
