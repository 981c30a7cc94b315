// The store's contract, run against both back ends. Where a figure can be computed two
// ways, the oracle is a second store that only ever received the reports that should
// remain: rollups after a purge or a migration must equal the fresh store's.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <random>
#include <thread>

#include "StoreFixture.h"
#include "report/ModuleDataFields.h"
#include "store/Schema.h"
#include "store/SqlStore.h"

using namespace collector;
using pwsupport::AddDump;
using pwsupport::Figures;
using pwsupport::MakeReport;
using pwsupport::TestDatabase;

namespace {

const std::string kA(40, 'a'), kB(40, 'b');
constexpr int64_t kDay = 86400;
constexpr int64_t kT0 = 20000 * kDay;

class StoreContract : public ::testing::TestWithParam<std::string> {
protected:
    // A connection of the test's own to the store's database, for what the Store hides.
    std::unique_ptr<SqlConnection> Connect(const TestDatabase& db, std::string& error) {
        return GetParam() == "sqlite" ? OpenSqlite(db.location(), error)
                                      : OpenPostgres(db.location(), error);
    }
    // Gives the (empty) store the unique key that stores made by earlier versions have:
    // the machine, the period and the body's SHA-256 rather than the SHA-256 alone.
    void UseTheFourColumnKey(const TestDatabase& db) {
        std::string error;
        auto sql = Connect(db, error);
        ASSERT_TRUE(sql) << error;
        const std::string key = "UNIQUE (machine_id, period_start, period_end, sha256)";
        if (sql->Dialect() == SqlDialect::Postgres) {
            ASSERT_EQ(StoreResult::Ok,
                      sql->ExecScript("ALTER TABLE reports DROP CONSTRAINT reports_sha256_key; "
                                      "ALTER TABLE reports ADD " +
                                      key));
            return;
        }
        // SQLite cannot drop a table's constraint: the table is made again with the other
        // one, and its indexes after it.
        std::vector<SqlRow> rows;
        ASSERT_EQ(StoreResult::Ok,
                  sql->Exec("SELECT sql FROM sqlite_master WHERE tbl_name = 'reports' AND sql "
                            "IS NOT NULL ORDER BY type = 'table' DESC",
                            {}, &rows));
        std::string script = "PRAGMA foreign_keys=OFF; DROP TABLE reports; ";
        for (const SqlRow& row : rows) {
            std::string text = row[0].bytes;
            const size_t at = text.find("UNIQUE (sha256)");
            if (at != std::string::npos) {
                text.replace(at, std::string("UNIQUE (sha256)").size(), key);
            }
            script += text + "; ";
        }
        ASSERT_NE(std::string::npos, script.find(key));
        ASSERT_EQ(StoreResult::Ok, sql->ExecScript(script));
    }
    void CheckDuplicatesRepeatsAndTheUnknownMachine(Store& store);
    // The SHA-256 of each report that a module filter lists (alone, and with a machine's
    // filter, which may walk the machine's index and look each report's module up).
    std::vector<std::string> ListedByModule(Store& store, const std::string& module,
                                            const std::string& machine) {
        ReportFilter filter;
        filter.module = module;
        filter.machineId = machine;
        std::vector<ReportSummary> page;
        ReportCursor next;
        EXPECT_EQ(StoreResult::Ok, store.ListReports(filter, ReportCursor(), 1000, page, next));
        std::vector<std::string> listed;
        for (const ReportSummary& s : page) {
            listed.push_back(s.sha256);
        }
        std::sort(listed.begin(), listed.end());
        return listed;
    }
    std::vector<InsertOutcome> Insert(Store& store, const std::vector<ValidatedReport>& batch) {
        std::vector<InsertOutcome> outcomes;
        EXPECT_EQ(StoreResult::Ok, store.InsertBatch(batch, outcomes));
        return outcomes;
    }
};

TEST_P(StoreContract, DuplicatesRepeatsAndTheUnknownMachine) {
    // Stores made now and stores made with the earlier unique key alike.
    for (bool fourColumnKey : {false, true}) {
        SCOPED_TRACE(fourColumnKey ? "four-column key" : "SHA-256 key");
        TestDatabase db(GetParam());
        if (fourColumnKey) {
            ASSERT_TRUE(db.Open());
            UseTheFourColumnKey(db);
        }
        auto store = db.Open();
        ASSERT_TRUE(store);
        CheckDuplicatesRepeatsAndTheUnknownMachine(*store);
        // One body kept under another machine and period than those read from it (a copy
        // of a store that holds such rows), in one batch: one report on the SHA-256 key,
        // whose arrival is recorded against the kept row; two on the four columns.
        ValidatedReport kept = MakeReport(kA, 900, kT0, "one body");
        ValidatedReport again = kept;
        again.machineId = kB;
        again.periodStart = again.periodEnd = 0;
        const auto both = Insert(*store, {kept, again});
        ASSERT_EQ(2u, both.size());
        EXPECT_FALSE(both[0].duplicate);
        EXPECT_EQ(!fourColumnKey, both[1].duplicate);
        EXPECT_EQ(!fourColumnKey, both[1].id == both[0].id);
    }
}

void StoreContract::CheckDuplicatesRepeatsAndTheUnknownMachine(Store& store) {
    const std::string unknown = kUnknownMachineId;
    struct Row {
        std::string machine;
        int64_t period;
        std::string content;
        std::string dump;  // a crash dump of module "Core" when not empty
        int sameAs;        // index of the earlier row it duplicates, -1 when new
        bool repeat;       // its dump was seen before from that machine
    };
    const std::vector<Row> rows = {
        {kA, 100, "x", "", -1, false},
        {kA, 100, "x", "", 0, false},   // same machine, period and content
        {kA, 200, "x", "", -1, false},  // another period
        {kB, 100, "x", "", -1, false},  // another machine
        {kA, 100, "y", "", -1, false},  // other content
        {kA, 300, "c", "DUMP1", -1, false},
        {kA, 400, "d", "DUMP1", -1, true},   // the same dump in a new report
        {kB, 400, "d", "DUMP1", -1, false},  // ... from another machine is new
        {unknown, 100, "u", "", -1, false},
        {unknown, 100, "v", "", -1, false},
    };
    std::vector<ValidatedReport> batch;
    for (const Row& row : rows) {
        batch.push_back(MakeReport(row.machine, row.period, kT0, row.content));
        if (!row.dump.empty()) {
            AddDump(batch.back(), "Core", row.dump);
        }
    }
    // The first half in one batch and the rest in another: duplicates are caught within
    // a batch and across batches alike.
    auto first = Insert(store, {batch.begin(), batch.begin() + 5});
    auto second = Insert(store, {batch.begin() + 5, batch.end()});
    first.insert(first.end(), second.begin(), second.end());
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(rows[i].sameAs >= 0, first[i].duplicate);
        if (rows[i].sameAs >= 0) {
            EXPECT_EQ(first[rows[i].sameAs].id, first[i].id);
        }
        StoredReport stored;
        ASSERT_EQ(StoreResult::Ok, store.GetReport(first[i].id, stored));
        EXPECT_EQ(batch[i].body, stored.body);
        if (!rows[i].dump.empty()) {
            ASSERT_EQ(1u, stored.dumps.size());
            EXPECT_EQ(rows[i].repeat, stored.dumps[0].repeat);
            std::string bytes;
            ASSERT_EQ(StoreResult::Ok, store.GetDump(first[i].id, "Core", bytes));
            EXPECT_EQ(rows[i].dump, bytes);
        }
    }
    std::vector<DailyFigures> days;
    ASSERT_EQ(StoreResult::Ok, store.Daily(kT0 / kDay, kT0 / kDay, days));
    EXPECT_EQ(6, days[0].perKind[0]);
    EXPECT_EQ(3, days[0].perKind[1]);
    EXPECT_EQ(1, days[0].duplicates);
    EXPECT_EQ(2, days[0].machines);  // kA and kB; the unknown machine is none
    std::vector<BreakdownRow> crashes;
    ASSERT_EQ(StoreResult::Ok,
              store.Breakdown(BreakdownBy::CrashModule, kT0 / kDay, kT0 / kDay, crashes));
    ASSERT_EQ(1u, crashes.size());
    EXPECT_EQ(2, crashes[0].count);
    EXPECT_EQ(1, crashes[0].repeats);
}

// A dump is read from the report's body unless its row holds bytes (as rows stored by
// earlier versions do); a body that no longer holds it is an error, never wrong bytes.
TEST_P(StoreContract, DumpsAreReadFromTheirRowOrTheBody) {
    TestDatabase db(GetParam());
    auto store = db.Open();
    std::string error;
    auto sql = Connect(db, error);
    ASSERT_TRUE(store && sql) << error;
    const std::string dump("MDMP\0\x01\xff tail", 12);
    struct Case {
        const char* name;
        bool oldRow;        // the row holds the dump's bytes
        bool bodyReplaced;  // the body no longer holds the dump
        StoreResult result;
    };
    const Case cases[] = {
        {"new row", false, false, StoreResult::Ok},
        {"old row", true, true, StoreResult::Ok},
        {"new row, body without it", false, true, StoreResult::Error},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.name);
        ValidatedReport r = MakeReport(i % 2 ? kA : kB, static_cast<int64_t>(i), kT0, c.name);
        AddDump(r, "Core", dump + c.name);
        const int64_t id = Insert(*store, {r})[0].id;
        if (c.oldRow) {
            ASSERT_EQ(StoreResult::Ok,
                      sql->Exec("UPDATE dumps SET bytes = $2 WHERE sha256 = $1",
                                {r.crashDumps[0].sha256, SqlValue::Blob(r.crashDumps[0].bytes)},
                                nullptr));
        }
        if (c.bodyReplaced) {
            ASSERT_EQ(StoreResult::Ok,
                      sql->Exec("UPDATE reports SET body = $2 WHERE id = $1",
                                {id, SqlValue::Blob(MakeReport(kA, 0, 0, "").body)}, nullptr));
        }
        std::string bytes;
        EXPECT_EQ(c.result, store->GetDump(id, "Core", bytes));
        EXPECT_EQ(c.result == StoreResult::Ok ? dump + c.name : "", bytes);
    }
}

TEST_P(StoreContract, HostileTextAndIntegersRoundTrip) {
    TestDatabase db(GetParam());
    auto store = db.Open();
    ASSERT_TRUE(store);
    ValidatedReport r = MakeReport(kA, 1, kT0, "h");
    r.customerId = std::string("bad\xff\xfe utf-8", 12);
    r.version = std::string("nul\0inside", 10);
    r.threatIncident = "\xed\xa0\x80 a lone surrogate, encoded";
    r.hasThreat = true;
    // jsonb holds neither \u0000 nor a lone surrogate; the store keeps them anyway.
    r.moduleDataJson = "{\"Tunnel\":{\"k\\u0000\":\"\\ud800\",\"n\":1}}";
    r.damagedReason = "\x01\x02";
    // Integers at the ends of their range, read back from binary results on PostgreSQL.
    r.osMajor = INT64_MIN;
    r.osMinor = INT64_MAX;
    r.osBuild = -2;
    r.periodStart = -86400;
    auto outcomes = Insert(*store, {r});
    StoredReport stored;
    ASSERT_EQ(StoreResult::Ok, store->GetReport(outcomes[0].id, stored));
    EXPECT_EQ(r.customerId, stored.summary.customerId);
    EXPECT_EQ(r.version, stored.summary.version);
    EXPECT_EQ(r.threatIncident, stored.threatIncident);
    EXPECT_EQ(r.moduleDataJson, stored.moduleDataJson);
    EXPECT_EQ(r.damagedReason, stored.damagedReason);
    EXPECT_EQ(r.osMajor, stored.osMajor);
    EXPECT_EQ(r.osMinor, stored.osMinor);
    EXPECT_EQ(r.osBuild, stored.osBuild);
    EXPECT_EQ(r.periodStart, stored.summary.periodStart);
    EXPECT_EQ(r.body, stored.body);
    ReportFilter filter;
    filter.version = r.version;
    std::vector<ReportSummary> listed;
    ReportCursor next;
    ASSERT_EQ(StoreResult::Ok, store->ListReports(filter, ReportCursor(), 10, listed, next));
    EXPECT_EQ(1u, listed.size());
}

TEST_P(StoreContract, KeysetPagesMatchTheSortedOrder) {
    TestDatabase db(GetParam());
    auto store = db.Open();
    ASSERT_TRUE(store);
    std::mt19937 random(7);
    std::vector<ValidatedReport> batch;
    for (int i = 0; i < 120; ++i) {
        // Few distinct times, so that pages end in the middle of equal times.
        ValidatedReport r = MakeReport(i % 3 ? kA : kB, i, kT0 + random() % 7 * 1000,
                                       std::string(1 + i % 4, 'a' + i % 5));
        if (i % 4 == 0) {
            AddDump(r, "Core", "dump" + std::to_string(i));
        }
        batch.push_back(r);
    }
    auto outcomes = Insert(*store, batch);
    struct Case {
        const char* name;
        ReportFilter filter;
        std::function<bool(const ValidatedReport&)> keep;
        int limit;
    };
    ReportFilter byMachine, byModule, byKindAndTime, all;
    byMachine.machineId = kB;
    byModule.module = "Core";
    byKindAndTime.hasKind = true;
    byKindAndTime.kind = ReportKind::Feedback;
    byKindAndTime.since = kT0 + 2000;
    byKindAndTime.until = kT0 + 5000;
    const std::vector<Case> cases = {
        {"all", all, [](const ValidatedReport&) { return true; }, 7},
        {"machine", byMachine, [](const ValidatedReport& r) { return r.machineId == kB; }, 5},
        {"module", byModule, [](const ValidatedReport& r) { return !r.crashDumps.empty(); }, 4},
        {"kind+time", byKindAndTime,
         [](const ValidatedReport& r) {
             return r.kind == ReportKind::Feedback && r.received >= kT0 + 2000 &&
                    r.received < kT0 + 5000;
         },
         6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::pair<int64_t, int64_t>> expected, got;
        for (size_t i = 0; i < batch.size(); ++i) {
            if (c.keep(batch[i])) {
                expected.emplace_back(batch[i].received, outcomes[i].id);
            }
        }
        std::sort(expected.rbegin(), expected.rend());
        ReportCursor cursor;
        do {
            std::vector<ReportSummary> page;
            ReportCursor next;
            ASSERT_EQ(StoreResult::Ok, store->ListReports(c.filter, cursor, c.limit, page, next));
            ASSERT_LE(page.size(), static_cast<size_t>(c.limit));
            for (const ReportSummary& s : page) {
                got.emplace_back(s.received, s.id);
            }
            cursor = next;
        } while (cursor.valid && got.size() <= batch.size());
        EXPECT_EQ(expected, got);
    }
}

TEST_P(StoreContract, RollupsAfterPurgeEqualAStoreThatNeverHadThePurged) {
    struct Case {
        const char* name;
        bool byMachine;
        std::function<bool(const ValidatedReport&)> remains;
    };
    const std::vector<Case> cases = {
        {"machine", true, [](const ValidatedReport& r) { return r.machineId != kB; }},
        {"age", false, [](const ValidatedReport& r) { return r.received >= kT0 + 2 * kDay; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestDatabase purged(GetParam()), fresh(GetParam());
        auto store = purged.Open();
        auto oracle = fresh.Open();
        ASSERT_TRUE(store && oracle);
        std::vector<ValidatedReport> all, kept;
        for (int i = 0; i < 40; ++i) {
            ValidatedReport r = MakeReport(i % 3 ? kA : kB, i % 17, kT0 + (i % 5) * kDay,
                                           std::string(1 + i % 3, 'a' + i % 4));
            // A dump repeats only within its day, so that purging whole days leaves no
            // report whose dump was first seen in a purged one.
            if (i % 4 == 0) {
                AddDump(r, i % 8 ? "Core" : "Ui", "dump" + std::to_string(i % 5));
            }
            all.push_back(r);
            if (c.remains(r)) {
                kept.push_back(r);
            }
        }
        Insert(*store, all);
        Insert(*oracle, kept);
        int64_t removed = 0;
        ASSERT_EQ(StoreResult::Ok, c.byMachine
                                       ? store->PurgeMachine(kB, removed)
                                       : store->PurgeOlderThan(kT0 + 2 * kDay + 5, removed));
        EXPECT_EQ(Figures(*oracle, kT0 / kDay, kT0 / kDay + 5),
                  Figures(*store, kT0 / kDay, kT0 / kDay + 5));
        // A report stored after the purge may take a purged report's id (SQLite gives the
        // highest id again): it must not inherit that report's modules.
        ValidatedReport late = MakeReport(kA, 99, kT0 + 4 * kDay, "late");
        late.modules = {"Other"};
        Insert(*store, {late});
        Insert(*oracle, {late});
        for (const std::string& machine : {std::string(), kA}) {
            EXPECT_EQ(ListedByModule(*oracle, "Tunnel", machine),
                      ListedByModule(*store, "Tunnel", machine));
        }
        // Dumps the remaining reports share with purged ones are still there.
        for (const ValidatedReport& r : kept) {
            for (const CrashDump& dump : r.crashDumps) {
                ReportFilter filter;
                filter.machineId = r.machineId;
                std::vector<StoredReport> left;
                ASSERT_EQ(StoreResult::Ok, store->ScanReports(filter, 0, 1000, left));
                for (const StoredReport& s : left) {
                    std::string bytes;
                    if (s.summary.sha256 == r.sha256 && s.summary.periodStart == r.periodStart) {
                        EXPECT_EQ(StoreResult::Ok,
                                  store->GetDump(s.summary.id, dump.module, bytes));
                        EXPECT_EQ(dump.bytes, bytes);
                    }
                }
            }
        }
    }
}

TEST_P(StoreContract, BreakdownsOverLongRangesEqualTheirDaysSummed) {
    // Reports over 100 days (a few blocks of days); then a purge by age that cuts a block,
    // and a purge of one machine. A range's breakdown must equal its days' summed.
    TestDatabase database(GetParam());
    auto store = database.Open();
    ASSERT_TRUE(store);
    const int64_t day0 = kT0 / kDay;
    std::vector<ValidatedReport> batch;
    for (int i = 0; i < 90; ++i) {
        batch.push_back(MakeReport(i % 4 ? kA : kB, i, kT0 + ((i * 37) % 100 - 40) * kDay,
                                   std::string(1 + i % 3, 'a' + i % 5)));
        if (i % 6 == 0)
            AddDump(batch.back(), i % 12 ? "Core" : "Ui", "dump" + std::to_string(i % 4));
    }
    Insert(*store, batch);
    auto summed = [&](BreakdownBy by, int64_t first, int64_t last) {
        std::map<std::string, std::pair<int64_t, int64_t>> sums;
        for (int64_t day = first; day <= last; ++day) {
            std::vector<BreakdownRow> rows;
            EXPECT_EQ(StoreResult::Ok, store->Breakdown(by, day, day, rows));
            for (const BreakdownRow& row : rows) {
                sums[row.value].first += row.count;
                sums[row.value].second += row.repeats;
            }
        }
        return sums;
    };
    auto check = [&](const char* when) {
        const std::pair<int64_t, int64_t> ranges[] = {{day0 - 40, day0 + 60},
                                                      {day0 - 31, day0 + 33},
                                                      {day0 - 33, day0 - 2},
                                                      {day0, day0 + 63}};
        for (const auto& [first, last] : ranges) {
            for (int by = 0; by < 5; ++by) {
                std::vector<BreakdownRow> rows;
                ASSERT_EQ(StoreResult::Ok,
                          store->Breakdown(static_cast<BreakdownBy>(by), first, last, rows));
                std::map<std::string, std::pair<int64_t, int64_t>> read;
                for (const BreakdownRow& row : rows)
                    read[row.value] = {row.count, row.repeats};
                EXPECT_EQ(summed(static_cast<BreakdownBy>(by), first, last), read)
                    << when << ": by " << by << " over " << first << ".." << last;
            }
        }
    };
    check("as inserted");
    int64_t removed = 0;
    ASSERT_EQ(StoreResult::Ok, store->PurgeOlderThan(kT0 - 29 * kDay + 5, removed));
    EXPECT_GT(removed, 0);
    check("after a purge by age");
    ASSERT_EQ(StoreResult::Ok, store->PurgeMachine(kB, removed));
    EXPECT_GT(removed, 0);
    check("after a purge of a machine");
}

TEST_P(StoreContract, AnOlderSchemaIsBroughtUpToDate) {
    TestDatabase older(GetParam()), fresh(GetParam());
    std::vector<ValidatedReport> batch;
    for (int i = 0; i < 12; ++i) {
        batch.push_back(
            MakeReport(i % 2 ? kA : kB, i, kT0 + (i % 3) * kDay, std::string(i % 4 + 1, 'q')));
        if (i % 5 == 0) {
            AddDump(batch.back(), "Core", "d" + std::to_string(i % 2));
        }
    }
    {
        std::string error;
        auto version1 = OpenStoreAtVersion(older.location(), 1, error);
        ASSERT_TRUE(version1) << error;
        Insert(*version1, batch);
    }
    auto upgraded = older.Open();
    auto oracle = fresh.Open();
    ASSERT_TRUE(upgraded && oracle);
    Insert(*oracle, batch);
    EXPECT_EQ(Figures(*oracle, kT0 / kDay, kT0 / kDay + 3),
              Figures(*upgraded, kT0 / kDay, kT0 / kDay + 3));
    for (const char* module : {"Tunnel", "Core"}) {
        EXPECT_EQ(ListedByModule(*oracle, module, ""), ListedByModule(*upgraded, module, ""));
        EXPECT_EQ(ListedByModule(*oracle, module, kA), ListedByModule(*upgraded, module, kA));
    }
}

TEST_P(StoreContract, ConcurrentStoresKeepEveryReportOnce) {
    TestDatabase db(GetParam());
    auto one = db.Open();
    auto two = db.Open();
    ASSERT_TRUE(one && two);
    // Both writers send the same 200 reports in batches of 10, in opposite orders.
    std::vector<ValidatedReport> reports;
    for (int i = 0; i < 200; ++i) {
        reports.push_back(MakeReport(i % 7 ? kA : kB, i, kT0 + i, std::to_string(i)));
        if (i % 9 == 0) {
            AddDump(reports.back(), "Core", "same dump");
        }
    }
    auto write = [&reports](Store* store, bool reversed, int* failures) {
        std::vector<ValidatedReport> order(reports);
        if (reversed) {
            std::reverse(order.begin(), order.end());
        }
        for (size_t at = 0; at < order.size(); at += 10) {
            std::vector<InsertOutcome> outcomes;
            if (store->InsertBatch({order.begin() + at, order.begin() + at + 10}, outcomes) !=
                StoreResult::Ok) {
                ++*failures;
            }
        }
    };
    int failuresOne = 0, failuresTwo = 0;
    std::thread first(write, one.get(), false, &failuresOne);
    std::thread second(write, two.get(), true, &failuresTwo);
    first.join();
    second.join();
    EXPECT_EQ(0, failuresOne + failuresTwo);
    std::vector<StoredReport> stored;
    ASSERT_EQ(StoreResult::Ok, one->ScanReports(ReportFilter(), 0, 1000, stored));
    EXPECT_EQ(reports.size(), stored.size());
    std::vector<DailyFigures> days;
    ASSERT_EQ(StoreResult::Ok, one->Daily(kT0 / kDay, kT0 / kDay, days));
    EXPECT_EQ(200, days[0].perKind[0] + days[0].perKind[1]);
    EXPECT_EQ(200, days[0].duplicates);
    EXPECT_EQ(2, days[0].machines);
}

// A batch of statements answers each statement's rows in its own place; one that fails
// part-way fails as a whole with its transaction, and the connection works on after it.
TEST_P(StoreContract, StatementBatchesKeepTheirRowsApartAndFailWhole) {
    TestDatabase db(GetParam());
    std::string error;
    auto sql = Connect(db, error);
    ASSERT_TRUE(sql) << error;
    ASSERT_EQ(StoreResult::Ok, sql->ExecScript("CREATE TABLE t (k BIGINT PRIMARY KEY)"));
    const std::string insert = "INSERT INTO t (k) VALUES ($1) ON CONFLICT DO NOTHING RETURNING k";
    struct Case {
        std::vector<SqlStatement> batch;
        StoreResult result;
        std::string rows;  // each statement's rows, "|" after each
        int64_t stored;    // rows in t afterwards
    };
    const std::vector<Case> cases = {
        {{{insert, {1}}, {insert, {1}}, {insert, {2}}}, StoreResult::Ok, "1||2|", 2},
        {{{insert, {3}}, {"INSERT INTO t (k) VALUES ($1)", {2}}, {insert, {4}}},
         StoreResult::Error,
         "",
         2},
        {{{"SELECT k FROM t ORDER BY k", {}}, {insert, {5}}}, StoreResult::Ok, "12|5|", 3},
        {{}, StoreResult::Ok, "", 3},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        std::vector<std::vector<SqlRow>> rows = {{SqlRow{SqlCell{false, "9"}}}};  // left over
        ASSERT_EQ(StoreResult::Ok, sql->Begin());
        EXPECT_EQ(cases[i].result, sql->ExecBatch(cases[i].batch, &rows));
        if (cases[i].result == StoreResult::Ok) {
            EXPECT_EQ(StoreResult::Ok, sql->Commit());
            ASSERT_EQ(cases[i].batch.size(), rows.size());
            std::string text;
            for (const auto& statement : rows) {
                for (const SqlRow& row : statement) {
                    text += row[0].bytes;
                }
                text += "|";
            }
            EXPECT_EQ(cases[i].rows, text);
        } else {
            sql->Rollback();
        }
        std::vector<SqlRow> count;
        ASSERT_EQ(StoreResult::Ok, sql->Exec("SELECT count(*) FROM t", {}, &count));
        EXPECT_EQ(cases[i].stored, count[0][0].Int());
    }

    // An insert asked for its new row's id gives it, and nothing when it inserted nothing,
    // even right after an insert that did.
    ASSERT_EQ(StoreResult::Ok,
              sql->ExecScript(sql->Dialect() == SqlDialect::Sqlite
                                  ? "CREATE TABLE u (id INTEGER PRIMARY KEY, k BIGINT UNIQUE)"
                                  : "CREATE TABLE u (id BIGSERIAL PRIMARY KEY, k BIGINT UNIQUE)"));
    const std::string insertU = "INSERT INTO u (k) VALUES ($1) ON CONFLICT DO NOTHING";
    const std::vector<SqlStatement> batch = {
        {insertU, {10}, true}, {insertU, {10}, true}, {insertU, {20}, true}};
    std::vector<std::vector<SqlRow>> rows;
    ASSERT_EQ(StoreResult::Ok, sql->ExecBatch(batch, &rows));
    std::vector<SqlRow> ids;
    ASSERT_EQ(StoreResult::Ok, sql->Exec("SELECT id FROM u ORDER BY k", {}, &ids));
    ASSERT_EQ(3u, rows.size());
    ASSERT_EQ(2u, ids.size());
    ASSERT_EQ(1u, rows[0].size());
    EXPECT_EQ(ids[0][0].bytes, rows[0][0][0].bytes);
    EXPECT_TRUE(rows[1].empty());
    ASSERT_EQ(1u, rows[2].size());
    EXPECT_EQ(ids[1][0].bytes, rows[2][0][0].bytes);
}

// A bulk load into an empty store drops the read indexes and builds them at its end; one
// that was killed leaves them to the next purge. The store reads correctly meanwhile, and
// the indexes built are those the schema made, on either back end.
TEST_P(StoreContract, ReadIndexesDeferredByABulkLoadComeBackAsTheSchemaMadeThem) {
    TestDatabase db(GetParam());
    auto store = db.Open();
    std::string error;
    auto sql = Connect(db, error);
    ASSERT_TRUE(store && sql) << error;
    const std::string listIndexes =
        GetParam() == "sqlite"
            ? "SELECT name, sql FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL "
              "ORDER BY name"
            : "SELECT indexname, indexdef FROM pg_indexes WHERE schemaname = current_schema() "
              "ORDER BY indexname";
    auto indexes = [&]() {
        std::vector<SqlRow> rows;
        EXPECT_EQ(StoreResult::Ok, sql->Exec(listIndexes, {}, &rows));
        std::string text;
        for (const SqlRow& row : rows) {
            text += row[0].bytes + ": " + row[1].bytes + "\n";
        }
        return text;
    };
    auto listed = [&store](const std::string& machine) {
        ReportFilter filter;
        filter.machineId = machine;
        std::vector<ReportSummary> reports;
        ReportCursor next;
        EXPECT_EQ(StoreResult::Ok, store->ListReports(filter, ReportCursor(), 100, reports, next));
        return reports.size();
    };
    const std::string schema = indexes();
    bool deferred = false;
    ASSERT_EQ(StoreResult::Ok, store->DeferReadIndexes(deferred));
    EXPECT_TRUE(deferred);
    EXPECT_NE(schema, indexes());
    std::vector<ValidatedReport> batch;
    for (int i = 0; i < 30; ++i) {
        batch.push_back(MakeReport(i % 3 ? kA : kB, i, kT0 + i, std::to_string(i)));
    }
    Insert(*store, batch);
    EXPECT_EQ(20u, listed(kA));
    ASSERT_EQ(StoreResult::Ok, store->BuildReadIndexes());
    EXPECT_EQ(schema, indexes());
    EXPECT_EQ(10u, listed(kB));

    ASSERT_EQ(StoreResult::Ok, store->DeferReadIndexes(deferred));
    EXPECT_FALSE(deferred) << "a store that holds reports keeps its indexes";
    EXPECT_EQ(schema, indexes());

    ASSERT_EQ(StoreResult::Ok, DropReadIndexes(*sql));  // a load killed before its end
    int64_t removed = 0;
    ASSERT_EQ(StoreResult::Ok, store->PurgeMachine(kB, removed));
    EXPECT_EQ(10, removed);
    EXPECT_EQ(schema, indexes());
    EXPECT_EQ(20u, listed(kA));
}

TEST_P(StoreContract, LargeColumnsAskPostgresForLz4UnlessChosenAlready) {
    if (GetParam() != "postgres") {
        GTEST_SKIP() << "only PostgreSQL compresses columns";
    }
    TestDatabase db(GetParam());
    ASSERT_TRUE(db.Open());
    std::string error;
    auto sql = Connect(db, error);
    ASSERT_TRUE(sql) << error;
    auto compression = [&sql](const std::string& column) {
        std::vector<SqlRow> rows;
        EXPECT_EQ(StoreResult::Ok,
                  sql->Exec("SELECT attcompression::text FROM pg_attribute WHERE attrelid = "
                            "'reports'::regclass AND attname = '" +
                                column + "'",
                            {}, &rows));
        return rows.empty() ? std::string("missing") : rows[0][0].bytes;
    };
    EXPECT_EQ("l", compression("body"));
    EXPECT_EQ("l", compression("module_json"));
    EXPECT_EQ("", compression("machine_id")) << "short columns are left alone";
    // A column set back to the server's default is asked again; one an operator chose
    // keeps the choice.
    ASSERT_EQ(StoreResult::Ok,
              sql->ExecScript("ALTER TABLE reports ALTER COLUMN body SET COMPRESSION default, "
                              "ALTER COLUMN module_data SET COMPRESSION pglz"));
    ASSERT_TRUE(db.Open());
    EXPECT_EQ("l", compression("body"));
    EXPECT_EQ("p", compression("module_data"));
    // Behind a reader that holds the table, opening gives up the change after a moment
    // (rather than waiting for ever here); the next opening makes it.
    ASSERT_EQ(StoreResult::Ok, sql->ExecScript("ALTER TABLE reports ALTER COLUMN body SET "
                                               "COMPRESSION default"));
    auto reader = Connect(db, error);
    ASSERT_TRUE(reader) << error;
    ASSERT_EQ(StoreResult::Ok, reader->Begin());
    ASSERT_EQ(StoreResult::Ok, reader->Exec("SELECT count(*) FROM reports", {}, nullptr));
    ASSERT_TRUE(db.Open());
    EXPECT_EQ("", compression("body"));
    reader->Rollback();
    ASSERT_TRUE(db.Open());
    EXPECT_EQ("l", compression("body"));
}

// The fields a validator found beforehand count exactly as those the store would find in
// the module data's JSON itself.
TEST_P(StoreContract, FieldsFoundBeforehandCountAsThoseFoundInTheJson) {
    TestDatabase parsed(GetParam()), found(GetParam());
    auto one = parsed.Open();
    auto two = found.Open();
    ASSERT_TRUE(one && two);
    std::vector<ValidatedReport> batch;
    for (int i = 0; i < 20; ++i) {
        batch.push_back(MakeReport(i % 2 ? kA : kB, i, kT0 + i * kDay / 4, std::to_string(i)));
    }
    Insert(*one, batch);
    for (ValidatedReport& r : batch) {
        ASSERT_TRUE(ForEachModuleField(
            r.moduleDataJson, [&r](const FieldValue& field) { r.moduleFields.push_back(field); }));
    }
    Insert(*two, batch);
    EXPECT_EQ(Figures(*one, kT0 / kDay, kT0 / kDay + 5), Figures(*two, kT0 / kDay, kT0 / kDay + 5));
}

TEST(SqliteStore, FilesArePrivate) {
    TestDatabase db("sqlite");
    auto store = db.Open();
    ASSERT_TRUE(store);
    std::vector<InsertOutcome> outcomes;
    ASSERT_EQ(StoreResult::Ok, store->InsertBatch({MakeReport(kA, 1, kT0, "p")}, outcomes));
    const std::string& path = db.location();
    for (const std::string& file : {path, path + "-wal", path + "-shm"}) {
        struct stat status;
        ASSERT_EQ(0, stat(file.c_str(), &status)) << file;
        EXPECT_EQ(0600u, status.st_mode & 0777) << file;
    }
    struct stat directory;
    ASSERT_EQ(0, stat(path.substr(0, path.rfind('/')).c_str(), &directory));
    EXPECT_EQ(0700u, directory.st_mode & 0777);
}

INSTANTIATE_TEST_SUITE_P(Backends, StoreContract, ::testing::Values("sqlite", "postgres"),
                         [](const auto& info) { return info.param; });

}  // namespace
