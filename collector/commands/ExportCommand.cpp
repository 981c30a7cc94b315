// export: every report that matches, oldest id first, one JSON object a line.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "Commands.h"
#include "api/ApiParams.h"
#include "commands/CommandSupport.h"
#include "report/ReportReader.h"

namespace collector {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kPage = 1000;
const char kUsage[] = "export [--since DATE] [--until DATE] [--kind KIND] [--machine ID]";

Json ExportObject(const StoredReport& r) {
    const ReportSummary& s = r.summary;
    Json modules = Json::array(), dumps = Json::array(), duplicates = Json::array();
    for (const std::string& module : s.modules) {
        modules.push_back(module);
    }
    for (const StoredDump& dump : r.dumps) {
        dumps.push_back({{"module", dump.module},
                         {"size", dump.size},
                         {"sha256", dump.sha256},
                         {"repeat", dump.repeat}});
    }
    for (int64_t time : r.duplicateTimes) {
        duplicates.push_back(IsoTime(time));
    }
    // The module data is the report's own JSON mapping already; kept as text when it is
    // not JSON, so that a line is always one valid object.
    Json moduleData =
        r.moduleDataJson.empty() ? Json() : Json::parse(r.moduleDataJson, nullptr, false);
    if (moduleData.is_discarded()) {
        moduleData = r.moduleDataJson;
    }
    return Json{{"id", s.id},
                {"received", IsoTime(s.received)},
                {"client_address", r.clientAddress},
                {"kind", KindName(s.kind)},
                {"damaged_reason", s.kind == ReportKind::Damaged ? Json(r.damagedReason) : Json()},
                {"machine_id", s.machineId},
                {"unknown_machine", s.machineId == kUnknownMachineId},
                {"customer_id", s.customerId},
                {"version", s.version},
                {"os",
                 {{"type", r.osType},
                  {"name", r.osName},
                  {"major", r.osMajor},
                  {"minor", r.osMinor},
                  {"build", r.osBuild},
                  {"details", r.osVersionDetails},
                  {"locale", r.osLocale}}},
                {"period_start", s.hasPeriod ? Json(IsoTime(s.periodStart)) : Json()},
                {"period_end", s.hasPeriod ? Json(IsoTime(s.periodEnd)) : Json()},
                {"modules", modules},
                {"size", s.size},
                {"sha256", s.sha256},
                {"module_data", moduleData},
                {"crash_dumps", dumps},
                {"threat_incident", r.hasThreat ? Json(r.threatIncident) : Json()},
                {"duplicates", duplicates}};
}

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
    std::unique_ptr<Store> store = OpenForCommand(settings.database);
    if (!store) {
        return 1;
    }
    static char buffer[1 << 20];
    setvbuf(stdout, buffer, _IOFBF, sizeof(buffer));
    int64_t afterId = 0;
    std::string line, json, reason;
    for (;;) {
        std::vector<StoredReport> page;
        StoreResult result = store->ScanReports(filter, afterId, kPage, page);
        if (result != StoreResult::Ok) {
            CommandFailed("export stopped: the store could not be read");
            return 1;
        }
        if (page.empty()) {
            break;
        }
        for (const StoredReport& report : page) {
            line = ExportObject(report).dump(-1, ' ', false, Json::error_handler_t::replace);
            // The report in the shared JSON form goes in as that writer wrote it.
            line.pop_back();
            line += ",\"report\":";
            line += ReportToJson(report.body, json, reason) ? json : "null";
            line += "}\n";
            if (fwrite(line.data(), 1, line.size(), stdout) != line.size()) {
                CommandFailed("export stopped: cannot write");
                return 1;
            }
        }
        afterId = page.back().summary.id;
    }
    if (fflush(stdout) != 0) {
        CommandFailed("export stopped: cannot write");
        return 1;
    }
    return 0;
}

}  // namespace collector
