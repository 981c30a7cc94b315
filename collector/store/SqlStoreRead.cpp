// SqlStore: listings, one report, dumps, and the figures read from the rollups.
#include <algorithm>
#include <climits>

#include "store/Schema.h"
#include "store/SqlStore.h"

namespace collector {

namespace {

const char* const kSummaryColumns =
    "r.id, r.received, r.machine_id, r.customer_id, r.version, r.kind, r.has_period, "
    "r.period_start, r.period_end, r.modules, r.size, r.sha256, r.os_name, r.os_major, "
    "r.os_minor, r.os_build";
constexpr int kSummaryColumnCount = 16;

std::vector<std::string> SplitModules(const std::string& joined) {
    std::vector<std::string> modules;
    if (joined.empty()) {
        return modules;
    }
    size_t start = 0;
    for (;;) {
        size_t end = joined.find('\0', start);
        modules.push_back(joined.substr(start, end - start));
        if (end == std::string::npos) {
            return modules;
        }
        start = end + 1;
    }
}

ReportSummary ToSummary(const SqlRow& row) {
    ReportSummary s;
    s.id = row[0].Int();
    s.received = row[1].Int();
    s.machineId = row[2].bytes;
    s.customerId = row[3].bytes;
    s.version = row[4].bytes;
    s.kind = static_cast<ReportKind>(row[5].Int());
    s.hasPeriod = row[6].Int() != 0;
    s.periodStart = row[7].Int();
    s.periodEnd = row[8].Int();
    s.modules = SplitModules(row[9].bytes);
    s.size = static_cast<uint64_t>(row[10].Int());
    s.sha256 = row[11].bytes;
    s.osName = row[12].bytes;
    s.osVersion = row[13].bytes + "." + row[14].bytes + "." + row[15].bytes;
    return s;
}

// The filter as SQL conditions on the reports r, its values appended to `params`. The time
// bounds go on `timeColumn`, the column of the index being walked, so that they bound the
// walk rather than filter it; `until` is folded into the cursor by the caller.
std::string Conditions(const ReportFilter& filter, const std::string& timeColumn,
                       std::vector<SqlValue>& params) {
    std::string where;
    auto add = [&](const std::string& condition, SqlValue value) {
        params.push_back(std::move(value));
        where += (where.empty() ? " WHERE " : " AND ") + condition + " $" +
                 std::to_string(params.size());
    };
    if (filter.hasKind) {
        add("r.kind =", static_cast<int>(filter.kind));
    }
    if (!filter.machineId.empty()) {
        add("r.machine_id =", filter.machineId);
    }
    if (!filter.customerId.empty()) {
        add("r.customer_id =", filter.customerId);
    }
    if (!filter.version.empty()) {
        add("r.version =", filter.version);
    }
    if (filter.since != 0) {
        add(timeColumn + " >=", filter.since);
    }
    return where;
}

// The newest-first position to list from: the cursor, or `until` when that comes first.
// One bound instead of two, so that the walk starts there rather than at the cursor.
ReportCursor UpperBound(const ReportFilter& filter, const ReportCursor& after) {
    if (filter.until == 0 || (after.valid && after.received < filter.until)) {
        return after;
    }
    ReportCursor bound;
    bound.valid = true;
    bound.received = filter.until;
    bound.id = INT64_MIN;  // (received, id) < (until, min): received < until
    return bound;
}

// From this many days on, a breakdown is read along the value index.
constexpr int64_t kLongBreakdownDays = 60;

}  // namespace

// A dimension's figures for all time: its block rows where they are kept (fewer rows, the
// same sums), else its day rows.
int SqlStore::AllTimeDimension(int dimension) const {
    return m_schemaVersion >= 5 ? dimension + kBlockDimensionOffset : dimension;
}

namespace {}  // namespace

bool ParseBreakdownBy(const std::string& text, BreakdownBy& by) {
    const char* const names[] = {"version", "os", "locale", "customer", "crash_module"};
    for (int i = 0; i < 5; ++i) {
        if (text == names[i]) {
            by = static_cast<BreakdownBy>(i);
            return true;
        }
    }
    return false;
}

StoreResult SqlStore::Summaries(const std::string& sql, const std::vector<SqlValue>& params,
                                std::vector<ReportSummary>& reports) {
    std::vector<SqlRow> rows;
    StoreResult result = m_db->Exec(sql, params, &rows);
    for (const SqlRow& row : rows) {
        reports.push_back(ToSummary(row));
    }
    return result;
}

StoreResult SqlStore::ReportsMatching(const ReportFilter& filter, int64_t& count) {
    std::vector<SqlRow> rows;
    StoreResult result = StoreResult::Ok;
    count = INT64_MAX;
    auto dimension = [&](BreakdownBy by, const std::string& value) {
        rows.clear();
        if (result == StoreResult::Ok) {
            result = m_db->Exec("SELECT sum(count) FROM breakdown WHERE dim = $1 AND value = $2",
                                {AllTimeDimension(static_cast<int>(by)), value}, &rows);
        }
        count = std::min(count, rows.empty() ? 0 : rows[0][0].Int());
    };
    if (!filter.machineId.empty()) {
        count = 0;  // a machine's reports are few, and its index is the shortest walk
        return result;
    }
    if (filter.hasKind) {
        const char* const columns[] = {"feedback", "crash", "threat", "damaged"};
        result = m_db->Exec(
            std::string("SELECT sum(") + columns[static_cast<int>(filter.kind)] + ") FROM daily",
            {}, &rows);
        count = std::min(count, rows.empty() ? 0 : rows[0][0].Int());
    }
    if (!filter.customerId.empty()) {
        dimension(BreakdownBy::Customer, filter.customerId);
    }
    if (!filter.version.empty()) {
        dimension(BreakdownBy::Version, filter.version);
    }
    return result;
}

StoreResult SqlStore::ListReports(const ReportFilter& filter, const ReportCursor& after, int limit,
                                  std::vector<ReportSummary>& reports, ReportCursor& next) {
    reports.clear();
    next = ReportCursor();
    // A module filter walks the module's index, joining each report, unless another filter
    // matches fewer reports (the rollups say how many): then that filter's index is walked
    // and each report's module looked up by key. Either way the walk is the shorter one.
    bool byModule = !filter.module.empty();
    if (byModule && m_schemaVersion >= 3) {
        int64_t others = INT64_MAX, modules = 0;
        StoreResult result = ReportsMatching(filter, others);
        std::vector<SqlRow> rows;
        if (result == StoreResult::Ok && others != INT64_MAX) {
            result = m_db->Exec("SELECT sum(count) FROM breakdown WHERE dim = $1 AND value = $2",
                                {AllTimeDimension(kModuleDimension), filter.module}, &rows);
            modules = rows.empty() ? 0 : rows[0][0].Int();
            byModule = others >= modules;
        }
        if (result != StoreResult::Ok) {
            return result;
        }
    }
    std::string order = byModule ? "m.received" : "r.received";
    std::string idColumn = byModule ? "m.report_id" : "r.id";
    std::vector<SqlValue> params;
    std::string where = Conditions(filter, order, params);
    auto add = [&where](const std::string& condition) {
        where += (where.empty() ? " WHERE " : " AND ") + condition;
    };
    std::string from = " FROM reports r";
    if (byModule) {
        params.push_back(filter.module);
        from = " FROM report_modules m JOIN reports r ON r.id = m.report_id";
        add("m.module = $" + std::to_string(params.size()));
    } else if (!filter.module.empty()) {
        // A subquery per report, by key: never turned into a join over the module's rows.
        params.push_back(filter.module);
        add("(SELECT count(*) FROM report_modules m WHERE m.module = $" +
            std::to_string(params.size()) +
            " AND m.received = r.received AND m.report_id = r.id) > 0");
    }
    ReportCursor bound = UpperBound(filter, after);
    if (bound.valid) {
        params.push_back(bound.received);
        params.push_back(bound.id);
        add("(" + order + ", " + idColumn + ") < ($" + std::to_string(params.size() - 1) + ", $" +
            std::to_string(params.size()) + ")");
    }
    params.push_back(static_cast<int64_t>(limit) + 1);
    std::string sql = std::string("SELECT ") + kSummaryColumns + from + where + " ORDER BY " +
                      order + " DESC, " + idColumn + " DESC LIMIT $" +
                      std::to_string(params.size());
    StoreResult result = Summaries(sql, params, reports);
    if (result == StoreResult::Ok && reports.size() > static_cast<size_t>(limit)) {
        reports.resize(limit);
        next.valid = true;
        next.received = reports.back().received;
        next.id = reports.back().id;
    }
    return result;
}

StoreResult SqlStore::ScanReports(const ReportFilter& filter, int64_t afterId, int limit,
                                  std::vector<StoredReport>& reports) {
    return Scan(filter, afterId, 0, limit, reports);
}

StoreResult SqlStore::ScanReportRange(const ReportFilter& filter, int64_t afterId, int64_t lastId,
                                      std::vector<StoredReport>& reports) {
    if (lastId <= afterId) {
        reports.clear();
        return StoreResult::Ok;
    }
    return Scan(filter, afterId, lastId, 0, reports);
}

StoreResult SqlStore::ReportIdRange(const ReportFilter& filter, int64_t& first, int64_t& last) {
    std::vector<SqlRow> rows;
    StoreResult result;
    if (filter.since == 0 && filter.until == 0) {
        result = m_db->Exec(
            "SELECT (SELECT coalesce(min(id), 0) FROM reports), "
            "(SELECT coalesce(max(id), 0) FROM reports)",
            {}, &rows);
    } else {
        // Along the time index; "id + 0" keeps the planners from walking the primary key in
        // search of the first and last id instead.
        result = m_db->Exec(
            "SELECT coalesce(min(id + 0), 0), coalesce(max(id + 0), 0) FROM reports "
            "WHERE received >= $1 AND received < $2",
            {filter.since, filter.until != 0 ? filter.until : INT64_MAX}, &rows);
    }
    first = rows.empty() ? 0 : rows[0][0].Int();
    last = rows.empty() ? 0 : rows[0][1].Int();
    return result;
}

StoreResult SqlStore::Scan(const ReportFilter& filter, int64_t afterId, int64_t lastId, int limit,
                           std::vector<StoredReport>& reports) {
    reports.clear();
    std::vector<SqlValue> params;
    std::string where = Conditions(filter, "r.received", params);
    if (filter.until != 0) {
        params.push_back(filter.until);
        where += (where.empty() ? " WHERE " : " AND ") + std::string("r.received < $") +
                 std::to_string(params.size());
    }
    params.push_back(afterId);
    where += (where.empty() ? " WHERE " : " AND ") + std::string("r.id > $") +
             std::to_string(params.size());
    if (lastId != 0) {
        params.push_back(lastId);
        where += " AND r.id <= $" + std::to_string(params.size());
    }
    std::string sql = std::string("SELECT ") + kSummaryColumns +
                      ", r.body, r.client_address, r.damaged_reason, r.os_type, "
                      "r.os_version_details, r.os_locale, r.module_data, r.has_threat, "
                      "r.threat_incident FROM reports r" +
                      where + " ORDER BY r.id";
    if (limit != 0) {
        params.push_back(static_cast<int64_t>(limit));
        sql += " LIMIT $" + std::to_string(params.size());
    }
    // The bodies are most of an export's bytes: they cross as they are.
    std::vector<SqlRow> rows;
    StoreResult result = m_db->ExecBinary(sql, params, &rows);
    if (result != StoreResult::Ok || rows.empty()) {
        return result;
    }
    reports.reserve(rows.size());
    for (SqlRow& row : rows) {
        StoredReport r;
        r.summary = ToSummary(row);
        const int c = kSummaryColumnCount;
        // The cells are moved, not copied: the bodies are most of an export's bytes.
        r.body = std::move(row[c].bytes);
        r.clientAddress = std::move(row[c + 1].bytes);
        r.damagedReason = std::move(row[c + 2].bytes);
        r.osType = std::move(row[c + 3].bytes);
        r.osName = r.summary.osName;
        r.osVersionDetails = std::move(row[c + 4].bytes);
        r.osLocale = std::move(row[c + 5].bytes);
        r.osMajor = row[13].Int();
        r.osMinor = row[14].Int();
        r.osBuild = row[15].Int();
        r.moduleDataJson = std::move(row[c + 6].bytes);
        r.hasThreat = row[c + 7].Int() != 0;
        r.threatIncident = std::move(row[c + 8].bytes);
        reports.push_back(std::move(r));
    }
    // Dumps and duplicate arrivals of the whole page, two statements.
    std::vector<SqlValue> range = {reports.front().summary.id, reports.back().summary.id};
    std::map<int64_t, StoredReport*> byId;
    for (StoredReport& r : reports) {
        byId[r.summary.id] = &r;
    }
    rows.clear();
    result = m_db->Exec(
        "SELECT report_id, module, size, sha256, repeat FROM report_dumps WHERE report_id "
        "BETWEEN $1 AND $2 ORDER BY report_id, module",
        range, &rows);
    for (const SqlRow& row : rows) {
        auto found = byId.find(row[0].Int());
        if (found != byId.end()) {
            found->second->dumps.push_back({row[1].bytes, static_cast<uint64_t>(row[2].Int()),
                                            row[3].bytes, row[4].Int() != 0});
        }
    }
    rows.clear();
    if (result == StoreResult::Ok) {
        result = m_db->Exec(
            "SELECT report_id, received FROM duplicates WHERE report_id BETWEEN $1 AND $2 "
            "ORDER BY report_id, received",
            range, &rows);
    }
    for (const SqlRow& row : rows) {
        auto found = byId.find(row[0].Int());
        if (found != byId.end()) {
            found->second->duplicateTimes.push_back(row[1].Int());
        }
    }
    return result;
}

StoreResult SqlStore::GetReport(int64_t id, StoredReport& report) {
    std::vector<StoredReport> reports;
    StoreResult result = ScanReports(ReportFilter(), id - 1, 1, reports);
    if (result != StoreResult::Ok) {
        return result;
    }
    if (reports.empty() || reports[0].summary.id != id) {
        return StoreResult::NotFound;
    }
    report = std::move(reports[0]);
    return StoreResult::Ok;
}

StoreResult SqlStore::MachineReports(const std::string& machineId,
                                     std::vector<ReportSummary>& reports) {
    reports.clear();
    // The newest kMachineReports, oldest first: the unknown machine has many.
    StoreResult result = Summaries(std::string("SELECT ") + kSummaryColumns +
                                       " FROM reports r WHERE r.machine_id = $1 "
                                       "ORDER BY r.received DESC, r.id DESC LIMIT $2",
                                   {machineId, static_cast<int64_t>(kMachineReports)}, reports);
    std::reverse(reports.begin(), reports.end());
    if (result == StoreResult::Ok && reports.empty()) {
        return StoreResult::NotFound;
    }
    return result;
}

StoreResult SqlStore::Daily(int64_t firstDay, int64_t lastDay, std::vector<DailyFigures>& days) {
    days.clear();
    for (int64_t day = firstDay; day <= lastDay; ++day) {
        DailyFigures figures;
        figures.day = day;
        days.push_back(figures);
    }
    std::vector<SqlRow> rows;
    StoreResult result = m_db->Exec(
        "SELECT day, sum(feedback), sum(crash), sum(threat), sum(damaged), sum(duplicates), "
        "sum(machines), sum(bytes) FROM daily WHERE day BETWEEN $1 AND $2 GROUP BY day",
        {firstDay, lastDay}, &rows);
    for (const SqlRow& row : rows) {
        int64_t day = row[0].Int();
        if (day < firstDay || day > lastDay) {
            continue;
        }
        DailyFigures& figures = days[day - firstDay];
        for (int kind = 0; kind < 4; ++kind) {
            figures.perKind[kind] = row[1 + kind].Int();
        }
        figures.duplicates = row[5].Int();
        figures.machines = row[6].Int();
        figures.bytes = row[7].Int();
    }
    return result;
}

StoreResult SqlStore::Breakdown(BreakdownBy by, int64_t firstDay, int64_t lastDay,
                                std::vector<BreakdownRow>& out) {
    out.clear();
    if (m_schemaVersion < 2) {
        return StoreResult::Ok;
    }
    std::vector<SqlRow> rows;
    StoreResult result;
    // The whole blocks of days inside the range are read from their block rows, the days
    // at its two ends from the day rows.
    const int64_t firstBlock = (firstDay + kBreakdownBlockDays - 1) / kBreakdownBlockDays;
    const int64_t lastBlock = (lastDay + 1) / kBreakdownBlockDays - 1;
    if (m_schemaVersion >= 5 && firstDay >= 0 && firstBlock <= lastBlock) {
        result = m_db->Exec(
            "SELECT value, sum(count), sum(repeats) FROM (SELECT value, count, repeats FROM "
            "breakdown WHERE dim = $1 AND day BETWEEN $2 AND $3 UNION ALL SELECT value, count, "
            "repeats FROM breakdown WHERE dim = $1 AND day BETWEEN $4 AND $5 UNION ALL SELECT "
            "value, count, repeats FROM breakdown WHERE dim = $6 AND day BETWEEN $7 AND $8) "
            "AS parts GROUP BY value",
            {static_cast<int>(by), firstDay, firstBlock * kBreakdownBlockDays - 1,
             (lastBlock + 1) * kBreakdownBlockDays, lastDay,
             static_cast<int>(by) + kBlockDimensionOffset, firstBlock, lastBlock},
            &rows);
    } else {
        // Over a long range, walking the value index and summing each value's days as they
        // come reads no more rows than the day index would and needs no sort; SQLite is
        // told so.
        const bool longRange = lastDay - firstDay >= kLongBreakdownDays;
        result = m_db->Exec(
            std::string("SELECT value, sum(count), sum(repeats) FROM breakdown") +
                (m_sqlite && longRange && m_schemaVersion >= 3 ? " INDEXED BY breakdown_by_value"
                                                               : "") +
                " WHERE dim = $1 AND day BETWEEN $2 AND $3 GROUP BY value",
            {static_cast<int>(by), firstDay, lastDay}, &rows);
    }
    for (const SqlRow& row : rows) {
        BreakdownRow item{row[0].bytes, row[1].Int(), row[2].Int()};
        if (item.count != 0 || item.repeats != 0) {
            out.push_back(std::move(item));
        }
    }
    std::sort(out.begin(), out.end(), [](const BreakdownRow& a, const BreakdownRow& b) {
        return a.count != b.count ? a.count > b.count : a.value < b.value;
    });
    return result;
}

StoreResult SqlStore::CrashFigures(int64_t firstDay, int64_t lastDay, std::vector<CrashDay>& days,
                                   std::vector<CrashVersion>& versions) {
    days.clear();
    versions.clear();
    if (m_schemaVersion < 2) {
        return StoreResult::Ok;
    }
    std::vector<SqlRow> rows;
    StoreResult result = m_db->Exec(
        "SELECT day, value, sum(count), sum(repeats) FROM breakdown WHERE dim = $1 AND day "
        "BETWEEN $2 AND $3 GROUP BY day, value ORDER BY day, value",
        {static_cast<int>(BreakdownBy::CrashModule), firstDay, lastDay}, &rows);
    for (const SqlRow& row : rows) {
        if (row[2].Int() != 0 || row[3].Int() != 0) {
            days.push_back({row[0].Int(), row[1].bytes, row[2].Int(), row[3].Int()});
        }
    }
    if (result != StoreResult::Ok) {
        return result;
    }
    // Per version: the range's crash reports, counted in their own index (time and version
    // of crash reports only), which SQLite is told to use over the wider kind index.
    rows.clear();
    const std::string crash = std::to_string(static_cast<int>(ReportKind::Crash));
    result = m_db->Exec(
        std::string("SELECT version, count(*) FROM reports") +
            (m_sqlite && m_schemaVersion >= 3 ? " INDEXED BY reports_crashes_by_time" : "") +
            " WHERE kind = " + crash + " AND received >= $1 AND received < $2 GROUP BY version",
        {firstDay * 86400, (lastDay + 1) * 86400}, &rows);
    for (const SqlRow& row : rows) {
        versions.push_back({row[0].bytes, row[1].Int()});
    }
    return result;
}

StoreResult SqlStore::Modules(std::vector<ModuleSummary>& modules) {
    modules.clear();
    std::vector<SqlRow> rows;
    StoreResult result =
        m_schemaVersion < 2
            ? m_db->Exec("SELECT DISTINCT module, 0 FROM module_fields ORDER BY module", {}, &rows)
            : m_db->Exec(
                  "SELECT value, sum(count) FROM breakdown WHERE dim = $1 GROUP BY value "
                  "ORDER BY value",
                  {AllTimeDimension(kModuleDimension)}, &rows);
    for (const SqlRow& row : rows) {
        if (row[1].Int() != 0 || m_schemaVersion < 2) {
            modules.push_back({row[0].bytes, row[1].Int()});
        }
    }
    return result;
}

StoreResult SqlStore::ModuleFields(const std::string& module, int64_t firstDay, int64_t lastDay,
                                   std::vector<ModuleField>& fields) {
    fields.clear();
    std::vector<SqlRow> rows;
    StoreResult result = m_db->Exec(
        "SELECT path, kind FROM module_fields WHERE module = $1 ORDER BY path", {module}, &rows);
    if (result != StoreResult::Ok) {
        return result;
    }
    if (rows.empty()) {
        return StoreResult::NotFound;
    }
    std::map<std::string, size_t> index;
    for (const SqlRow& row : rows) {
        index[row[0].bytes] = fields.size();
        fields.push_back({row[0].bytes, static_cast<FieldKind>(row[1].Int()), {}});
    }
    rows.clear();
    result = m_db->Exec(
        "SELECT path, day, sum(count), sum(sum), min(min), max(max) FROM field_days "
        "WHERE module = $1 AND day BETWEEN $2 AND $3 GROUP BY path, day ORDER BY path, day",
        {module, firstDay, lastDay}, &rows);
    // (field, day) -> its entry, for the text values below
    std::map<std::pair<size_t, int64_t>, ModuleFieldDay*> dayOf;
    for (const SqlRow& row : rows) {
        auto found = index.find(row[0].bytes);
        if (found == index.end() || row[2].Int() == 0) {
            continue;
        }
        ModuleField& field = fields[found->second];
        ModuleFieldDay day;
        day.day = row[1].Int();
        day.count = row[2].Int();
        day.sum = row[3].Int();
        day.min = row[4].Int();
        day.max = row[5].Int();
        field.days.push_back(day);
    }
    for (size_t i = 0; i < fields.size(); ++i) {
        for (ModuleFieldDay& day : fields[i].days) {
            dayOf[std::make_pair(i, day.day)] = &day;
        }
    }
    rows.clear();
    if (result == StoreResult::Ok) {
        result = m_db->Exec(
            "SELECT path, day, value, sum(count) FROM value_days WHERE module = $1 AND day "
            "BETWEEN $2 AND $3 GROUP BY path, day, value",
            {module, firstDay, lastDay}, &rows);
    }
    for (const SqlRow& row : rows) {
        auto found = index.find(row[0].bytes);
        if (found == index.end() || row[3].Int() <= 0) {
            continue;
        }
        auto day = dayOf.find(std::make_pair(found->second, row[1].Int()));
        if (day != dayOf.end()) {
            day->second->top.emplace_back(row[2].bytes, row[3].Int());
        }
    }
    for (auto& entry : dayOf) {
        auto& top = entry.second->top;
        std::sort(top.begin(), top.end(), [](const auto& a, const auto& b) {
            return a.second != b.second ? a.second > b.second : a.first < b.first;
        });
        if (top.size() > 10) {
            top.resize(10);
        }
    }
    return result;
}

StoreResult SqlStore::Totals(StoreTotals& totals) {
    totals = StoreTotals();
    std::vector<SqlRow> rows;
    StoreResult result = m_db->Exec(
        "SELECT sum(feedback), sum(crash), sum(threat), sum(damaged), sum(duplicates), "
        "sum(bytes), min(day), max(day) FROM daily",
        {}, &rows);
    if (result != StoreResult::Ok || rows.empty()) {
        return result;
    }
    for (int kind = 0; kind < 4; ++kind) {
        totals.perKind[kind] = rows[0][kind].Int();
        totals.reports += totals.perKind[kind];
    }
    totals.damaged = totals.perKind[static_cast<int>(ReportKind::Damaged)];
    totals.duplicates = rows[0][4].Int();
    totals.bytes = rows[0][5].Int();
    if (!rows[0][6].null) {
        totals.firstDay = rows[0][6].Int();
        totals.lastDay = rows[0][7].Int();
    }
    rows.clear();
    result = m_db->Exec("SELECT count(DISTINCT machine_id) FROM machine_days", {}, &rows);
    totals.machines = rows.empty() ? 0 : rows[0][0].Int();
    return result;
}

}  // namespace collector
