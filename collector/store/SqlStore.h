// The store's logic, written once over SqlConnection for both back ends.
//
// A batch is written in one transaction: the reports (a duplicate caught by the unique
// key on machine id, period and SHA-256), their modules and dumps (a dump kept once per
// machine, module and dump SHA-256; a later copy marked as a repeat), and the rollups
// that the daily figures, breakdowns and module fields are read from. The rollups of a
// batch are summed in memory first and written as one row per key.
#pragma once

#include <chrono>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "store/ModuleFields.h"
#include "store/SqlConnection.h"

namespace collector {

// Breakdown dimensions kept in the rollups: BreakdownBy's values, then the report count
// per module that Modules() reads.
constexpr int kModuleDimension = 5;
// Each dimension's figures are also kept per block of kBreakdownBlockDays days (UNIX day /
// kBreakdownBlockDays), under the dimension plus kBlockDimensionOffset, from schema
// version 5 on: a year's breakdown then reads about a dozen block rows per value and the
// days at its two ends, instead of 365 day rows per value.
constexpr int kBlockDimensionOffset = 16;
constexpr int64_t kBreakdownBlockDays = 32;

class SqlStore : public Store {
public:
    SqlStore(std::unique_ptr<SqlConnection> connection, int schemaVersion);

    StoreResult InsertBatch(const std::vector<ValidatedReport>& batch,
                            std::vector<InsertOutcome>& outcomes) override;
    StoreResult Ping() override;
    StoreResult PrepareForBulkLoad() override;
    StoreResult EndBulkLoad() override;
    StoreResult DeferReadIndexes(bool& deferred) override;
    StoreResult BuildReadIndexes() override;
    bool ConcurrentWriters() const override { return !m_sqlite; }
    StoreResult CopyBatch(const std::vector<ValidatedReport>& batch,
                          const std::vector<std::vector<int64_t>>& duplicateTimes,
                          std::vector<InsertOutcome>& outcomes) override;

    StoreResult ListReports(const ReportFilter& filter, const ReportCursor& after, int limit,
                            std::vector<ReportSummary>& reports, ReportCursor& next) override;
    StoreResult ScanReports(const ReportFilter& filter, int64_t afterId, int limit,
                            std::vector<StoredReport>& reports) override;
    StoreResult ScanReportRange(const ReportFilter& filter, int64_t afterId, int64_t lastId,
                                std::vector<StoredReport>& reports) override;
    StoreResult ReportIdRange(const ReportFilter& filter, int64_t& first, int64_t& last) override;
    StoreResult GetReport(int64_t id, StoredReport& report) override;
    StoreResult GetDump(int64_t id, const std::string& module, std::string& bytes) override;
    StoreResult MachineReports(const std::string& machineId,
                               std::vector<ReportSummary>& reports) override;
    StoreResult Daily(int64_t firstDay, int64_t lastDay, std::vector<DailyFigures>& days) override;
    StoreResult Breakdown(BreakdownBy by, int64_t firstDay, int64_t lastDay,
                          std::vector<BreakdownRow>& rows) override;
    StoreResult CrashFigures(int64_t firstDay, int64_t lastDay, std::vector<CrashDay>& days,
                             std::vector<CrashVersion>& versions) override;
    StoreResult Modules(std::vector<ModuleSummary>& modules) override;
    StoreResult ModuleFields(const std::string& module, int64_t firstDay, int64_t lastDay,
                             std::vector<ModuleField>& fields) override;
    StoreResult Totals(StoreTotals& totals) override;
    StoreResult PurgeOlderThan(int64_t before, int64_t& removed) override;
    StoreResult PurgeMachine(const std::string& machineId, int64_t& removed) override;

private:
    // One report to write: what was validated, and (when copied from another store) the
    // dumps' bytes and the arrivals of its duplicates.
    struct Pending {
        const ValidatedReport* report;
        const std::vector<int64_t>* duplicateTimes;
    };

    StoreResult Insert(const std::vector<Pending>& batch, std::vector<InsertOutcome>& outcomes);
    // The reports' rows, in `order`; a duplicate is counted and gets the earlier row's id.
    StoreResult InsertRows(const std::vector<Pending>& batch, const std::vector<size_t>& order,
                           std::vector<InsertOutcome>& outcomes, Rollup& rollup);
    // What a new report adds besides its row: modules, figures, module fields (its
    // statements deferred to the batch's last exchange).
    StoreResult InsertDetails(const Pending& pending, int64_t id, Rollup& rollup);
    // The dumps of the batch's new reports, in the order of their keys.
    StoreResult InsertDumps(const std::vector<Pending>& batch,
                            const std::vector<InsertOutcome>& outcomes, Rollup& rollup);
    StoreResult InsertMachineDays(const std::vector<Pending>& batch,
                                  const std::vector<InsertOutcome>& outcomes, Rollup& rollup);
    // Runs the deferred statements and the rollup's in one batch.
    StoreResult WriteRollup(const Rollup& rollup);
    int AllTimeDimension(int dimension) const;
    // Adds the fields of `moduleDataJson` on `day` to `rollup` (sign -1 takes them away),
    // within the caps on distinct fields and values.
    StoreResult AddModuleFields(const std::string& moduleDataJson, int64_t day, int sign,
                                Rollup& rollup);
    // One field of them; a failure is left in `result` (and stops what follows).
    void AddModuleField(const FieldValue& field, int64_t day, int sign, Rollup& rollup,
                        StoreResult& result);
    StoreResult FieldKindOf(const std::string& module, const std::string& path, FieldKind kind,
                            bool& accepted);
    StoreResult ValueKept(const std::string& module, const std::string& path,
                          const std::string& value, bool& kept);
    // Runs `work` in a transaction, again when the back end asks for a retry.
    template <typename Work>
    StoreResult InTransaction(Work work);
    StoreResult Purge(const std::string& where, const std::vector<SqlValue>& params,
                      int64_t& removed);
    // A purge takes counts and sums away exactly, but not a minimum or maximum: those of
    // the (module, day, field) rows in `purged` are found again from the reports that
    // remain on their days.
    StoreResult RecomputeFieldRanges(const Rollup& purged);
    StoreResult Compact();
    // At most how many reports the filter's kind, machine, customer and version match (the
    // fewest of them, from the rollups); INT64_MAX when it names none of them.
    StoreResult ReportsMatching(const ReportFilter& filter, int64_t& count);
    // ScanReports and ScanReportRange: ids above `afterId`, up to `lastId` when it is not 0,
    // at most `limit` reports when it is not 0.
    StoreResult Scan(const ReportFilter& filter, int64_t afterId, int64_t lastId, int limit,
                     std::vector<StoredReport>& reports);
    StoreResult Summaries(const std::string& sql, const std::vector<SqlValue>& params,
                          std::vector<ReportSummary>& reports);

    std::unique_ptr<SqlConnection> m_db;
    // Statements of the transaction whose results nobody waits for, sent together with
    // the rollups (one round trip to PostgreSQL for all of them).
    std::vector<SqlStatement> m_deferred;
    bool m_sqlite;
    int m_schemaVersion;
    // Known fields per module and values per field, so that a batch asks the database
    // only about new ones. Cleared when a transaction fails.
    std::map<std::string, std::map<std::string, FieldKind>> m_fields;
    std::map<std::pair<std::string, std::string>, std::set<std::string>> m_values;
};

template <typename Work>
StoreResult SqlStore::InTransaction(Work work) {
    constexpr int kTransactionAttempts = 8;
    StoreResult result = StoreResult::Error;
    for (int attempt = 0; attempt < kTransactionAttempts; ++attempt) {
        m_deferred.clear();
        result = m_db->Begin();
        if (result == StoreResult::Ok) {
            result = work();
        }
        if (result == StoreResult::Ok) {
            result = m_db->Commit();
        }
        if (result == StoreResult::Ok) {
            return result;
        }
        m_db->Rollback();
        m_deferred.clear();
        m_fields.clear();
        m_values.clear();
        if (!m_db->LastFailureRetryable()) {
            break;
        }
        // Another node's transaction won a conflict; start again a little later, at a
        // time of our own, so that the two do not meet again at once.
        std::this_thread::sleep_for(
            std::chrono::milliseconds(5 + std::rand() % 20 * (attempt + 1)));
    }
    return result;
}

// Opens `database` and brings its schema to `schemaVersion` (tests open older ones).
std::unique_ptr<Store> OpenStoreAtVersion(const std::string& database, int schemaVersion,
                                          std::string& error);

}  // namespace collector
