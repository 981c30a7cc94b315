// SqlStore: writing batches, rollups and purges.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unordered_map>

#include "store/Schema.h"
#include "store/SqlStore.h"
#include "store/StoreLog.h"

namespace collector {

namespace {

constexpr int kTransactionAttempts = 8;

std::string JoinModules(const std::vector<std::string>& modules) {
    std::string joined;
    for (const std::string& module : modules) {
        if (!joined.empty()) {
            joined.push_back('\0');
        }
        joined += module;
    }
    return joined;
}

bool CountsAsMachine(const std::string& machineId) {
    return !machineId.empty() && machineId != kUnknownMachineId;
}

// The most rows one INSERT carries. Each statement has a fixed cost on the server (bind,
// executor start, a round of triggers), so a batch's rows of a small table go in few
// statements; their sizes are powers of two, so that a connection prepares at most nine
// shapes per table.
constexpr size_t kRowsPerInsert = 256;

// Appends to `statements` the INSERTs of `values` (rows of `columns` values each, in
// order): "`head` VALUES (...), (...) `tail`". `more`, when given, adds expressions to each
// row after its values, given the number of the row's first parameter.
void AppendInserts(const std::string& head, const std::string& tail, size_t columns,
                   std::vector<SqlValue>&& values, std::vector<SqlStatement>& statements,
                   std::string (*more)(size_t firstParameter) = nullptr) {
    const size_t rows = columns == 0 ? 0 : values.size() / columns;
    for (size_t done = 0; done < rows;) {
        size_t chunk = kRowsPerInsert;
        while (chunk > rows - done) {
            chunk /= 2;
        }
        SqlStatement statement;
        statement.sql = head + " VALUES ";
        for (size_t row = 0; row < chunk; ++row) {
            statement.sql += row == 0 ? "(" : ", (";
            for (size_t column = 0; column < columns; ++column) {
                statement.sql +=
                    (column == 0 ? "$" : ", $") + std::to_string(row * columns + column + 1);
            }
            if (more != nullptr) {
                statement.sql += more(row * columns + 1);
            }
            statement.sql += ")";
        }
        statement.sql += tail;
        statement.params.assign(std::make_move_iterator(values.begin() + done * columns),
                                std::make_move_iterator(values.begin() + (done + chunk) * columns));
        statements.push_back(std::move(statement));
        done += chunk;
    }
}

}  // namespace

SqlStore::SqlStore(std::unique_ptr<SqlConnection> connection, int schemaVersion)
    : m_db(std::move(connection)),
      m_sqlite(m_db->Dialect() == SqlDialect::Sqlite),
      m_schemaVersion(schemaVersion) {}

StoreResult SqlStore::Ping() {
    return m_db->Exec("SELECT 1", {}, nullptr);
}

StoreResult SqlStore::PrepareForBulkLoad() {
    return m_db->PrepareForBulkLoad();
}

StoreResult SqlStore::EndBulkLoad() {
    return m_db->EndBulkLoad();
}

StoreResult SqlStore::DeferReadIndexes(bool& deferred) {
    deferred = false;
    std::vector<SqlRow> rows;
    StoreResult result =
        m_db->Exec("SELECT count(*) FROM (SELECT 1 FROM reports LIMIT 1) AS any_report", {}, &rows);
    if (result != StoreResult::Ok || rows.empty() || rows[0][0].Int() != 0) {
        return result;
    }
    // A report stored by another process between the count and the drop is still listed
    // (by a scan) and is in the indexes built at the end.
    result = DropReadIndexes(*m_db);
    deferred = result == StoreResult::Ok;
    return result;
}

StoreResult SqlStore::BuildReadIndexes() {
    return CreateReadIndexes(*m_db);
}

template <typename Work>
StoreResult SqlStore::InTransaction(Work work) {
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

StoreResult SqlStore::InsertBatch(const std::vector<ValidatedReport>& batch,
                                  std::vector<InsertOutcome>& outcomes) {
    std::vector<Pending> pending;
    pending.reserve(batch.size());
    for (const ValidatedReport& report : batch) {
        pending.push_back({&report, nullptr});
    }
    return Insert(pending, outcomes);
}

StoreResult SqlStore::CopyBatch(const std::vector<ValidatedReport>& batch,
                                const std::vector<std::vector<int64_t>>& duplicateTimes,
                                std::vector<InsertOutcome>& outcomes) {
    std::vector<Pending> pending;
    pending.reserve(batch.size());
    for (size_t i = 0; i < batch.size(); ++i) {
        pending.push_back({&batch[i], i < duplicateTimes.size() ? &duplicateTimes[i] : nullptr});
    }
    return Insert(pending, outcomes);
}

StoreResult SqlStore::Insert(const std::vector<Pending>& batch,
                             std::vector<InsertOutcome>& outcomes) {
    // Every transaction takes its row locks in one global order (reports by their unique
    // key, then dumps by theirs, then machine days), so that nodes inserting overlapping
    // batches wait for each other instead of deadlocking. The body's SHA-256 comes first:
    // a batch then walks the unique index of stores made now in its order, each page once
    // (on the fleet's year, 11.7 s of inserts instead of 14.7 s).
    std::vector<size_t> order(batch.size());
    for (size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    auto key = [&batch](size_t i) {
        const ValidatedReport& r = *batch[i].report;
        return std::tie(r.sha256, r.machineId, r.hasPeriod, r.periodStart, r.periodEnd);
    };
    std::stable_sort(order.begin(), order.end(),
                     [&key](size_t a, size_t b) { return key(a) < key(b); });
    return InTransaction([&]() {
        outcomes.assign(batch.size(), InsertOutcome());
        Rollup rollup;
        StoreResult result = StoreResult::Ok;
        if ((result = InsertRows(batch, order, outcomes, rollup)) != StoreResult::Ok ||
            (result = InsertDumps(batch, outcomes, rollup)) != StoreResult::Ok ||
            (result = InsertMachineDays(batch, outcomes, rollup)) != StoreResult::Ok) {
            return result;
        }
        std::vector<SqlValue> moduleRows;
        for (size_t i = 0; i < batch.size(); ++i) {
            if (outcomes[i].duplicate) {
                continue;
            }
            if ((result = InsertDetails(batch[i], outcomes[i].id, rollup)) != StoreResult::Ok) {
                return result;
            }
            for (const std::string& module : batch[i].report->modules) {
                moduleRows.insert(moduleRows.end(),
                                  {outcomes[i].id, module, batch[i].report->received});
            }
        }
        // A report's modules are distinct and its id new, so no row can conflict. In
        // PostgreSQL, whose identity never hands an id out twice, the inserts say so: ON
        // CONFLICT would make each row a speculative insertion (a probe of the key, the
        // insert, then a log record to confirm it), which took twice the server's time.
        // SQLite reuses the highest id once its report is gone (and its rows with it); the
        // clause costs it nothing.
        AppendInserts("INSERT INTO report_modules (report_id, module, received)",
                      m_sqlite ? " ON CONFLICT DO NOTHING" : "", 3, std::move(moduleRows),
                      m_deferred);
        return WriteRollup(rollup);
    });
}

StoreResult SqlStore::InsertRows(const std::vector<Pending>& batch,
                                 const std::vector<size_t>& order,
                                 std::vector<InsertOutcome>& outcomes, Rollup& rollup) {
    const std::string columns =
        "INSERT INTO reports (received, kind, machine_id, customer_id, version, os_type, "
        "os_name, os_version_details, os_locale, os_major, os_minor, os_build, has_period, "
        "period_start, period_end, modules, size, sha256, body, client_address, "
        "damaged_reason, module_data, has_threat, threat_incident";
    constexpr size_t kColumns = 24;
    // A report is kept once per machine, period and content: by the body's SHA-256 in
    // stores made now, by the four columns in stores made before (see Schema); the clause
    // names no columns so that it serves either.
    const std::string onConflict = " ON CONFLICT DO NOTHING";
    std::vector<SqlValue> values;
    values.reserve(order.size() * kColumns);
    for (size_t i : order) {
        const ValidatedReport& r = *batch[i].report;
        values.insert(values.end(), {r.received,
                                     static_cast<int>(r.kind),
                                     SqlValue::TextView(r.machineId),
                                     SqlValue::TextView(r.customerId),
                                     SqlValue::TextView(r.version),
                                     SqlValue::TextView(r.osType),
                                     SqlValue::TextView(r.osName),
                                     SqlValue::TextView(r.osVersionDetails),
                                     SqlValue::TextView(r.osLocale),
                                     r.osMajor,
                                     r.osMinor,
                                     r.osBuild,
                                     r.hasPeriod ? 1 : 0,
                                     r.hasPeriod ? r.periodStart : 0,
                                     r.hasPeriod ? r.periodEnd : 0,
                                     SqlValue::Blob(JoinModules(r.modules)),
                                     static_cast<int64_t>(r.body.size()),
                                     SqlValue::TextView(r.sha256),
                                     SqlValue::BlobView(r.body),
                                     SqlValue::TextView(r.clientAddress),
                                     SqlValue::TextView(r.damagedReason),
                                     SqlValue::BlobView(r.moduleDataJson),
                                     r.hasThreat ? 1 : 0,
                                     SqlValue::TextView(r.threatIncident)});
    }
    // rows[k]: the id of report order[k] when its row was inserted, else nothing.
    std::vector<std::vector<SqlRow>> rows;
    std::vector<SqlStatement> statements;
    StoreResult result = StoreResult::Ok;
    if (m_sqlite) {
        // In-process: a statement per report costs little, and SQLite tells each one's id.
        std::string sql = columns + ") VALUES (";
        for (size_t column = 1; column <= kColumns; ++column) {
            sql += (column == 1 ? "$" : ", $") + std::to_string(column);
        }
        sql += ")" + onConflict;
        statements.reserve(order.size());
        for (size_t k = 0; k < order.size(); ++k) {
            statements.push_back({sql,
                                  {std::make_move_iterator(values.begin() + k * kColumns),
                                   std::make_move_iterator(values.begin() + (k + 1) * kColumns)},
                                  true});
        }
        result = m_db->ExecBatch(statements, &rows);
    } else {
        // PostgreSQL starts an executor, binds and answers once per statement: a batch's
        // reports go in statements of many rows (on the fleet's first month, the server's
        // time for them fell by a tenth), each row returned with its key. A report is
        // inserted at most once (a later copy in the batch conflicts with the first), so
        // the key tells whose id it is; later copies get none and count as duplicates.
        AppendInserts(columns + ", module_json)",
                      onConflict + " RETURNING id, sha256, machine_id, period_start, period_end",
                      kColumns, std::move(values), statements, [](size_t first) {
                          return ", pw_jsonb($" + std::to_string(first + 21) + ")";
                      });
        auto key = [](const std::string& sha256, const std::string& machineId,
                      const std::string& periodStart, const std::string& periodEnd) {
            return sha256 + '\0' + machineId + '\0' + periodStart + '\0' + periodEnd;
        };
        std::vector<std::vector<SqlRow>> inserted;
        if ((result = m_db->ExecBatch(statements, &inserted)) == StoreResult::Ok) {
            std::unordered_map<std::string, SqlRow> byKey;
            for (std::vector<SqlRow>& statementRows : inserted) {
                for (SqlRow& row : statementRows) {
                    std::string rowKey =
                        key(row[1].bytes, row[2].bytes, row[3].bytes, row[4].bytes);
                    byKey.emplace(std::move(rowKey), std::move(row));
                }
            }
            rows.assign(order.size(), {});
            for (size_t k = 0; k < order.size(); ++k) {
                const ValidatedReport& r = *batch[order[k]].report;
                auto found = byKey.find(key(r.sha256, r.machineId,
                                            std::to_string(r.hasPeriod ? r.periodStart : 0),
                                            std::to_string(r.hasPeriod ? r.periodEnd : 0)));
                if (found != byKey.end()) {
                    rows[k].push_back(std::move(found->second));
                    byKey.erase(found);
                }
            }
        }
    }
    if (result != StoreResult::Ok) {
        return result;
    }
    // A report whose row was not inserted is a duplicate: the same machine, period and
    // content is kept already (perhaps earlier in this batch). Its arrival is recorded
    // against the kept row, in the same order. The row is looked up by the four columns
    // first (the unique key of stores made before, and a match on the SHA-256 key too);
    // a row whose machine or period were not those read from its body (which a store
    // made before may hold) is then found by the SHA-256 alone.
    std::vector<size_t> duplicates;
    for (size_t k = 0; k < order.size(); ++k) {
        if (rows[k].empty()) {
            duplicates.push_back(order[k]);
        } else {
            outcomes[order[k]].id = rows[k][0][0].Int();
        }
    }
    for (const bool byContentAlone : {false, true}) {
        statements.clear();
        for (size_t i : duplicates) {
            const ValidatedReport& r = *batch[i].report;
            if (byContentAlone) {
                statements.push_back(
                    {"INSERT INTO duplicates (report_id, received) SELECT id, "
                     "$2 FROM reports WHERE sha256 = $1 RETURNING report_id",
                     {r.sha256, r.received}});
            } else {
                statements.push_back(
                    {"INSERT INTO duplicates (report_id, received) SELECT id, $5 FROM reports "
                     "WHERE machine_id = $1 AND period_start = $2 AND period_end = $3 AND "
                     "sha256 = $4 RETURNING report_id",
                     {r.machineId, r.hasPeriod ? r.periodStart : 0, r.hasPeriod ? r.periodEnd : 0,
                      r.sha256, r.received}});
            }
        }
        if (statements.empty()) {
            return StoreResult::Ok;
        }
        if ((result = m_db->ExecBatch(statements, &rows)) != StoreResult::Ok) {
            return result;
        }
        std::vector<size_t> missed;
        for (size_t k = 0; k < duplicates.size(); ++k) {
            if (rows[k].empty()) {
                missed.push_back(duplicates[k]);
                continue;
            }
            InsertOutcome& outcome = outcomes[duplicates[k]];
            outcome.id = rows[k][0][0].Int();
            outcome.duplicate = true;
            rollup.daily[DayOf(batch[duplicates[k]].report->received)].duplicates += 1;
        }
        duplicates.swap(missed);
    }
    return duplicates.empty() ? StoreResult::Ok : StoreResult::Error;
}

StoreResult SqlStore::InsertDetails(const Pending& pending, int64_t id, Rollup& rollup) {
    const ValidatedReport& r = *pending.report;
    const int64_t day = DayOf(r.received);
    DailyDelta& daily = rollup.daily[day];
    daily.perKind[static_cast<int>(r.kind)] += 1;
    daily.bytes += static_cast<int64_t>(r.body.size());
    if (pending.duplicateTimes != nullptr) {
        for (int64_t time : *pending.duplicateTimes) {
            rollup.daily[DayOf(time)].duplicates += 1;
            m_deferred.push_back(
                {"INSERT INTO duplicates (report_id, received) VALUES ($1, $2)", {id, time}});
        }
    }
    for (const std::string& module : r.modules) {
        rollup.breakdown[std::make_tuple(kModuleDimension, day, module)].first += 1;
    }
    if (r.kind != ReportKind::Damaged) {
        const std::string* values[] = {&r.version, &r.osName, &r.osLocale, &r.customerId};
        for (int dimension = 0; dimension < 4; ++dimension) {
            rollup.breakdown[std::make_tuple(dimension, day, *values[dimension])].first += 1;
        }
    }
    if (!r.moduleFields.empty()) {
        StoreResult result = StoreResult::Ok;
        for (const FieldValue& field : r.moduleFields) {
            AddModuleField(field, day, 1, rollup, result);
        }
        return result;
    }
    return r.moduleDataJson.empty() ? StoreResult::Ok
                                    : AddModuleFields(r.moduleDataJson, day, 1, rollup);
}

StoreResult SqlStore::InsertMachineDays(const std::vector<Pending>& batch,
                                        const std::vector<InsertOutcome>& outcomes,
                                        Rollup& rollup) {
    std::set<std::pair<int64_t, std::string>> machineDays;
    for (size_t i = 0; i < batch.size(); ++i) {
        const ValidatedReport& r = *batch[i].report;
        if (!outcomes[i].duplicate && CountsAsMachine(r.machineId)) {
            machineDays.emplace(DayOf(r.received), r.machineId);
        }
    }
    std::vector<SqlValue> values;
    values.reserve(machineDays.size() * 2);
    for (const auto& machineDay : machineDays) {
        values.insert(values.end(), {machineDay.first, machineDay.second});
    }
    // A row comes back for each machine day that is new.
    std::vector<SqlStatement> statements;
    AppendInserts("INSERT INTO machine_days (day, machine_id)",
                  " ON CONFLICT DO NOTHING RETURNING day", 2, std::move(values), statements);
    std::vector<std::vector<SqlRow>> rows;
    StoreResult result = m_db->ExecBatch(statements, &rows);
    for (size_t k = 0; k < rows.size() && result == StoreResult::Ok; ++k) {
        for (const SqlRow& row : rows[k]) {
            rollup.daily[row[0].Int()].machines += 1;
        }
    }
    return result;
}

StoreResult SqlStore::InsertDumps(const std::vector<Pending>& batch,
                                  const std::vector<InsertOutcome>& outcomes, Rollup& rollup) {
    // (machine, module, dump SHA-256, place in the batch) -> the dump and its report: of
    // the reports of a batch that bring the same dump, the first to arrive has it new.
    std::map<std::tuple<std::string, std::string, std::string, size_t>,
             std::pair<const CrashDump*, const ValidatedReport*>>
        dumps;
    for (size_t i = 0; i < batch.size(); ++i) {
        const ValidatedReport& r = *batch[i].report;
        if (outcomes[i].duplicate) {
            continue;
        }
        for (const CrashDump& dump : r.crashDumps) {
            dumps.emplace(std::make_tuple(r.machineId, dump.module, dump.sha256, i),
                          std::make_pair(&dump, &r));
        }
    }
    // First the dumps (a dump kept already makes this copy a repeat), then the reports'
    // references to them. A dump's bytes are not stored: the report's body holds them
    // (GetDump decodes them from it), so each dump would otherwise be written twice.
    std::vector<SqlStatement> statements;
    for (const auto& entry : dumps) {
        const CrashDump& dump = *entry.second.first;
        const ValidatedReport& r = *entry.second.second;
        statements.push_back(
            {"INSERT INTO dumps (machine_id, module, sha256, size, bytes) VALUES ($1, $2, $3, "
             "$4, $5) ON CONFLICT DO NOTHING RETURNING size",
             {r.machineId, dump.module, dump.sha256, static_cast<int64_t>(dump.size),
              SqlValue::Blob(std::string())}});
    }
    std::vector<std::vector<SqlRow>> rows;
    StoreResult result = m_db->ExecBatch(statements, &rows);
    if (result != StoreResult::Ok) {
        return result;
    }
    std::vector<bool> repeats;
    statements.clear();
    for (const auto& entry : dumps) {
        const CrashDump& dump = *entry.second.first;
        const ValidatedReport& r = *entry.second.second;
        const bool repeat = rows[repeats.size()].empty();
        repeats.push_back(repeat);
        statements.push_back(
            {"INSERT INTO report_dumps (report_id, machine_id, module, sha256, size, repeat) "
             "VALUES ($1, $2, $3, $4, $5, $6) ON CONFLICT DO NOTHING RETURNING repeat",
             {outcomes[std::get<3>(entry.first)].id, r.machineId, dump.module, dump.sha256,
              static_cast<int64_t>(dump.size), repeat ? 1 : 0}});
    }
    if ((result = m_db->ExecBatch(statements, &rows)) != StoreResult::Ok) {
        return result;
    }
    size_t k = 0;
    for (const auto& entry : dumps) {
        if (!rows[k].empty()) {
            auto& counts = rollup.breakdown[std::make_tuple(
                static_cast<int>(BreakdownBy::CrashModule), DayOf(entry.second.second->received),
                entry.second.first->module)];
            (repeats[k] ? counts.second : counts.first) += 1;
        }
        ++k;
    }
    return StoreResult::Ok;
}

StoreResult SqlStore::FieldKindOf(const std::string& module, const std::string& path,
                                  FieldKind kind, bool& accepted) {
    auto& known = m_fields[module];
    auto found = known.find(path);
    if (found == known.end()) {
        // Loaded once per module and Store; a field new to this Store is registered
        // unless the module has its share of fields already.
        std::vector<SqlRow> rows;
        StoreResult result =
            m_db->Exec("SELECT path, kind FROM module_fields WHERE module = $1", {module}, &rows);
        if (result != StoreResult::Ok) {
            return result;
        }
        for (const SqlRow& row : rows) {
            known[row[0].bytes] = static_cast<FieldKind>(row[1].Int());
        }
        found = known.find(path);
        if (found == known.end()) {
            if (known.size() >= static_cast<size_t>(kMaxFieldsPerModule)) {
                accepted = false;
                return StoreResult::Ok;
            }
            m_deferred.push_back(
                {"INSERT INTO module_fields (module, path, kind) VALUES ($1, $2, $3) "
                 "ON CONFLICT DO NOTHING",
                 {module, path, static_cast<int>(kind)}});
            found = known.emplace(path, kind).first;
        }
    }
    accepted = found->second == kind;
    return StoreResult::Ok;
}

StoreResult SqlStore::ValueKept(const std::string& module, const std::string& path,
                                const std::string& value, bool& kept) {
    auto key = std::make_pair(module, path);
    auto found = m_values.find(key);
    if (found == m_values.end()) {
        std::vector<SqlRow> rows;
        StoreResult result =
            m_db->Exec("SELECT value FROM module_values WHERE module = $1 AND path = $2",
                       {module, path}, &rows);
        if (result != StoreResult::Ok) {
            return result;
        }
        found = m_values.emplace(key, std::set<std::string>()).first;
        for (const SqlRow& row : rows) {
            found->second.insert(row[0].bytes);
        }
    }
    kept = found->second.count(value) != 0;
    if (kept || found->second.size() >= static_cast<size_t>(kMaxValuesPerField)) {
        return StoreResult::Ok;
    }
    m_deferred.push_back(
        {"INSERT INTO module_values (module, path, value) VALUES ($1, $2, $3) "
         "ON CONFLICT DO NOTHING",
         {module, path, value}});
    found->second.insert(value);
    kept = true;
    return StoreResult::Ok;
}

StoreResult SqlStore::AddModuleFields(const std::string& moduleDataJson, int64_t day, int sign,
                                      Rollup& rollup) {
    StoreResult result = StoreResult::Ok;
    ForEachModuleField(moduleDataJson, [&](const FieldValue& field) {
        AddModuleField(field, day, sign, rollup, result);
    });
    return result;
}

void SqlStore::AddModuleField(const FieldValue& field, int64_t day, int sign, Rollup& rollup,
                              StoreResult& result) {
    bool accepted = false;
    if (result != StoreResult::Ok ||
        (result = FieldKindOf(field.module, field.path, field.kind, accepted)) != StoreResult::Ok ||
        !accepted) {
        return;
    }
    if (field.kind == FieldKind::Integer) {
        rollup.AddField(field.module, day, field.path, field.integer, sign);
        return;
    }
    rollup.AddField(field.module, day, field.path, 0, sign);
    bool kept = false;
    if ((result = ValueKept(field.module, field.path, field.text, kept)) == StoreResult::Ok) {
        rollup.values[std::make_tuple(field.module, day, field.path,
                                      kept ? field.text : std::string(kOtherValue))] += sign;
    }
}

StoreResult SqlStore::WriteRollup(const Rollup& rollup) {
    // SQLite adds to one row per key; PostgreSQL inserts the batch's own rows (see Schema).
    // They go in one batch after the statements deferred so far (details, new fields).
    auto upsert = [this](const char* conflict, const char* update) {
        return m_sqlite ? std::string(" ON CONFLICT ") + conflict + " DO UPDATE SET " + update
                        : std::string();
    };
    std::vector<SqlStatement>& statements = m_deferred;
    const std::string dailySql =
        "INSERT INTO daily (day, feedback, crash, threat, damaged, duplicates, machines, bytes) "
        "VALUES ($1, $2, $3, $4, $5, $6, $7, $8)" +
        upsert("(day)",
               "feedback = feedback + excluded.feedback, crash = crash + excluded.crash, "
               "threat = threat + excluded.threat, damaged = damaged + excluded.damaged, "
               "duplicates = duplicates + excluded.duplicates, "
               "machines = machines + excluded.machines, bytes = bytes + excluded.bytes");
    for (const auto& entry : rollup.daily) {
        const DailyDelta& d = entry.second;
        statements.push_back({dailySql,
                              {entry.first, d.perKind[0], d.perKind[1], d.perKind[2], d.perKind[3],
                               d.duplicates, d.machines, d.bytes}});
    }
    if (m_schemaVersion >= 2) {
        const std::string sql =
            "INSERT INTO breakdown (dim, day, value, count, repeats) VALUES ($1, $2, $3, $4, "
            "$5)" +
            upsert("(dim, day, value)",
                   "count = count + excluded.count, repeats = repeats + excluded.repeats");
        // The day rows, and from version 5 on the same figures summed per block of days.
        std::map<std::tuple<int, int64_t, std::string>, std::pair<int64_t, int64_t>> blocks;
        for (const auto& entry : rollup.breakdown) {
            const auto& [dimension, day, value] = entry.first;
            statements.push_back(
                {sql, {dimension, day, value, entry.second.first, entry.second.second}});
            if (m_schemaVersion >= 5) {
                auto& block = blocks[std::make_tuple(dimension + kBlockDimensionOffset,
                                                     day / kBreakdownBlockDays, value)];
                block.first += entry.second.first;
                block.second += entry.second.second;
            }
        }
        for (const auto& entry : blocks) {
            const auto& [dimension, block, value] = entry.first;
            statements.push_back(
                {sql, {dimension, block, value, entry.second.first, entry.second.second}});
        }
    }
    const std::string fieldSql =
        "INSERT INTO field_days (module, day, path, count, sum, min, max) VALUES ($1, $2, $3, "
        "$4, $5, $6, $7)" +
        upsert("(module, day, path)",
               "count = count + excluded.count, sum = sum + excluded.sum, "
               "min = coalesce(min(min, excluded.min), min, excluded.min), "
               "max = coalesce(max(max, excluded.max), max, excluded.max)");
    for (const auto& entry : rollup.fields) {
        const FieldDelta& f = entry.second;
        statements.push_back(
            {fieldSql,
             {std::get<0>(entry.first), std::get<1>(entry.first), std::get<2>(entry.first), f.count,
              f.sum, f.hasRange ? SqlValue(f.min) : SqlValue(),
              f.hasRange ? SqlValue(f.max) : SqlValue()}});
    }
    const std::string valueSql =
        "INSERT INTO value_days (module, day, path, value, count) VALUES ($1, $2, $3, $4, $5)" +
        upsert("(module, day, path, value)", "count = count + excluded.count");
    for (const auto& entry : rollup.values) {
        statements.push_back({valueSql,
                              {std::get<0>(entry.first), std::get<1>(entry.first),
                               std::get<2>(entry.first), std::get<3>(entry.first), entry.second}});
    }
    StoreResult result = m_db->ExecBatch(statements, nullptr);
    statements.clear();
    return result;
}

StoreResult SqlStore::PurgeOlderThan(int64_t before, int64_t& removed) {
    // Whole days go, so their rollup rows go with them instead of being corrected.
    const int64_t firstKeptDay = DayOf(before);
    removed = 0;
    // A purge finds its reports, and the rows that refer to them, through the read indexes.
    StoreResult result = BuildReadIndexes();
    result = result != StoreResult::Ok ? result : InTransaction([&]() {
        std::vector<SqlRow> rows;
        StoreResult step = m_db->Exec("SELECT count(*) FROM reports WHERE received < $1",
                                      {firstKeptDay * 86400}, &rows);
        if (step != StoreResult::Ok) {
            return step;
        }
        removed = rows.empty() ? 0 : rows[0][0].Int();
        // Module rows are found by their time received (a scan of their one B-tree, keyed
        // by module first): nothing deletes them with their report.
        std::vector<std::string> statements = {
            "DELETE FROM report_modules WHERE received < $1",
            "DELETE FROM reports WHERE received < $1",
            "DELETE FROM daily WHERE day < $2",
            "DELETE FROM machine_days WHERE day < $2",
            "DELETE FROM field_days WHERE day < $2",
            "DELETE FROM value_days WHERE day < $2",
        };
        if (m_schemaVersion >= 5) {
            // The block that holds the first kept day loses the days before it; the blocks
            // before it go whole, with the day rows.
            const int64_t block = firstKeptDay / kBreakdownBlockDays;
            const std::string blockDay = std::to_string(block);
            statements.push_back(
                "INSERT INTO breakdown (dim, day, value, count, repeats) SELECT dim + " +
                std::to_string(kBlockDimensionOffset) + ", " + blockDay +
                ", value, -sum(count), -sum(repeats) FROM breakdown WHERE dim < " +
                std::to_string(kBlockDimensionOffset) + " AND day >= " +
                std::to_string(block * kBreakdownBlockDays) + " AND day < $2 GROUP BY dim, value" +
                (m_sqlite ? " ON CONFLICT (dim, day, value) DO UPDATE SET count = count + "
                            "excluded.count, repeats = repeats + excluded.repeats"
                          : ""));
            statements.push_back(
                "DELETE FROM breakdown WHERE (dim < " + std::to_string(kBlockDimensionOffset) +
                " AND day < $2) OR (dim >= " + std::to_string(kBlockDimensionOffset) +
                " AND day < " + blockDay + ")");
        } else if (m_schemaVersion >= 2) {
            statements.push_back("DELETE FROM breakdown WHERE day < $2");
        }
        statements.push_back(
            "DELETE FROM dumps WHERE NOT EXISTS (SELECT 1 FROM report_dumps r WHERE "
            "r.machine_id = dumps.machine_id AND r.module = dumps.module AND "
            "r.sha256 = dumps.sha256)");
        for (const std::string& sql : statements) {
            if ((step = m_db->Exec(sql, {firstKeptDay * 86400, firstKeptDay}, nullptr)) !=
                StoreResult::Ok) {
                return step;
            }
        }
        return StoreResult::Ok;
    });
    if (result == StoreResult::Ok) {
        result = Compact();
    }
    if (result == StoreResult::Ok) {
        result = m_db->Reclaim();
    }
    return result;
}

StoreResult SqlStore::PurgeMachine(const std::string& machineId, int64_t& removed) {
    removed = 0;
    StoreResult result = BuildReadIndexes();
    result = result != StoreResult::Ok ? result : InTransaction([&]() {
        // The machine's share of every rollup is taken away, report by report.
        Rollup rollup;
        int64_t afterId = 0;
        ReportFilter filter;
        filter.machineId = machineId;
        removed = 0;
        for (;;) {
            std::vector<StoredReport> reports;
            StoreResult step = ScanReports(filter, afterId, 500, reports);
            if (step != StoreResult::Ok) {
                return step;
            }
            if (reports.empty()) {
                break;
            }
            for (const StoredReport& r : reports) {
                const int64_t day = DayOf(r.summary.received);
                DailyDelta& daily = rollup.daily[day];
                daily.perKind[static_cast<int>(r.summary.kind)] -= 1;
                daily.bytes -= static_cast<int64_t>(r.summary.size);
                for (int64_t time : r.duplicateTimes) {
                    rollup.daily[DayOf(time)].duplicates -= 1;
                }
                for (const std::string& module : r.summary.modules) {
                    rollup.breakdown[std::make_tuple(kModuleDimension, day, module)].first -= 1;
                    if ((step = m_db->Exec("DELETE FROM report_modules WHERE module = $1 AND "
                                           "received = $2 AND report_id = $3",
                                           {module, r.summary.received, r.summary.id}, nullptr)) !=
                        StoreResult::Ok) {
                        return step;
                    }
                }
                if (r.summary.kind != ReportKind::Damaged) {
                    const std::string* values[] = {&r.summary.version, &r.osName, &r.osLocale,
                                                   &r.summary.customerId};
                    for (int dimension = 0; dimension < 4; ++dimension) {
                        rollup.breakdown[std::make_tuple(dimension, day, *values[dimension])]
                            .first -= 1;
                    }
                }
                for (const StoredDump& dump : r.dumps) {
                    auto& counts = rollup.breakdown[std::make_tuple(
                        static_cast<int>(BreakdownBy::CrashModule), day, dump.module)];
                    (dump.repeat ? counts.second : counts.first) -= 1;
                }
                if (!r.moduleDataJson.empty() &&
                    (step = AddModuleFields(r.moduleDataJson, day, -1, rollup)) !=
                        StoreResult::Ok) {
                    return step;
                }
                afterId = r.summary.id;
                ++removed;
            }
        }
        std::vector<SqlRow> rows;
        StoreResult step = m_db->Exec(
            "DELETE FROM machine_days WHERE machine_id = $1 RETURNING day", {machineId}, &rows);
        if (step != StoreResult::Ok) {
            return step;
        }
        for (const SqlRow& row : rows) {
            rollup.daily[row[0].Int()].machines -= 1;
        }
        if ((step = WriteRollup(rollup)) != StoreResult::Ok) {
            return step;
        }
        for (const char* sql : {"DELETE FROM reports WHERE machine_id = $1",
                                "DELETE FROM dumps WHERE machine_id = $1"}) {
            if ((step = m_db->Exec(sql, {machineId}, nullptr)) != StoreResult::Ok) {
                return step;
            }
        }
        return RecomputeFieldRanges(rollup);
    });
    if (result == StoreResult::Ok) {
        result = Compact();
    }
    if (result == StoreResult::Ok) {
        result = m_db->Reclaim();
    }
    return result;
}

StoreResult SqlStore::RecomputeFieldRanges(const Rollup& purged) {
    // day -> (module, path) -> the range of what remains
    std::map<int64_t, std::map<std::pair<std::string, std::string>, FieldDelta>> days;
    for (const auto& entry : purged.fields) {
        days[std::get<1>(entry.first)][{std::get<0>(entry.first), std::get<2>(entry.first)}];
    }
    std::vector<SqlStatement> statements;
    for (auto& day : days) {
        std::vector<SqlRow> rows;
        StoreResult result =
            m_db->Exec("SELECT module_data FROM reports WHERE received >= $1 AND received < $2",
                       {day.first * 86400, (day.first + 1) * 86400}, &rows);
        for (const SqlRow& row : rows) {
            if (result != StoreResult::Ok || row[0].bytes.empty()) {
                continue;
            }
            ForEachModuleField(row[0].bytes, [&](const FieldValue& field) {
                auto found = day.second.find({field.module, field.path});
                bool accepted = false;
                if (found == day.second.end() || result != StoreResult::Ok ||
                    (result = FieldKindOf(field.module, field.path, field.kind, accepted)) !=
                        StoreResult::Ok ||
                    !accepted) {
                    return;
                }
                // As at ingest: a text field's rows hold a range of zeros.
                const int64_t value = field.kind == FieldKind::Integer ? field.integer : 0;
                FieldDelta& range = found->second;
                range.min = range.hasRange ? std::min(range.min, value) : value;
                range.max = range.hasRange ? std::max(range.max, value) : value;
                range.hasRange = true;
            });
        }
        if (result != StoreResult::Ok) {
            return result;
        }
        for (const auto& field : day.second) {
            const FieldDelta& range = field.second;
            // Every row of the key: PostgreSQL keeps several, read as their min and max.
            statements.push_back(
                {"UPDATE field_days SET min = $4, max = $5 WHERE module = $1 AND day = $2 AND "
                 "path = $3",
                 {field.first.first, day.first, field.first.second,
                  range.hasRange ? SqlValue(range.min) : SqlValue(),
                  range.hasRange ? SqlValue(range.max) : SqlValue()}});
        }
    }
    return m_db->ExecBatch(statements, nullptr);
}

StoreResult SqlStore::Compact() {
    // SQLite keeps one row per key already; rows a purge emptied are dropped.
    if (m_sqlite) {
        std::vector<std::string> statements = {
            "DELETE FROM value_days WHERE count = 0",
            "DELETE FROM field_days WHERE count = 0",
        };
        if (m_schemaVersion >= 2) {
            statements.push_back("DELETE FROM breakdown WHERE count = 0 AND repeats = 0");
        }
        for (const std::string& sql : statements) {
            StoreResult result = m_db->Exec(sql, {}, nullptr);
            if (result != StoreResult::Ok) {
                return result;
            }
        }
        return StoreResult::Ok;
    }
    // PostgreSQL: each table's rows are replaced by their sums in one statement, so rows
    // that other nodes add meanwhile are either summed or left as they are, never lost.
    std::vector<std::string> statements = {
        "WITH moved AS (DELETE FROM daily RETURNING *) INSERT INTO daily "
        "SELECT day, sum(feedback), sum(crash), sum(threat), sum(damaged), sum(duplicates), "
        "sum(machines), sum(bytes) FROM moved GROUP BY day",
        "WITH moved AS (DELETE FROM field_days RETURNING *) INSERT INTO field_days "
        "SELECT module, day, path, sum(count), sum(sum), min(min), max(max) FROM moved "
        "GROUP BY module, day, path HAVING sum(count) <> 0",
        "WITH moved AS (DELETE FROM value_days RETURNING *) INSERT INTO value_days "
        "SELECT module, day, path, value, sum(count) FROM moved "
        "GROUP BY module, day, path, value HAVING sum(count) <> 0",
    };
    if (m_schemaVersion >= 2) {
        statements.push_back(
            "WITH moved AS (DELETE FROM breakdown RETURNING *) INSERT INTO breakdown "
            "SELECT dim, day, value, sum(count), sum(repeats) FROM moved "
            "GROUP BY dim, day, value HAVING sum(count) <> 0 OR sum(repeats) <> 0");
    }
    return InTransaction([&]() {
        for (const std::string& sql : statements) {
            StoreResult result = m_db->Exec(sql, {}, nullptr);
            if (result != StoreResult::Ok) {
                return result;
            }
        }
        return StoreResult::Ok;
    });
}

}  // namespace collector
