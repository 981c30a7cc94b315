// SqlStore: purges by age and by machine, and the rollups' compaction after them.
#include <algorithm>

#include "store/SqlStore.h"

namespace collector {

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
