#include "store/ModuleFields.h"

namespace collector {

void Rollup::AddField(const std::string& module, int64_t day, const std::string& path,
                      int64_t integer, int sign) {
    FieldDelta& delta = fields[std::make_tuple(module, day, path)];
    bool first = delta.count == 0 && !delta.hasRange;
    delta.count += sign;
    delta.sum += sign * integer;
    if (sign > 0) {
        delta.min = first || integer < delta.min ? integer : delta.min;
        delta.max = first || integer > delta.max ? integer : delta.max;
        delta.hasRange = true;
    }
}

}  // namespace collector
