// A report as the collector keeps it: what the validator makes of one posted body, and
// what the store writes in one row (plus its dumps, module names and fields).
//
// Ownership: plain values. A ValidatedReport is made on a connection's thread, moved into
// the committer's batch and dropped once the batch is committed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace collector {

// What a report is, told apart by its content. Damaged bodies are kept too.
enum class ReportKind { Feedback = 0, Crash = 1, Threat = 2, Damaged = 3 };

// "feedback", "crash", "threat", "damaged".
const char* KindName(ReportKind kind);
// The kind named `text`; false when it names none.
bool ParseKind(const std::string& text, ReportKind& kind);

// The shared machine id a client sends when it cannot read its own: many machines have it,
// so it never counts as one machine.
constexpr const char kUnknownMachineId[] = "a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb";

// One crash dump of a crash report, decoded from its base64 text.
struct CrashDump {
    std::string module;
    std::string sha256;  // 64 lower-case hex digits of the decoded bytes
    uint64_t size = 0;   // decoded bytes
    std::string bytes;   // the decoded dump (the store keeps each dump once)
};

// A field of a module's data: a dotted path into the module's dictionary
// ("Connections.Failed"), at most kFieldMaxDepth deep; a list's items share the list's path
// with "[]" appended. Integers are summed; texts (and anything else, as its JSON text) are
// counted per value.
enum class FieldKind { Integer = 0, Text = 1 };
constexpr int kFieldMaxDepth = 4;
constexpr int kMaxValueLength = 200;
struct FieldValue {
    std::string module;
    std::string path;
    FieldKind kind = FieldKind::Integer;
    int64_t integer = 0;
    std::string text;  // cut to kMaxValueLength bytes
};

// A body that passed or failed validation. Every field but the body, its hash, the time
// received, the client address and the kind is empty for a damaged body (as far as it
// could be read before the fault, the ids may be there).
struct ValidatedReport {
    std::string body;           // the bytes after "data=", verbatim (inflated when zipped)
    std::string sha256;         // 64 lower-case hex digits of `body`
    int64_t received = 0;       // UNIX seconds on the collector's clock
    std::string clientAddress;  // empty when keep_client_address=no
    ReportKind kind = ReportKind::Damaged;
    std::string damagedReason;  // why it is damaged, for an operator

    std::string machineId;
    std::string customerId;
    std::string version;  // PWVersion
    std::string osType, osName, osVersionDetails, osLocale;
    int64_t osMajor = 0, osMinor = 0, osBuild = 0;
    bool hasPeriod = false;
    int64_t periodStart = 0, periodEnd = 0;

    // Every module named in the report (module data and crash reports), sorted, unique.
    std::vector<std::string> modules;
    // ModuleData as one JSON object (module name -> its dictionary, in the mapping cefdump
    // prints); empty when the report carries none.
    std::string moduleDataJson;
    // Its fields, found while validating (on the receiving threads), so that the thread
    // that writes the store does not parse the JSON again. A report built otherwise may
    // leave them out; the store then finds them in moduleDataJson.
    std::vector<FieldValue> moduleFields;
    std::vector<CrashDump> crashDumps;
    bool hasThreat = false;
    std::string threatIncident;
};

}  // namespace collector
