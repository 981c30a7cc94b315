// The rollups a batch adds to the store, module fields among them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>

#include "report/ModuleDataFields.h"
#include "store/Store.h"

namespace collector {

struct DailyDelta {
    int64_t perKind[4] = {0, 0, 0, 0};
    int64_t duplicates = 0, machines = 0, bytes = 0;
};

struct FieldDelta {
    int64_t count = 0, sum = 0;
    bool hasRange = false;  // min and max are known (never when values were taken away)
    int64_t min = 0, max = 0;
};

// What one transaction adds to (or, negative, takes from) the rollups.
struct Rollup {
    std::map<int64_t, DailyDelta> daily;
    // (dimension, day, value) -> (count, repeats)
    std::map<std::tuple<int, int64_t, std::string>, std::pair<int64_t, int64_t>> breakdown;
    // (module, day, path)
    std::map<std::tuple<std::string, int64_t, std::string>, FieldDelta> fields;
    // (module, day, path, value) -> count
    std::map<std::tuple<std::string, int64_t, std::string, std::string>, int64_t> values;

    void AddField(const std::string& module, int64_t day, const std::string& path, int64_t integer,
                  int sign);
};

// The UTC day of UNIX time `seconds` (floor division, so times before 1970 work too).
inline int64_t DayOf(int64_t seconds) {
    return seconds >= 0 ? seconds / 86400 : -((-seconds + 86399) / 86400);
}

}  // namespace collector
