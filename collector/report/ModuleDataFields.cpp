#include "report/ModuleDataFields.h"

#include <nlohmann/json.hpp>
#include <vector>

#include "BencodeJson.h"

namespace collector {

namespace {

using Json = nlohmann::json;

void CutToLength(std::string& text) {
    if (text.size() > static_cast<size_t>(kMaxValueLength)) {
        text.resize(kMaxValueLength);
    }
}

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
        CutToLength(field.text);
    }
    visit(field);
}

// The text a field beyond the depth limit gets: the JSON of its value, as the JSON library
// writes it once it has read the value's JSON form.
std::string JsonText(const CBencode& value) {
    return Json::parse(bencodejson::ToJson(value), nullptr, false)
        .dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The JSON form writes a key that is not UTF-8 with lone-surrogate escapes, which no JSON
// reader takes: module data with such a key anywhere has no fields.
bool KeysAreUtf8(const CBencode& root) {
    std::vector<const CBencode*> pending{&root};
    while (!pending.empty()) {
        const CBencode* value = pending.back();
        pending.pop_back();
        if (value == nullptr) {
            continue;
        }
        if (value->GetType() == CBencode::eBencodeList) {
            const auto& items = static_cast<const CBencodeList*>(value)->Items();
            pending.insert(pending.end(), items.begin(), items.end());
        } else if (value->GetType() == CBencode::eBencodeDictionary) {
            for (const auto& entry : static_cast<const CBencodeDictionary*>(value)->Entries()) {
                if (!bencodejson::IsValidUtf8(entry.first.data(), entry.first.size())) {
                    return false;
                }
                pending.push_back(entry.second);
            }
        }
    }
    return true;
}

// Visit's twin on the tree of which the JSON is the form: a string that is not UTF-8 is
// {"base64": ...} there, and a missing value null.
void VisitTree(const std::string& module, const std::string& path, const CBencode* value, int depth,
               const std::function<void(const FieldValue&)>& visit) {
    FieldValue field;
    field.module = module;
    field.path = path;
    field.kind = FieldKind::Text;
    if (value == nullptr) {
        field.text = "null";
        visit(field);
        return;
    }
    const CBencode::EContentType type = value->GetType();
    if (type == CBencode::eBencodeDictionary && depth < kFieldMaxDepth) {
        for (const auto& entry : static_cast<const CBencodeDictionary*>(value)->Entries()) {
            VisitTree(module, path.empty() ? entry.first : path + "." + entry.first, entry.second,
                      depth + 1, visit);
        }
        return;
    }
    if (type == CBencode::eBencodeList && depth < kFieldMaxDepth) {
        for (const CBencode* item : static_cast<const CBencodeList*>(value)->Items()) {
            VisitTree(module, path + "[]", item, depth + 1, visit);
        }
        return;
    }
    long long integer = 0;
    if (type == CBencode::eBencodeInteger && value->Get(integer)) {
        field.kind = FieldKind::Integer;
        field.integer = integer;
    } else if (type != CBencode::eBencodeString) {
        field.text = JsonText(*value);
    } else if (value->Get(field.text) &&
               !bencodejson::IsValidUtf8(field.text.data(), field.text.size())) {
        if (depth < kFieldMaxDepth) {
            field.path = path.empty() ? "base64" : path + ".base64";
            field.text = bencodejson::Base64(field.text);
        } else {
            field.text = JsonText(*value);  // {"base64":"..."}
        }
    }
    CutToLength(field.text);
    visit(field);
}

}  // namespace

bool ForEachModuleField(const CBencodeDictionary& moduleData,
                        const std::function<void(const FieldValue&)>& visit) {
    for (const auto& module : moduleData.Entries()) {
        if (module.second == nullptr || module.second->GetType() != CBencode::eBencodeDictionary) {
            return false;
        }
    }
    if (!KeysAreUtf8(moduleData)) {
        return false;
    }
    for (const auto& module : moduleData.Entries()) {
        VisitTree(module.first, std::string(), module.second, 0, visit);
    }
    return true;
}

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
