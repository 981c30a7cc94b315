// Module data turned into fields (FieldValue, in Report.h).
#pragma once

#include <functional>
#include <string>

#include "Bencode.h"
#include "report/Report.h"

namespace collector {

// Calls `visit` for every field of `moduleDataJson` (module name -> dictionary). False
// when the text is not JSON or not an object of objects; nothing is visited then.
bool ForEachModuleField(const std::string& moduleDataJson,
                        const std::function<void(const FieldValue&)>& visit);

// The same fields in the same order, from the tree whose JSON form (bencodejson::ToJson)
// that text is: what the validator finds without reading back the JSON it has just written.
bool ForEachModuleField(const CBencodeDictionary& moduleData,
                        const std::function<void(const FieldValue&)>& visit);

}  // namespace collector
