// What must hold of any body the collector's validator is given (the report fuzz target
// checks it for every input; the validator's test replays the kept inputs through it):
// - the body kept is the input, and its SHA-256 is that of the kept bytes;
// - the same report zipped validates exactly as it does plain;
// - a damaged report says why and keeps nothing derived from its content;
// - a valid one is classified by its content, its dumps are what their hashes say, its
//   module names are sorted and unique, its JSON form is made, and the module fields found
//   in its tree are those its JSON form gives.
#pragma once

#include <zlib.h>

#include <string>

#include "report/BodyDecoding.h"
#include "report/ModuleDataFields.h"
#include "report/ReportReader.h"
#include "report/ReportValidator.h"

namespace reportfuzz {

inline std::string Zip(const std::string& bytes) {
    uLongf size = compressBound(bytes.size());
    std::string zipped(size, '\0');
    compress(reinterpret_cast<Bytef*>(&zipped[0]), &size,
             reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    zipped.resize(size);
    return zipped;
}

inline bool SameFields(const std::vector<collector::FieldValue>& a,
                       const std::vector<collector::FieldValue>& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].module != b[i].module || a[i].path != b[i].path || a[i].kind != b[i].kind ||
            a[i].integer != b[i].integer || a[i].text != b[i].text) {
            return false;
        }
    }
    return true;
}

// The first broken invariant for "data=" and `input` posted, or "".
inline std::string CheckReport(const std::string& input) {
    using collector::ReportKind;
    const collector::ValidatedReport plain = collector::ValidateBody("data=" + input, false);
    if (plain.body != input || plain.sha256 != collector::Sha256Hex(input)) {
        return "the body kept or its SHA-256 is not the bytes after data=";
    }
    const collector::ValidatedReport zipped = collector::ValidateBody("data=" + Zip(input), true);
    if (zipped.body != plain.body || zipped.kind != plain.kind ||
        zipped.damagedReason != plain.damagedReason ||
        zipped.moduleDataJson != plain.moduleDataJson || zipped.modules != plain.modules) {
        return "zipped, the report validates differently";
    }
    if (plain.kind == ReportKind::Damaged) {
        if (plain.damagedReason.empty()) {
            return "a damaged report without a reason";
        }
        if (!plain.modules.empty() || !plain.crashDumps.empty() || !plain.moduleDataJson.empty() ||
            plain.hasThreat) {
            return "a damaged report keeps what its content gave";
        }
        return std::string();
    }
    if (!plain.damagedReason.empty() || plain.machineId.size() != 40) {
        return "a valid report with a reason, or without a machine id";
    }
    if ((plain.kind == ReportKind::Crash) != !plain.crashDumps.empty() ||
        (plain.kind != ReportKind::Crash &&
         (plain.kind == ReportKind::Threat) != plain.hasThreat)) {
        return "the kind does not follow the content";
    }
    for (const collector::CrashDump& dump : plain.crashDumps) {
        if (dump.size != dump.bytes.size() || dump.sha256 != collector::Sha256Hex(dump.bytes)) {
            return "a dump's size or SHA-256 is not its bytes'";
        }
    }
    for (size_t i = 1; i < plain.modules.size(); ++i) {
        if (!(plain.modules[i - 1] < plain.modules[i])) {
            return "module names not sorted and unique";
        }
    }
    std::vector<collector::FieldValue> fromJson;
    if (!plain.moduleDataJson.empty() &&
        !collector::ForEachModuleField(
            plain.moduleDataJson,
            [&fromJson](const collector::FieldValue& field) { fromJson.push_back(field); })) {
        fromJson.clear();
    }
    if (!SameFields(plain.moduleFields, fromJson)) {
        return "the module fields found in the tree are not those its JSON gives";
    }
    std::string json;
    std::string reason;
    if (!collector::ReportToJson(plain.body, json, reason) || json.empty()) {
        return "a valid report has no JSON form";
    }
    return std::string();
}

}  // namespace reportfuzz
