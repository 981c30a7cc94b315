// The JSON API's request side: the target split into path segments and query parameters,
// each parameter checked, and the forms times take in answers.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "store/Store.h"

namespace collector {

struct ApiTarget {
    std::vector<std::string> segments;  // percent-decoded, "/api/reports/7" -> api, reports, 7
    std::map<std::string, std::string> query;  // percent-decoded; a repeated name is an error
    std::string badParameter;                  // set when the query could not be read
};

ApiTarget ParseTarget(const std::string& target);

// Each reader takes a parameter from `query` when present, and returns false when its
// value is bad; the caller answers 400 naming the parameter. `allowed` lists every
// parameter an endpoint accepts; UnknownParameter gives the first other one, or "".
std::string UnknownParameter(const ApiTarget& target, const std::vector<std::string>& allowed);
bool ReadInteger(const ApiTarget& target, const std::string& name, int64_t low, int64_t high,
                 int64_t& value);
// A date (YYYY-MM-DD, midnight UTC) or a time (YYYY-MM-DDTHH:MM:SSZ) as UNIX seconds.
bool ReadTime(const ApiTarget& target, const std::string& name, int64_t& value);
bool ReadCursor(const ApiTarget& target, const std::string& name, ReportCursor& cursor);
bool ReadMachineId(const std::string& text);

std::string CursorText(const ReportCursor& cursor);
// ISO 8601 UTC: "2026-11-26T00:32:45Z"; a day: "2026-11-26".
std::string IsoTime(int64_t seconds);
std::string IsoDay(int64_t day);

}  // namespace collector
