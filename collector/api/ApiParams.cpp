#include "api/ApiParams.h"

#include <time.h>

#include <algorithm>
#include <cstdio>

namespace collector {

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') {
        return (c | 0x20) - 'a' + 10;
    }
    return -1;
}

// %XX and, in a query, "+" for a space. False on a broken escape.
bool Decode(const std::string& text, bool query, std::string& out) {
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            int high = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
            int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
            if (high < 0 || low < 0) {
                return false;
            }
            out.push_back(static_cast<char>(high << 4 | low));
            i += 2;
        } else {
            out.push_back(query && text[i] == '+' ? ' ' : text[i]);
        }
    }
    return true;
}

bool ParseDecimal(const std::string& text, int64_t& value) {
    if (text.empty() || text.size() > 18 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    value = std::stoll(text);
    return true;
}

}  // namespace

ApiTarget ParseTarget(const std::string& target) {
    ApiTarget parsed;
    size_t question = target.find('?');
    std::string path = target.substr(0, question);
    size_t start = 1;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        std::string segment;
        if (!Decode(path.substr(start, end - start), false, segment)) {
            parsed.badParameter = "path";
        }
        parsed.segments.push_back(segment);
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    if (question == std::string::npos) {
        return parsed;
    }
    std::string query = target.substr(question + 1);
    size_t at = 0;
    while (at < query.size()) {
        size_t end = std::min(query.find('&', at), query.size());
        std::string pair = query.substr(at, end - at);
        at = end + 1;
        if (pair.empty()) {
            continue;
        }
        size_t equals = pair.find('=');
        std::string name, value;
        bool ok = Decode(pair.substr(0, equals), true, name);
        if (!ok ||
            !Decode(equals == std::string::npos ? "" : pair.substr(equals + 1), true, value) ||
            parsed.query.count(name) != 0) {
            parsed.badParameter = name.empty() ? "query" : name;
            continue;
        }
        parsed.query[name] = value;
    }
    return parsed;
}

std::string UnknownParameter(const ApiTarget& target, const std::vector<std::string>& allowed) {
    for (const auto& entry : target.query) {
        if (std::find(allowed.begin(), allowed.end(), entry.first) == allowed.end()) {
            return entry.first;
        }
    }
    return std::string();
}

bool ReadInteger(const ApiTarget& target, const std::string& name, int64_t low, int64_t high,
                 int64_t& value) {
    auto found = target.query.find(name);
    if (found == target.query.end()) {
        return true;
    }
    int64_t parsed = 0;
    if (!ParseDecimal(found->second, parsed) || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

bool ReadTime(const ApiTarget& target, const std::string& name, int64_t& value) {
    auto found = target.query.find(name);
    if (found == target.query.end()) {
        return true;
    }
    const std::string& text = found->second;
    struct tm fields = {};
    int consumed = 0;
    if (text.size() == 10) {
        if (sscanf(text.c_str(), "%4d-%2d-%2d%n", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
                   &consumed) != 3) {
            return false;
        }
    } else if (text.size() == 20 && text[10] == 'T' && text[19] == 'Z') {
        if (sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ%n", &fields.tm_year, &fields.tm_mon,
                   &fields.tm_mday, &fields.tm_hour, &fields.tm_min, &fields.tm_sec,
                   &consumed) != 6) {
            return false;
        }
    } else {
        return false;
    }
    if (consumed != static_cast<int>(text.size()) || fields.tm_mon < 1 || fields.tm_mon > 12 ||
        fields.tm_mday < 1 || fields.tm_mday > 31 || fields.tm_hour > 23 || fields.tm_min > 59 ||
        fields.tm_sec > 60) {
        return false;
    }
    int day = fields.tm_mday;
    fields.tm_year -= 1900;
    fields.tm_mon -= 1;
    value = timegm(&fields);
    // timegm moves 31 February on to March; such a date is not one.
    return fields.tm_mday == day;
}

bool ReadCursor(const ApiTarget& target, const std::string& name, ReportCursor& cursor) {
    auto found = target.query.find(name);
    if (found == target.query.end()) {
        return true;
    }
    const std::string& text = found->second;
    size_t dash = text.find('-', 1);
    bool negative = !text.empty() && text[0] == '-';
    if (dash == std::string::npos ||
        !ParseDecimal(text.substr(negative ? 1 : 0, dash - (negative ? 1 : 0)), cursor.received) ||
        !ParseDecimal(text.substr(dash + 1), cursor.id)) {
        return false;
    }
    cursor.received = negative ? -cursor.received : cursor.received;
    cursor.valid = true;
    return true;
}

bool ReadMachineId(const std::string& text) {
    return text.size() == 40 && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

std::string CursorText(const ReportCursor& cursor) {
    return std::to_string(cursor.received) + "-" + std::to_string(cursor.id);
}

std::string IsoTime(int64_t seconds) {
    time_t value = static_cast<time_t>(seconds);
    struct tm fields;
    char text[64];
    if (gmtime_r(&value, &fields) == nullptr || fields.tm_year + 1900 > 9999 ||
        fields.tm_year + 1900 < 0) {
        return std::to_string(seconds);
    }
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &fields);
    return text;
}

std::string IsoDay(int64_t day) {
    return IsoTime(day * 86400).substr(0, 10);
}

}  // namespace collector
