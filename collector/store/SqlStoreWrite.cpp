// SqlStore: writing batches and their rollups.
#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "store/Schema.h"
#include "store/SqlStore.h"
#include "store/StoreLog.h"

namespace collector {

namespace {

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
    // Where module_data is among them, from 0: PostgreSQL's jsonb copy is made from it.
    constexpr size_t kModuleDataColumn = 21;
    // A report is kept once per machine, period and content: by the body's SHA-256 in
    // stores made now, by the four columns in stores made before (see Schema); the clause
    // names no columns so that it serves either.
    const std::string onConflict = " ON CONFLICT DO NOTHING";
    auto rowValues = [](const ValidatedReport& r) -> std::vector<SqlValue> {
        return {r.received,
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
                SqlValue::TextView(r.threatIncident)};
    };
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
        for (size_t i : order) {
            statements.push_back({sql, rowValues(*batch[i].report), true});
        }
        result = m_db->ExecBatch(statements, &rows);
    } else {
        // PostgreSQL starts an executor, binds and answers once per statement: a batch's
        // reports go in statements of many rows (on the fleet's first month, the server's
        // time for them fell by a tenth), each row returned with its key. A report is
        // inserted at most once (a later copy in the batch conflicts with the first), so
        // the key tells whose id it is; later copies get none and count as duplicates.
        std::vector<SqlValue> values;
        values.reserve(order.size() * kColumns);
        for (size_t i : order) {
            for (SqlValue& value : rowValues(*batch[i].report)) {
                values.push_back(std::move(value));
            }
        }
        AppendInserts(columns + ", module_json)",
                      onConflict + " RETURNING id, sha256, machine_id, period_start, period_end",
                      kColumns, std::move(values), statements, [](size_t first) {
                          return ", pw_jsonb($" + std::to_string(first + kModuleDataColumn) + ")";
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
    // Either way a table's rows go in statements of many rows: a batch of ten feedback
    // reports has about forty breakdown rows, and a statement a row cost PostgreSQL more
    // than the reports' own inserts. A key appears once in a batch's rollup, so an upsert
    // of many rows adds each row as one of its own would. They go in one batch after the
    // statements deferred so far (details, new fields).
    auto upsert = [this](const char* conflict, const char* update) {
        return m_sqlite ? std::string(" ON CONFLICT ") + conflict + " DO UPDATE SET " + update
                        : std::string();
    };
    std::vector<SqlStatement>& statements = m_deferred;
    std::vector<SqlValue> values;  // views into the rollup and `blocks`, kept until written
    std::map<std::tuple<int, int64_t, std::string>, std::pair<int64_t, int64_t>> blocks;
    for (const auto& entry : rollup.daily) {
        const DailyDelta& d = entry.second;
        values.insert(values.end(), {entry.first, d.perKind[0], d.perKind[1], d.perKind[2],
                                     d.perKind[3], d.duplicates, d.machines, d.bytes});
    }
    AppendInserts(
        "INSERT INTO daily (day, feedback, crash, threat, damaged, duplicates, machines, bytes)",
        upsert("(day)",
               "feedback = feedback + excluded.feedback, crash = crash + excluded.crash, "
               "threat = threat + excluded.threat, damaged = damaged + excluded.damaged, "
               "duplicates = duplicates + excluded.duplicates, "
               "machines = machines + excluded.machines, bytes = bytes + excluded.bytes"),
        8, std::move(values), statements);
    if (m_schemaVersion >= 2) {
        // The day rows, and from version 5 on the same figures summed per block of days
        // (their dimensions offset, so that no block's key is a day's).
        values.clear();
        for (const auto& entry : rollup.breakdown) {
            const auto& [dimension, day, value] = entry.first;
            values.insert(values.end(), {dimension, day, SqlValue::TextView(value),
                                         entry.second.first, entry.second.second});
            if (m_schemaVersion >= 5) {
                auto& block = blocks[std::make_tuple(dimension + kBlockDimensionOffset,
                                                     day / kBreakdownBlockDays, value)];
                block.first += entry.second.first;
                block.second += entry.second.second;
            }
        }
        for (const auto& entry : blocks) {
            const auto& [dimension, block, value] = entry.first;
            values.insert(values.end(), {dimension, block, SqlValue::TextView(value),
                                         entry.second.first, entry.second.second});
        }
        AppendInserts(
            "INSERT INTO breakdown (dim, day, value, count, repeats)",
            upsert("(dim, day, value)",
                   "count = count + excluded.count, repeats = repeats + excluded.repeats"),
            5, std::move(values), statements);
    }
    values.clear();
    for (const auto& entry : rollup.fields) {
        const FieldDelta& f = entry.second;
        values.insert(
            values.end(),
            {SqlValue::TextView(std::get<0>(entry.first)), std::get<1>(entry.first),
             SqlValue::TextView(std::get<2>(entry.first)), f.count, f.sum,
             f.hasRange ? SqlValue(f.min) : SqlValue(), f.hasRange ? SqlValue(f.max) : SqlValue()});
    }
    AppendInserts("INSERT INTO field_days (module, day, path, count, sum, min, max)",
                  upsert("(module, day, path)",
                         "count = count + excluded.count, sum = sum + excluded.sum, "
                         "min = coalesce(min(min, excluded.min), min, excluded.min), "
                         "max = coalesce(max(max, excluded.max), max, excluded.max)"),
                  7, std::move(values), statements);
    values.clear();
    for (const auto& entry : rollup.values) {
        values.insert(values.end(),
                      {SqlValue::TextView(std::get<0>(entry.first)), std::get<1>(entry.first),
                       SqlValue::TextView(std::get<2>(entry.first)),
                       SqlValue::TextView(std::get<3>(entry.first)), entry.second});
    }
    AppendInserts("INSERT INTO value_days (module, day, path, value, count)",
                  upsert("(module, day, path, value)", "count = count + excluded.count"), 5,
                  std::move(values), statements);
    StoreResult result = m_db->ExecBatch(statements, nullptr);
    statements.clear();
    return result;
}

}  // namespace collector
