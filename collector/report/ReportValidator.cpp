// Validation of a posted body against the report layout (docs/server-protocol.md), and its
// classification by content. Each check that fails names the place in the report and what
// was expected there, so that an operator reading a damaged report's reason can find it.
#include "report/ReportValidator.h"

#include <cstring>
#include <set>

#include "BencodeJson.h"
#include "report/BodyDecoding.h"
#include "report/ModuleDataFields.h"
#include "report/ReportReader.h"

namespace collector {

namespace {

const char kDataPrefix[] = "data=";
const size_t kDataPrefixSize = sizeof kDataPrefix - 1;
const long long kMessageType = 7;
const long long kProtocolVersion = 3;
const long long kLargestTime = 0xFFFFFFFFLL;  // times are unsigned 32-bit seconds

const char* KindOf(const CBencode& value) {
    switch (value.GetType()) {
        case CBencode::eBencodeInteger:
            return "an integer";
        case CBencode::eBencodeString:
            return "a string";
        case CBencode::eBencodeList:
            return "a list";
        default:
            return "a dictionary";
    }
}

// A failed check: where and what was wrong.
struct Fault {
    std::string reason;
};

// The value of `key` in `dictionary` if it has the kind `type`; `where` is the dictionary's
// path in the report dictionary ("" or "OSDetails/"). A missing key is a fault when
// `required`; a value of another kind is always one.
const CBencode* Find(const CBencodeDictionary& dictionary, const std::string& key,
                     CBencode::EContentType type, const std::string& where, bool required,
                     Fault& fault) {
    static const char* const kExpected[] = {"an integer", "a string", "a list", "a dictionary"};
    const CBencodeDictionary::EntryMap& entries = dictionary.Entries();
    CBencodeDictionary::EntryMap::const_iterator found = entries.find(key);
    if (found == entries.end() || found->second == nullptr) {
        if (required) {
            fault.reason = "the report has no " + where + key;
        }
        return nullptr;
    }
    if (found->second->GetType() != type) {
        fault.reason =
            where + key + " is " + KindOf(*found->second) + ", expected " + kExpected[type];
        return nullptr;
    }
    return found->second;
}

bool Text(const CBencodeDictionary& dictionary, const std::string& key, const std::string& where,
          bool required, std::string& out, Fault& fault) {
    const CBencode* value = Find(dictionary, key, CBencode::eBencodeString, where, required, fault);
    if (value != nullptr) {
        value->Get(out);
    }
    return fault.reason.empty();
}

bool Integer(const CBencodeDictionary& dictionary, const std::string& key, const std::string& where,
             int64_t& out, Fault& fault) {
    const CBencode* value = Find(dictionary, key, CBencode::eBencodeInteger, where, true, fault);
    long long integer = 0;
    if (value != nullptr) {
        value->Get(integer);
        out = integer;
    }
    return fault.reason.empty();
}

const CBencodeDictionary* Dictionary(const CBencodeDictionary& dictionary, const std::string& key,
                                     const std::string& where, bool required, Fault& fault) {
    return static_cast<const CBencodeDictionary*>(
        Find(dictionary, key, CBencode::eBencodeDictionary, where, required, fault));
}

bool IsMachineId(const std::string& id) {
    if (id.size() != 40) {
        return false;
    }
    for (char c : id) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

// The list header: [7, machine id, 3, [start, end, report dictionary]].
const CBencodeDictionary* CheckHeader(const CBencodeList& root, ValidatedReport& report,
                                      Fault& fault) {
    const std::vector<CBencode*>& items = root.Items();
    if (items.size() != 4) {
        fault.reason = "the report's list has " + std::to_string(items.size()) +
                       " items, expected 4 (message type, machine id, protocol version, period)";
        return nullptr;
    }
    long long number = 0;
    if (items[0]->GetType() != CBencode::eBencodeInteger || !items[0]->Get(number) ||
        number != kMessageType) {
        fault.reason = "item [0], the message type, is not the integer 7";
        return nullptr;
    }
    std::string machineId;
    if (items[1]->GetType() != CBencode::eBencodeString || !items[1]->Get(machineId) ||
        !IsMachineId(machineId)) {
        fault.reason = "item [1], the machine id, is not 40 lower-case hex digits";
        return nullptr;
    }
    report.machineId = machineId;
    if (items[2]->GetType() != CBencode::eBencodeInteger || !items[2]->Get(number) ||
        number != kProtocolVersion) {
        fault.reason = "item [2], the protocol version, is not the integer 3";
        return nullptr;
    }
    if (items[3]->GetType() != CBencode::eBencodeList ||
        static_cast<const CBencodeList*>(items[3])->Size() != 3) {
        fault.reason =
            "item [3] is not a list of 3 items (period start, period end, report dictionary)";
        return nullptr;
    }
    const std::vector<CBencode*>& period = static_cast<const CBencodeList*>(items[3])->Items();
    long long start = 0;
    long long end = 0;
    if (period[0]->GetType() != CBencode::eBencodeInteger || !period[0]->Get(start) ||
        period[1]->GetType() != CBencode::eBencodeInteger || !period[1]->Get(end) || start < 0 ||
        end < 0 || start > kLargestTime || end > kLargestTime) {
        fault.reason =
            "items [3][0] and [3][1], the collection period, are not two times in UNIX seconds "
            "(integers from 0 to 4294967295)";
        return nullptr;
    }
    report.hasPeriod = true;
    report.periodStart = start;
    report.periodEnd = end;
    if (period[2]->GetType() != CBencode::eBencodeDictionary) {
        fault.reason = "item [3][2], the report dictionary, is " + std::string(KindOf(*period[2]));
        return nullptr;
    }
    return static_cast<const CBencodeDictionary*>(period[2]);
}

// The report dictionary's own keys, OSDetails included.
bool CheckDescription(const CBencodeDictionary& dictionary, ValidatedReport& report, Fault& fault) {
    std::string machineId;
    if (!Text(dictionary, "MachineId", "", true, machineId, fault)) {
        return false;
    }
    if (machineId != report.machineId) {
        fault.reason = "the report dictionary's MachineId differs from item [1], the machine id";
        return false;
    }
    if (!Text(dictionary, "CustomerId", "", false, report.customerId, fault) ||
        !Text(dictionary, "PWVersion", "", true, report.version, fault)) {
        return false;
    }
    std::string formatVersion;
    if (!Text(dictionary, "PhoneHomeFormatVersion", "", true, formatVersion, fault)) {
        return false;
    }
    const CBencodeDictionary* os = Dictionary(dictionary, "OSDetails", "", true, fault);
    if (os == nullptr) {
        return false;
    }
    const std::string where = "OSDetails/";
    // In the order of the keys on the wire, so that the first fault is the one named.
    return Integer(*os, "OSBuildVersion", where, report.osBuild, fault) &&
           Text(*os, "OSLocale", where, true, report.osLocale, fault) &&
           Integer(*os, "OSMajorVersion", where, report.osMajor, fault) &&
           Integer(*os, "OSMinorVersion", where, report.osMinor, fault) &&
           Text(*os, "OSName", where, true, report.osName, fault) &&
           Text(*os, "OSType", where, true, report.osType, fault) &&
           Text(*os, "OSVersionDetails", where, true, report.osVersionDetails, fault);
}

// QualityImprovementData: module data, crash reports and a threat report, any of them.
bool CheckData(const CBencodeDictionary& dictionary, ValidatedReport& report, Fault& fault) {
    const CBencodeDictionary* data =
        Dictionary(dictionary, "QualityImprovementData", "", true, fault);
    if (data == nullptr) {
        return false;
    }
    const std::string where = "QualityImprovementData/";
    std::set<std::string> modules;

    const CBencodeDictionary* moduleData = Dictionary(*data, "ModuleData", where, false, fault);
    if (!fault.reason.empty()) {
        return false;
    }
    if (moduleData != nullptr) {
        for (const CBencodeDictionary::EntryMap::value_type& entry : moduleData->Entries()) {
            if (entry.second->GetType() != CBencode::eBencodeDictionary) {
                fault.reason = where + "ModuleData/" + entry.first + " is " +
                               KindOf(*entry.second) + ", expected a dictionary";
                return false;
            }
            modules.insert(entry.first);
        }
        if (moduleData->Size() != 0) {
            report.moduleDataJson = bencodejson::ToJson(*moduleData);
            ForEachModuleField(*moduleData, [&report](const FieldValue& field) {
                report.moduleFields.push_back(field);
            });
        }
    }

    const CBencodeDictionary* crashes = Dictionary(*data, "CrashReports", where, false, fault);
    if (!fault.reason.empty()) {
        return false;
    }
    if (crashes != nullptr) {
        for (const CBencodeDictionary::EntryMap::value_type& entry : crashes->Entries()) {
            const std::string place = where + "CrashReports/" + entry.first;
            if (entry.second->GetType() != CBencode::eBencodeDictionary) {
                fault.reason = place + " is " + KindOf(*entry.second) + ", expected a dictionary";
                return false;
            }
            std::string text;
            if (!Text(static_cast<const CBencodeDictionary&>(*entry.second), "CrashData",
                      place + "/", true, text, fault)) {
                return false;
            }
            CrashDump dump;
            dump.module = entry.first;
            std::string why;
            if (!DecodeBase64(text, dump.bytes, why)) {
                fault.reason = place + "/CrashData is not valid base64: " + why;
                return false;
            }
            dump.size = dump.bytes.size();
            dump.sha256 = Sha256Hex(dump.bytes);
            report.crashDumps.push_back(std::move(dump));
            modules.insert(entry.first);
        }
    }

    const CBencodeDictionary* threats = Dictionary(*data, "ThreatReports", where, false, fault);
    if (!fault.reason.empty()) {
        return false;
    }
    if (threats != nullptr) {
        if (!Text(*threats, "ThreatIncident", where + "ThreatReports/", true, report.threatIncident,
                  fault)) {
            return false;
        }
        report.hasThreat = true;
    }

    report.modules.assign(modules.begin(), modules.end());
    if (!report.crashDumps.empty()) {
        report.kind = ReportKind::Crash;
    } else if (report.hasThreat) {
        report.kind = ReportKind::Threat;
    } else {
        report.kind = ReportKind::Feedback;
    }
    return true;
}

// A damaged report keeps its body, hash and reason, and the ids read before the fault.
ValidatedReport Damaged(ValidatedReport&& read, std::string reason) {
    ValidatedReport damaged;
    damaged.body = std::move(read.body);
    damaged.sha256 = std::move(read.sha256);
    damaged.kind = ReportKind::Damaged;
    damaged.damagedReason = std::move(reason);
    damaged.machineId = std::move(read.machineId);
    damaged.customerId = std::move(read.customerId);
    damaged.version = std::move(read.version);
    damaged.hasPeriod = read.hasPeriod;
    damaged.periodStart = read.periodStart;
    damaged.periodEnd = read.periodEnd;
    return damaged;
}

}  // namespace

ValidatedReport ValidateBody(std::string posted, bool zipped) {
    ValidatedReport report;
    if (posted.compare(0, kDataPrefixSize, kDataPrefix) != 0) {
        report.body = std::move(posted);
        report.sha256 = Sha256Hex(report.body);
        return Damaged(std::move(report), "the body does not start with \"data=\"");
    }
    posted.erase(0, kDataPrefixSize);
    if (zipped) {
        std::string inflated;
        std::string reason;
        if (!InflateBounded(posted, kMaxReportBytes, inflated, reason)) {
            report.body = std::move(posted);  // kept as it came
            report.sha256 = Sha256Hex(report.body);
            return Damaged(std::move(report), reason);
        }
        posted.swap(inflated);
    }
    return ValidateReport(std::move(posted));
}

ValidatedReport ValidateReport(std::string body) {
    ValidatedReport report;
    report.body = std::move(body);
    report.sha256 = Sha256Hex(report.body);

    std::string reason;
    std::unique_ptr<CBencodeList> tree = ReadReportTree(report.body, reason);
    if (!tree) {
        return Damaged(std::move(report), reason);
    }
    Fault fault;
    const CBencodeDictionary* dictionary = CheckHeader(*tree, report, fault);
    if (dictionary == nullptr || !CheckDescription(*dictionary, report, fault) ||
        !CheckData(*dictionary, report, fault)) {
        return Damaged(std::move(report), fault.reason);
    }
    return report;
}

bool DecodeCrashDump(const std::string& body, const std::string& module, std::string& bytes,
                     std::string& reason) {
    std::unique_ptr<CBencodeList> tree = ReadReportTree(body, reason);
    if (!tree) {
        return false;
    }
    ValidatedReport header;
    Fault fault;
    const CBencodeDictionary* dictionary = CheckHeader(*tree, header, fault);
    const CBencodeDictionary* data =
        dictionary ? Dictionary(*dictionary, "QualityImprovementData", "", true, fault) : nullptr;
    const std::string where = "QualityImprovementData/CrashReports/";
    const CBencodeDictionary* crashes =
        data ? Dictionary(*data, "CrashReports", "QualityImprovementData/", true, fault) : nullptr;
    const CBencodeDictionary* crash =
        crashes ? Dictionary(*crashes, module, where, true, fault) : nullptr;
    std::string text;
    if (crash == nullptr || !Text(*crash, "CrashData", where + module + "/", true, text, fault)) {
        reason = fault.reason;
        return false;
    }
    return DecodeBase64(text, bytes, reason);
}

}  // namespace collector
