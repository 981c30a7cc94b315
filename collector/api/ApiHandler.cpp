// The JSON API: routing, parameters checked before the store is asked, answers built with
// nlohmann-json. Every figure comes from the store's rollups or indexes.
#include "api/ApiHandler.h"

#include <nlohmann/json.hpp>

#include <map>

#include "HostClock.h"
#include "api/ApiParams.h"
#include "report/ReportReader.h"
#include "store/Store.h"
#include "store/StoreLog.h"

namespace collector {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kDefaultLimit = 100;
constexpr int kMaxLimit = 1000;
constexpr int64_t kMaxDays = 3660;
constexpr int64_t kExactInJson = int64_t(1) << 53;

// Integers a JavaScript reader would round are given as text.
Json Integer(int64_t value) {
    if (value > kExactInJson || value < -kExactInJson) {
        return Json(std::to_string(value));
    }
    return Json(value);
}

ApiAnswer JsonAnswer(int status, const Json& body) {
    ApiAnswer answer;
    answer.status = status;
    // Texts from reports may hold bytes that are not UTF-8: they are shown replaced.
    answer.body = body.dump(-1, ' ', false, Json::error_handler_t::replace);
    answer.headers.emplace_back("Cache-Control", "no-store");
    return answer;
}

ApiAnswer Error(int status, const std::string& message, const std::string& parameter = "") {
    Json body = {{"error", message}};
    if (!parameter.empty()) {
        body["parameter"] = parameter;
    }
    return JsonAnswer(status, body);
}

ApiAnswer BadParameter(const std::string& name) {
    return Error(400, "bad parameter: " + name, name);
}

ApiAnswer StoreFailure(StoreResult result, const std::string& what) {
    if (result == StoreResult::NotFound) {
        return Error(404, "no such " + what);
    }
    ApiAnswer answer = Error(503, "storage unavailable");
    answer.headers.emplace_back("Retry-After", "5");
    return answer;
}

ApiAnswer Download(std::string bytes, const std::string& fileName) {
    ApiAnswer answer;
    answer.contentType = "application/octet-stream";
    answer.body = std::move(bytes);
    answer.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + fileName + "\"");
    answer.headers.emplace_back("X-Content-Type-Options", "nosniff");
    return answer;
}

Json SummaryJson(const ReportSummary& s) {
    Json modules = Json::array();
    for (const std::string& module : s.modules) {
        modules.push_back(module);
    }
    return Json{{"id", Integer(s.id)},
                {"received", IsoTime(s.received)},
                {"machine_id", s.machineId},
                {"unknown_machine", s.machineId == kUnknownMachineId},
                {"customer_id", s.customerId},
                {"version", s.version},
                {"kind", KindName(s.kind)},
                {"period_start", s.hasPeriod ? Json(IsoTime(s.periodStart)) : Json()},
                {"period_end", s.hasPeriod ? Json(IsoTime(s.periodEnd)) : Json()},
                {"modules", modules},
                {"size", Integer(static_cast<int64_t>(s.size))},
                {"sha256", s.sha256}};
}

// The last `days` days up to today on the collector's clock.
void DayRange(int64_t days, int64_t& first, int64_t& last) {
    last = static_cast<int64_t>(GetCurrentTimeSeconds()) / 86400;
    first = last - days + 1;
}

// For endpoints whose only parameter is `days` (default `days` as given): the range it
// names, or the name of the first bad parameter.
std::string OnlyDays(const ApiTarget& target, int64_t& days, int64_t& first, int64_t& last) {
    std::string unknown = UnknownParameter(target, {"days"});
    if (!unknown.empty() || !ReadInteger(target, "days", 1, kMaxDays, days)) {
        return unknown.empty() ? "days" : unknown;
    }
    DayRange(days, first, last);
    return "";
}

bool ReadId(const std::string& text, int64_t& id) {
    ApiTarget fake;
    fake.query["id"] = text;
    id = -1;
    return ReadInteger(fake, "id", 1, INT64_MAX, id) && id > 0;
}

ApiAnswer ListReports(Store& store, const ApiTarget& target) {
    std::string unknown = UnknownParameter(target, {"kind", "machine", "customer", "version",
                                                    "module", "since", "until", "limit", "after"});
    if (!unknown.empty()) {
        return BadParameter(unknown);
    }
    ReportFilter filter;
    auto text = [&target](const char* name) {
        auto found = target.query.find(name);
        return found == target.query.end() ? std::string() : found->second;
    };
    if (!text("kind").empty()) {
        filter.hasKind = ParseKind(text("kind"), filter.kind);
        if (!filter.hasKind) {
            return BadParameter("kind");
        }
    }
    filter.machineId = text("machine");
    if (!filter.machineId.empty() && !ReadMachineId(filter.machineId)) {
        return BadParameter("machine");
    }
    filter.customerId = text("customer");
    filter.version = text("version");
    filter.module = text("module");
    int64_t limit = kDefaultLimit;
    ReportCursor after;
    if (!ReadTime(target, "since", filter.since)) {
        return BadParameter("since");
    }
    if (!ReadTime(target, "until", filter.until)) {
        return BadParameter("until");
    }
    if (!ReadInteger(target, "limit", 1, kMaxLimit, limit)) {
        return BadParameter("limit");
    }
    if (!ReadCursor(target, "after", after)) {
        return BadParameter("after");
    }
    std::vector<ReportSummary> reports;
    ReportCursor next;
    StoreResult result = store.ListReports(filter, after, static_cast<int>(limit), reports, next);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "reports");
    }
    Json list = Json::array();
    for (const ReportSummary& s : reports) {
        list.push_back(SummaryJson(s));
    }
    return JsonAnswer(200,
                      {{"reports", list}, {"next", next.valid ? Json(CursorText(next)) : Json()}});
}

ApiAnswer OneReport(Store& store, const ApiTarget& target) {
    int64_t id = 0;
    if (!ReadId(target.segments[2], id)) {
        return Error(404, "no such report");
    }
    StoredReport report;
    StoreResult result = store.GetReport(id, report);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "report");
    }
    const size_t depth = target.segments.size();
    if (depth == 4 && target.segments[3] == "raw") {
        return Download(std::move(report.body), "report-" + std::to_string(id) + ".cef");
    }
    if (depth == 5 && target.segments[3] == "crash") {
        // The file name is the collector's: a module name comes from the report.
        for (size_t i = 0; i < report.dumps.size(); ++i) {
            if (report.dumps[i].module == target.segments[4]) {
                std::string bytes;
                result = store.GetDump(id, target.segments[4], bytes);
                if (result != StoreResult::Ok) {
                    return StoreFailure(result, "crash dump");
                }
                return Download(std::move(bytes), "report-" + std::to_string(id) + "-crash-" +
                                                      std::to_string(i + 1) + ".dmp");
            }
        }
        return Error(404, "no such crash dump");
    }
    if (depth != 3) {
        return Error(404, "no such resource");
    }
    Json body = SummaryJson(report.summary);
    Json dumps = Json::array();
    for (const StoredDump& dump : report.dumps) {
        dumps.push_back({{"module", dump.module},
                         {"size", Integer(static_cast<int64_t>(dump.size))},
                         {"sha256", dump.sha256},
                         {"repeat", dump.repeat}});
    }
    body["os"] = {{"type", report.osType},
                  {"name", report.osName},
                  {"major", Integer(report.osMajor)},
                  {"minor", Integer(report.osMinor)},
                  {"build", Integer(report.osBuild)},
                  {"details", report.osVersionDetails},
                  {"locale", report.osLocale}};
    body["client_address"] = report.clientAddress;
    body["damaged_reason"] =
        report.summary.kind == ReportKind::Damaged ? Json(report.damagedReason) : Json();
    body["crash_dumps"] = dumps;
    body["threat_incident"] = report.hasThreat ? Json(report.threatIncident) : Json();
    Json duplicates = Json::array();
    for (int64_t time : report.duplicateTimes) {
        duplicates.push_back(IsoTime(time));
    }
    body["duplicates"] = duplicates;
    ApiAnswer answer = JsonAnswer(200, body);
    // The whole report in the shared JSON form, which keeps bytes that are not UTF-8 (as
    // \udcXX keys and base64 objects): its text goes in as written. Null when damaged.
    std::string json, reason;
    answer.body.pop_back();
    answer.body += ",\"report\":";
    answer.body += ReportToJson(report.body, json, reason) ? json : "null";
    answer.body += "}";
    return answer;
}

ApiAnswer Daily(Store& store, const ApiTarget& target) {
    int64_t days = 30, first = 0, last = 0;
    std::string bad = OnlyDays(target, days, first, last);
    if (!bad.empty()) {
        return BadParameter(bad);
    }
    std::vector<DailyFigures> figures;
    StoreResult result = store.Daily(first, last, figures);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "figures");
    }
    Json list = Json::array();
    for (const DailyFigures& d : figures) {
        list.push_back({{"day", IsoDay(d.day)},
                        {"feedback", Integer(d.perKind[0])},
                        {"crash", Integer(d.perKind[1])},
                        {"threat", Integer(d.perKind[2])},
                        {"damaged", Integer(d.perKind[3])},
                        {"duplicates", Integer(d.duplicates)},
                        {"machines", Integer(d.machines)},
                        {"bytes", Integer(d.bytes)}});
    }
    return JsonAnswer(200, {{"days", list}});
}

ApiAnswer Breakdown(Store& store, const ApiTarget& target) {
    std::string unknown = UnknownParameter(target, {"by", "days"});
    if (!unknown.empty()) {
        return BadParameter(unknown);
    }
    BreakdownBy by;
    auto found = target.query.find("by");
    if (found == target.query.end() || !ParseBreakdownBy(found->second, by)) {
        return BadParameter("by");
    }
    int64_t days = 30;
    if (!ReadInteger(target, "days", 1, kMaxDays, days)) {
        return BadParameter("days");
    }
    int64_t first = 0, last = 0;
    DayRange(days, first, last);
    std::vector<BreakdownRow> rows;
    StoreResult result = store.Breakdown(by, first, last, rows);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "figures");
    }
    Json values = Json::array();
    for (const BreakdownRow& row : rows) {
        Json item = {{"value", row.value}, {"count", Integer(row.count)}};
        if (by == BreakdownBy::CrashModule) {
            item["repeats"] = Integer(row.repeats);
        }
        values.push_back(item);
    }
    return JsonAnswer(200, {{"by", found->second}, {"days", days}, {"values", values}});
}

// Crash dumps per day and module, new apart from repeats, and crash reports per version:
// what the crash page charts, from the rollups and an index of crash reports.
ApiAnswer Crashes(Store& store, const ApiTarget& target) {
    int64_t days = 30, first = 0, last = 0;
    std::string bad = OnlyDays(target, days, first, last);
    if (!bad.empty()) {
        return BadParameter(bad);
    }
    std::vector<CrashDay> perDay;
    std::vector<CrashVersion> perVersion;
    StoreResult result = store.CrashFigures(first, last, perDay, perVersion);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "figures");
    }
    Json dayList = Json::array(), versionList = Json::array();
    for (const CrashDay& d : perDay) {
        dayList.push_back({{"day", IsoDay(d.day)},
                           {"module", d.module},
                           {"count", Integer(d.fresh + d.repeats)},
                           {"new", Integer(d.fresh)},
                           {"repeats", Integer(d.repeats)}});
    }
    for (const CrashVersion& v : perVersion) {
        versionList.push_back({{"version", v.version}, {"count", Integer(v.count)}});
    }
    return JsonAnswer(200, {{"days", days},
                            {"first_day", IsoDay(first)},
                            {"per_day", dayList},
                            {"per_version", versionList}});
}

ApiAnswer Modules(Store& store, const ApiTarget& target) {
    std::string unknown = UnknownParameter(target, {});
    if (!unknown.empty()) {
        return BadParameter(unknown);
    }
    std::vector<ModuleSummary> modules;
    StoreResult result = store.Modules(modules);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "modules");
    }
    Json list = Json::array();
    for (const ModuleSummary& module : modules) {
        list.push_back({{"name", module.name}, {"reports", Integer(module.reports)}});
    }
    return JsonAnswer(200, {{"modules", list}});
}

ApiAnswer Fields(Store& store, const ApiTarget& target) {
    int64_t days = 30, first = 0, last = 0;
    std::string bad = OnlyDays(target, days, first, last);
    if (!bad.empty()) {
        return BadParameter(bad);
    }
    std::vector<ModuleField> fields;
    StoreResult result = store.ModuleFields(target.segments[2], first, last, fields);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "module");
    }
    Json list = Json::array();
    for (const ModuleField& field : fields) {
        Json perDay = Json::array();
        for (const ModuleFieldDay& day : field.days) {
            Json item = {{"day", IsoDay(day.day)}, {"count", Integer(day.count)}};
            if (field.kind == FieldKind::Integer) {
                item["sum"] = Integer(day.sum);
                item["min"] = Integer(day.min);
                item["max"] = Integer(day.max);
                item["mean"] = day.count ? static_cast<double>(day.sum) / day.count : 0.0;
            } else {
                Json top = Json::array();
                for (const auto& value : day.top) {
                    top.push_back({{"value", value.first}, {"count", Integer(value.second)}});
                }
                item["top"] = top;
            }
            perDay.push_back(item);
        }
        list.push_back({{"field", field.path},
                        {"kind", field.kind == FieldKind::Integer ? "integer" : "text"},
                        {"days", perDay}});
    }
    return JsonAnswer(200, {{"module", target.segments[2]},
                            {"max_depth", kFieldMaxDepth},
                            {"max_fields", kMaxFieldsPerModule},
                            {"max_values", kMaxValuesPerField},
                            {"fields", list}});
}

ApiAnswer Machine(Store& store, const ApiTarget& target) {
    std::string unknown = UnknownParameter(target, {});
    if (!unknown.empty()) {
        return BadParameter(unknown);
    }
    const std::string& id = target.segments[2];
    if (!ReadMachineId(id)) {
        return Error(404, "no such machine");
    }
    std::vector<ReportSummary> reports;
    StoreResult result = store.MachineReports(id, reports);
    if (result != StoreResult::Ok) {
        return StoreFailure(result, "machine");
    }
    // Versions and systems over time: each run of reports with the same value.
    Json list = Json::array(), versions = Json::array(), systems = Json::array();
    auto extend = [](Json& runs, const char* key, const std::string& value, int64_t time) {
        if (runs.empty() || runs.back()[key] != value) {
            runs.push_back({{key, value}, {"first", IsoTime(time)}, {"last", IsoTime(time)}});
        } else {
            runs.back()["last"] = IsoTime(time);
        }
    };
    for (const ReportSummary& s : reports) {
        list.push_back(SummaryJson(s));
        if (s.kind == ReportKind::Damaged) {
            continue;
        }
        extend(versions, "version", s.version, s.received);
        extend(systems, "os", s.osName + " " + s.osVersion, s.received);
    }
    return JsonAnswer(200, {{"machine_id", id},
                            {"unknown_machine", id == kUnknownMachineId},
                            {"versions", versions},
                            {"os", systems},
                            {"reports", list}});
}

}  // namespace

ApiAnswer HandleApiRequest(Store& store, const ApiRequest& request) {
    ApiTarget target = ParseTarget(request.target);
    const auto& s = target.segments;
    if (s.empty() || s[0] != "api") {
        return Error(404, "no such resource");
    }
    if (request.method != "GET" && request.method != "HEAD") {
        ApiAnswer answer = Error(405, "only GET");
        answer.headers.emplace_back("Allow", "GET, HEAD");
        return answer;
    }
    if (!target.badParameter.empty()) {
        return BadParameter(target.badParameter);
    }
    const size_t n = s.size();
    if (n == 2 && s[1] == "reports") {
        return ListReports(store, target);
    }
    if (n >= 3 && s[1] == "reports") {
        return OneReport(store, target);
    }
    if (n == 3 && s[1] == "stats" && s[2] == "daily") {
        return Daily(store, target);
    }
    if (n == 3 && s[1] == "stats" && s[2] == "breakdown") {
        return Breakdown(store, target);
    }
    if (n == 3 && s[1] == "stats" && s[2] == "crashes") {
        return Crashes(store, target);
    }
    if (n == 2 && s[1] == "modules") {
        return Modules(store, target);
    }
    if (n == 4 && s[1] == "modules" && s[3] == "fields") {
        return Fields(store, target);
    }
    if (n == 3 && s[1] == "machines") {
        return Machine(store, target);
    }
    return Error(404, "no such resource");
}

}  // namespace collector
