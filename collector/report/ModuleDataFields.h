// Module data turned into fields (FieldValue, in Report.h).
#pragma once

#include <functional>
#include <string>

#include "report/Report.h"

namespace collector {

// Calls `visit` for every field of `moduleDataJson` (module name -> dictionary). False
// when the text is not JSON or not an object of objects; nothing is visited then.
bool ForEachModuleField(const std::string& moduleDataJson,
                        const std::function<void(const FieldValue&)>& visit);

}  // namespace collector
