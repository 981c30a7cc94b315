#include "report/ModuleDataFields.h"

#include <nlohmann/json.hpp>

namespace collector {

namespace {

using Json = nlohmann::json;

void Visit(const std::string& module, const std::string& path, const Json& value, int depth,
           const std::function<void(const FieldValue&)>& visit) {
    if (value.is_object() && depth < kFieldMaxDepth) {
        for (auto item = value.begin(); item != value.end(); ++item) {
            Visit(module, path.empty() ? item.key() : path + "." + item.key(), item.value(),
                  depth + 1, visit);
        }
        return;
    }
    if (value.is_array() && depth < kFieldMaxDepth) {
        for (const Json& item : value) {
            Visit(module, path + "[]", item, depth + 1, visit);
        }
        return;
    }
    FieldValue field;
    field.module = module;
    field.path = path;
    if (value.is_number_integer() && !value.is_number_unsigned()) {
        field.integer = value.get<int64_t>();
    } else if (value.is_number_unsigned() && value.get<uint64_t>() <= INT64_MAX) {
        field.integer = static_cast<int64_t>(value.get<uint64_t>());
    } else {
        field.kind = FieldKind::Text;
        field.text = value.is_string() ? value.get<std::string>()
                                       : value.dump(-1, ' ', false, Json::error_handler_t::replace);
        if (field.text.size() > static_cast<size_t>(kMaxValueLength)) {
            field.text.resize(kMaxValueLength);
        }
    }
    visit(field);
}

}  // namespace

bool ForEachModuleField(const std::string& moduleDataJson,
                        const std::function<void(const FieldValue&)>& visit) {
    Json root = Json::parse(moduleDataJson, nullptr, false);
    if (root.is_discarded() || !root.is_object()) {
        return false;
    }
    for (auto module = root.begin(); module != root.end(); ++module) {
        if (!module.value().is_object()) {
            return false;
        }
    }
    for (auto module = root.begin(); module != root.end(); ++module) {
        Visit(module.key(), std::string(), module.value(), 0, visit);
    }
    return true;
}

}  // namespace collector
