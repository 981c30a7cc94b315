// The report validator: what it keeps of reports a client writes, and the reason it gives
// for every kind of body that does not validate.
#include <gtest/gtest.h>
#include <zlib.h>

#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include <dirent.h>

#include <fstream>
#include <sstream>

#include "ReportInvariants.h"
#include "report/ReportReader.h"
#include "report/ReportValidator.h"

namespace {

using collector::ReportKind;
using collector::ValidateBody;
using collector::ValidatedReport;
using Entries = std::map<std::string, std::string>;

// Bencode text, written out so that each row shows the bytes it posts.
std::string S(const std::string& text) {
    return std::to_string(text.size()) + ":" + text;
}
std::string I(long long value) {
    return "i" + std::to_string(value) + "e";
}
std::string D(const Entries& entries) {
    std::string text = "d";
    for (const auto& entry : entries) {
        text += S(entry.first) + entry.second;
    }
    return text + "e";
}

const std::string kMachine = "f7767a46386a76c454df13f192200202c13d6887";

// A report as a client writes it; `change` replaces (or, with an empty value, removes)
// entries of the report dictionary.
std::string Report(const Entries& data, const Entries& change = {},
                   const std::string& machine = kMachine, long long end = 1795474662) {
    Entries os = {
        {"OSBuildVersion", I(44)},         {"OSLocale", S("C.UTF-8")}, {"OSMajorVersion", I(6)},
        {"OSMinorVersion", I(18)},         {"OSName", S("Linux")},     {"OSType", S("Linux")},
        {"OSVersionDetails", S("6.18.44")}};
    Entries report = {{"CustomerId", S("demo")},
                      {"MachineId", S(machine)},
                      {"OSDetails", D(os)},
                      {"PWVersion", S("5.1.00123")},
                      {"PhoneHomeFormatVersion", S("1.0")},
                      {"QualityImprovementData", D(data)}};
    for (const auto& entry : change) {
        if (entry.second.empty()) {
            report.erase(entry.first);
        } else {
            report[entry.first] = entry.second;
        }
    }
    return "li7e" + S(machine) + "i3eli1795474062e" + I(end) + D(report) + "ee";
}

std::string Zip(const std::string& bytes) {
    uLongf size = compressBound(bytes.size());
    std::string zipped(size, '\0');
    compress(reinterpret_cast<Bytef*>(&zipped[0]), &size,
             reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    zipped.resize(size);
    return zipped;
}

const std::string kModules = D({{"VpnModule", D({{"connects", I(42)}, {"name", S("\xff")}})}});
// "core" NUL 1 2, and a dump of 600 KiB: more than the plug-in's string limit.
const std::string kCrash = D({{"VpnModule", D({{"CrashData", S("Y29yZQABAg==")}})}});
const std::string kLargeDump(600 * 1024, 'A');
const std::string kThreat = D({{"ThreatIncident", S("blocked 203.0.113.7")}});

std::string Repeat(const std::string& text, size_t times) {
    std::string repeated;
    while (times-- != 0) {
        repeated += text;
    }
    return repeated;
}

std::string Nested(size_t levels) {
    return std::string(levels, 'l') + std::string(levels, 'e');
}

TEST(ReportValidator, KeepsAndClassifiesValidReports) {
    // clang-format off
    const struct { const char* name; std::string report; bool zipped; ReportKind kind;
                   std::vector<std::string> modules; std::string moduleData; } cases[] = {
        {"feedback", Report({{"ModuleData", kModules}}), false, ReportKind::Feedback,
         {"VpnModule"}, R"({"VpnModule":{"connects":42,"name":{"base64":"/w=="}}})"},
        {"no module data", Report({{"ModuleData", "de"}}), false, ReportKind::Feedback, {}, ""},
        {"crash with module data", Report({{"CrashReports", kCrash}, {"ModuleData", kModules},
         {"ThreatReports", kThreat}}), false, ReportKind::Crash, {"VpnModule"},
         R"({"VpnModule":{"connects":42,"name":{"base64":"/w=="}}})"},
        {"large dump", Report({{"CrashReports", D({{"GuiModule", D({{"CrashData",
         S(kLargeDump)}})}})}}), false, ReportKind::Crash, {"GuiModule"}, ""},
        {"threat", Report({{"ThreatReports", kThreat}}), false, ReportKind::Threat, {}, ""},
        {"zipped", Report({{"ModuleData", kModules}}), true, ReportKind::Feedback,
         {"VpnModule"}, R"({"VpnModule":{"connects":42,"name":{"base64":"/w=="}}})"},
        {"unknown keys, no customer", Report({{"Later", D({{"x", I(1)}})}},
         {{"CustomerId", ""}, {"Zone", S("eu")}}), false, ReportKind::Feedback, {}, ""},
    };
    // clang-format on
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        ValidatedReport report =
            ValidateBody("data=" + (row.zipped ? Zip(row.report) : row.report), row.zipped);
        EXPECT_EQ(report.damagedReason, "");
        EXPECT_EQ(report.kind, row.kind);
        EXPECT_EQ(report.body, row.report);
        EXPECT_EQ(report.machineId, kMachine);
        EXPECT_EQ(report.periodStart, 1795474062);
        EXPECT_EQ(report.periodEnd, 1795474662);
        EXPECT_EQ(report.version, "5.1.00123");
        EXPECT_EQ(report.osLocale, "C.UTF-8");
        EXPECT_EQ(report.osMajor, 6);
        EXPECT_EQ(report.osBuild, 44);
        EXPECT_EQ(report.modules, row.modules);
        EXPECT_EQ(report.moduleDataJson, row.moduleData);
    }
}

TEST(ReportValidator, DecodesCrashDumpsAndThreats) {
    ValidatedReport report = ValidateBody(
        "data=" + Report({{"CrashReports", kCrash}, {"ThreatReports", kThreat}}), false);
    ASSERT_EQ(report.crashDumps.size(), 1u);
    EXPECT_EQ(report.crashDumps[0].module, "VpnModule");
    EXPECT_EQ(report.crashDumps[0].bytes, std::string("core\0\1\2", 7));
    EXPECT_EQ(report.crashDumps[0].size, 7u);
    // sha256sum of those seven bytes
    EXPECT_EQ(report.crashDumps[0].sha256,
              "f3e34a6ddbdfbd027206adea8605038ab6b9ebec112c4c18280c524bfde7a0a1");
    EXPECT_TRUE(report.hasThreat);
    EXPECT_EQ(report.threatIncident, "blocked 203.0.113.7");
}

TEST(ReportValidator, DamagedBodiesKeepTheirBytesAndSayWhy) {
    const std::string feedback = Report({{"ModuleData", kModules}});
    const std::string bomb = Zip(std::string(17u << 20, '\0'));
    // clang-format off
    const struct { const char* name; std::string posted; bool zipped; std::string kept;
                   std::string reason; } cases[] = {
        {"no prefix", feedback, false, feedback, "does not start with \"data=\""},
        {"empty", "data=", false, "", "the report is empty"},
        {"not a list", "data=abc", false, "abc", "not a bencode list"},
        {"truncated", "data=" + feedback.substr(0, 100), false, feedback.substr(0, 100),
         "ends at offset 100 inside a value"},
        {"invalid byte", "data=li7e40:X", false, "li7e40:X", "ends at offset 8"},
        {"bad length", "data=li7eX:ae", false, "li7eX:ae", "first invalid byte is at offset 4"},
        {"NUL", "data=" + feedback + std::string(1, '\0'), false, feedback + std::string(1, '\0'),
         "a NUL byte at offset " + std::to_string(feedback.size())},
        {"trailing", "data=" + feedback + "i1e", false, feedback + "i1e", "3 bytes follow"},
        {"leading zeros", "data=li07e" + feedback.substr(4), false, "li07e" + feedback.substr(4),
         "differs from offset 2"},
        {"too deep", "data=" + Report({{"ModuleData", D({{"M", D({{"x", Nested(60)}})}})}}),
         false, "", "nested deeper than 64 levels"},
        {"too many values", "data=l" + Repeat("i0e", (1u << 18) + 1) + "e", false, "",
         "more than 262144 values"},
        {"message type", "data=li8e" + feedback.substr(4), false, "li8e" + feedback.substr(4),
         "message type"},
        {"upper-case id", "data=" + Report({}, {}, "F7767A46386A76C454DF13F192200202C13D6887"),
         false, "", "40 lower-case hex digits"},
        {"ids differ", "data=" + Report({}, {{"MachineId", S(std::string(40, 'a'))}}), false,
         "", "MachineId differs"},
        {"period", "data=" + Report({}, {}, kMachine, 4294967296LL), false, "",
         "collection period"},
        {"missing key", "data=" + Report({}, {{"PWVersion", ""}}), false, "",
         "the report has no PWVersion"},
        {"OS kind", "data=" + Report({}, {{"OSDetails", D({{"OSBuildVersion", S("44")}})}}),
         false, "", "OSDetails/OSBuildVersion is a string, expected an integer"},
        {"module kind", "data=" + Report({{"ModuleData", D({{"VpnModule", I(1)}})}}), false, "",
         "ModuleData/VpnModule is an integer, expected a dictionary"},
        {"base64 digit", "data=" + Report({{"CrashReports", D({{"M", D({{"CrashData",
         S("Y29y*QAB")}})}})}}), false, "", "not a base64 digit at offset 4"},
        {"base64 bits", "data=" + Report({{"CrashReports", D({{"M", D({{"CrashData",
         S("Y29yZR==")}})}})}}), false, "", "bits past the last byte"},
        {"no incident", "data=" + Report({{"ThreatReports", "de"}}), false, "",
         "the report has no QualityImprovementData/ThreatReports/ThreatIncident"},
        {"zip bomb", "data=" + bomb, true, bomb, "inflates to more than 16777216 bytes"},
        {"not zlib", "data=" + feedback, true, feedback, "not valid zlib data"},
        {"zlib cut", "data=" + Zip(feedback).substr(0, 20), true, Zip(feedback).substr(0, 20),
         "ends before its zlib stream does"},
    };
    // clang-format on
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        ValidatedReport report = ValidateBody(row.posted, row.zipped);
        EXPECT_EQ(report.kind, ReportKind::Damaged);
        EXPECT_NE(report.damagedReason.find(row.reason), std::string::npos) << report.damagedReason;
        const std::string kept = row.kept.empty() ? row.posted.substr(5) : row.kept;
        EXPECT_EQ(report.body, kept);
        EXPECT_TRUE(report.modules.empty() && report.crashDumps.empty() &&
                    report.moduleDataJson.empty());
    }
}

TEST(ReportValidator, HashesTheKeptBytes) {
    // The FIPS 180-2 example, SHA-256 of "abc": the bytes kept, however they were posted.
    const struct {
        std::string posted;
        bool zipped;
    } cases[] = {{"data=abc", false}, {"abc", false}, {"data=" + Zip("abc"), true}};
    for (const auto& row : cases) {
        ValidatedReport report = ValidateBody(row.posted, row.zipped);
        EXPECT_EQ(report.body, "abc");
        EXPECT_EQ(report.sha256,
                  "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    }
}

// The validator finds module fields in the tree; they must be those that the store finds
// in the JSON form (as it does for reports kept before, and when a purge takes them away).
TEST(ReportValidator, ModuleFieldsFromTheTreeAreThoseOfItsJson) {
    auto L = [](const std::vector<std::string>& items) {
        std::string text = "l";
        for (const std::string& item : items) {
            text += item;
        }
        return text + "e";
    };
    // Four dictionaries deep from the module: past the depth where fields stop.
    auto Deep = [](const std::string& value) {
        return D({{"a", D({{"b", D({{"c", D({{"d", D({{"e", value}})}})}})}})}});
    };
    // clang-format off
    const struct { const char* name; std::string module; size_t fields; } cases[] = {
        {"integers and texts", D({{"n", I(-7)}, {"t", S("on")}, {"dot.key", S("x")}}), 3},
        {"integers at the ends of their range",
         D({{"lo", "i-9223372036854775808e"}, {"hi", "i9223372036854775807e"}}), 2},
        {"UTF-8 of every length", D({{"t", S("\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82")}}), 1},
        {"not UTF-8, shallow", D({{"v", S("\xff\xfe")}}), 1},
        {"not UTF-8, past the depth", Deep(S("\xff")), 1},
        {"a key not UTF-8, deep down", Deep(D({{"\xfe", I(1)}})), 0},
        {"controls and quotes past the depth", Deep(S("\b\f\x01\"\\ \x7f")), 1},
        {"lists within lists", D({{"l", L({I(1), S("x"), L({I(2), L({I(3), L({I(4)})})}), "de", "le"})}}), 5},
        {"empty containers", D({{"d", "de"}, {"l", "le"}}), 0},
        {"texts longer than kept", D({{"t", S(std::string(300, 'y'))}, {"b", S(std::string(300, '\xff'))}}), 2},
    };
    // clang-format on
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        const std::string report = Report({{"ModuleData", D({{"M", row.module}})}});
        EXPECT_EQ(reportfuzz::CheckReport(report), "");
        EXPECT_EQ(ValidateBody("data=" + report, false).moduleFields.size(), row.fields);
    }
}

// Every input the report fuzz target keeps (its seeds, and each that once broke it).
TEST(ReportValidator, KeptFuzzInputsKeepTheInvariants) {
    const std::string dir = PW_REPORT_FUZZ_REGRESSIONS;
    DIR* listing = opendir(dir.c_str());
    ASSERT_NE(listing, nullptr) << dir;
    size_t inputs = 0;
    while (const dirent* entry = readdir(listing)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream file(dir + "/" + entry->d_name, std::ios::binary);
        std::stringstream bytes;
        bytes << file.rdbuf();
        EXPECT_EQ(reportfuzz::CheckReport(bytes.str()), "") << entry->d_name;
        // The seeds are reports a client writes: they reach the checks of valid reports.
        if (std::string(entry->d_name).compare(0, 5, "seed-") == 0) {
            EXPECT_EQ(ValidateBody("data=" + bytes.str(), false).damagedReason, "")
                << entry->d_name;
        }
        ++inputs;
    }
    closedir(listing);
    EXPECT_GE(inputs, 2u);
}

// The report's JSON form against an independent JSON parser, over random strings made of
// runs of plain ASCII (passed over eight bytes at a time) broken by bytes that need an
// escape and by valid and invalid UTF-8 at every offset: the text always parses; a valid
// UTF-8 string comes back as the same bytes, any other as a base64 object.
TEST(ReportJson, StringsSurviveAJsonParser) {
    const std::vector<std::string> pieces = {"\"",
                                             "\\",
                                             "\n",
                                             "\t",
                                             "\x01",
                                             "\x1f",
                                             "\x7f",
                                             "/",
                                             "\xc3\xa9",
                                             "\xe2\x82\xac",
                                             "\xf0\x9f\x98\x80",
                                             "\x80",
                                             "\xff",
                                             "\xc3",
                                             "\xed\xa0\x80",
                                             "\xc0\x80",
                                             "\xf4\x90\x80\x80"};
    std::mt19937 random(18);
    for (int trial = 0; trial < 4000; ++trial) {
        std::string text;
        const size_t length = random() % 40;
        while (text.size() < length) {
            if (random() % 3 != 0) {
                text.append(1 + random() % 11, static_cast<char>('A' + random() % 26));
            } else {
                text += pieces[random() % pieces.size()];
            }
        }
        // The oracle: the same bytes in a JSON string, escaping only what JSON requires;
        // the parser refuses exactly the strings that are not valid UTF-8.
        std::string quoted = "\"";
        for (unsigned char c : text) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", c);
            quoted += c < 0x20 || c == '"' || c == '\\' ? std::string(escape) : std::string(1, c);
        }
        nlohmann::json expected = nlohmann::json::parse(quoted + "\"", nullptr, false);
        std::string json, reason;
        ASSERT_TRUE(collector::ReportToJson("l" + S(text) + "e", json, reason)) << reason;
        nlohmann::json written = nlohmann::json::parse(json, nullptr, false);
        ASSERT_FALSE(written.is_discarded()) << json;
        if (expected.is_discarded()) {
            EXPECT_TRUE(written[0].is_object()) << json;
        } else {
            EXPECT_EQ(text, written[0].get<std::string>()) << json;
        }
    }
}

}  // namespace
