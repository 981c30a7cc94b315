// The JSON API over a real store: answers, parameters refused by name, pagination through
// the "next" cursor, downloads and the figures of known reports.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>

#include "HostClock.h"
#include "StoreFixture.h"
#include "api/ApiHandler.h"
#include "report/ReportValidator.h"

using namespace collector;
using Json = nlohmann::json;

namespace {

constexpr int64_t kToday = 20500;  // the day the clock stands on
const std::string kA(40, 'a'), kB(40, 'b');

class Api : public ::testing::Test {
protected:
    void SetUp() override {
        pwhost::UseScaledClock(1.0, kToday * 86400 + 3600);
        store = db.Open();
        ASSERT_TRUE(store);
        std::vector<ValidatedReport> batch;
        for (int i = 0; i < 25; ++i) {
            batch.push_back(pwsupport::MakeReport(i % 5 ? kA : kB, i, (kToday - i % 3) * 86400 + i,
                                                  std::string(1 + i % 2, 'k')));
        }
        pwsupport::AddDump(batch[0], "../etc/passwd", "DUMPBYTES");
        batch[1].osMajor = (int64_t(1) << 60);
        batch.push_back(batch[2]);  // a duplicate
        std::vector<InsertOutcome> outcomes;
        ASSERT_EQ(StoreResult::Ok, store->InsertBatch(batch, outcomes));
        firstId = outcomes[0].id;
        secondId = outcomes[1].id;
    }
    void TearDown() override { pwhost::UseRealClock(); }

    ApiAnswer Get(const std::string& target) { return HandleApiRequest(*store, {"GET", target}); }

    pwsupport::TestDatabase db{"sqlite"};
    std::unique_ptr<Store> store;
    int64_t firstId = 0, secondId = 0;
};

TEST_F(Api, BadParametersAreNamed) {
    const struct {
        std::string target;
        int status;
        std::string parameter;
    } cases[] = {
        {"/api/reports?limit=0", 400, "limit"},
        {"/api/reports?limit=1001", 400, "limit"},
        {"/api/reports?limit=12x", 400, "limit"},
        {"/api/reports?kind=crashes", 400, "kind"},
        {"/api/reports?machine=ABC", 400, "machine"},
        {"/api/reports?since=2026-02-30", 400, "since"},
        {"/api/reports?until=yesterday", 400, "until"},
        {"/api/reports?after=12", 400, "after"},
        {"/api/reports?colour=red", 400, "colour"},
        {"/api/reports?limit=1&limit=2", 400, "limit"},
        {"/api/reports?module=%zz", 400, "module"},
        {"/api/stats/daily?days=0", 400, "days"},
        {"/api/stats/breakdown?by=colour", 400, "by"},
        {"/api/stats/breakdown?days=7", 400, "by"},
        {"/api/modules/Tunnel/fields?days=-1", 400, "days"},
        {"/api/reports/999999", 404, ""},
        {"/api/reports/abc", 404, ""},
        {"/api/reports/1/crash/Nothing", 404, ""},
        {"/api/machines/" + std::string(40, 'c'), 404, ""},
        {"/api/modules/Nothing/fields", 404, ""},
        {"/api/nothing", 404, ""},
        {"/metrics", 404, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.target);
        ApiAnswer answer = Get(c.target);
        EXPECT_EQ(c.status, answer.status);
        Json body = Json::parse(answer.body);
        EXPECT_EQ(c.parameter, body.value("parameter", ""));
    }
    EXPECT_EQ(405, HandleApiRequest(*store, {"POST", "/api/reports"}).status);
}

TEST_F(Api, PagesFollowNextToTheEnd) {
    std::vector<std::string> seen;
    std::string target = "/api/reports?limit=4&machine=" + kA;
    for (int page = 0; page < 10; ++page) {
        Json body = Json::parse(Get(target).body);
        for (const Json& report : body["reports"]) {
            seen.push_back(report["received"].get<std::string>() + "/" + report["id"].dump());
            EXPECT_EQ(kA, report["machine_id"]);
        }
        if (body["next"].is_null()) {
            break;
        }
        target = "/api/reports?limit=4&machine=" + kA + "&after=" + body["next"].get<std::string>();
    }
    ASSERT_EQ(20u, seen.size());
    EXPECT_TRUE(std::is_sorted(seen.rbegin(), seen.rend()));
}

// Every listing, paged two at a time, against the unfiltered list filtered here: the
// store walks a different index depending on which filter matches fewest reports, and
// folds `until` into the cursor.
TEST_F(Api, FilteredListingsMatchTheWholeListFiltered) {
    std::vector<ValidatedReport> batch;
    const char* const modules[] = {"Gui", "Gui", "Vpn", "Gui", "Vpn"};
    for (int i = 0; i < 5; ++i) {
        batch.push_back(pwsupport::MakeReport(i % 2 ? kA : kB, 200 + i,
                                              (kToday - i % 3) * 86400 + 50 + i, "kk"));
        pwsupport::AddDump(batch.back(), modules[i], "dump" + std::to_string(i));
    }
    std::vector<InsertOutcome> outcomes;
    ASSERT_EQ(StoreResult::Ok, store->InsertBatch(batch, outcomes));
    Json all = Json::parse(Get("/api/reports?limit=1000").body)["reports"];
    ASSERT_EQ(30u, all.size());
    const std::string since = "2026-02-15", until = "2026-02-16";  // days 20499, 20500
    const struct {
        std::string query;
        bool (*keep)(const Json&);
    } cases[] = {
        {"module=Tunnel", [](const Json&) { return true; }},
        {"module=Gui",
         [](const Json& r) { return r["modules"].size() == 2 && r["modules"][0] == "Gui"; }},
        {"module=Tunnel&kind=crash", [](const Json& r) { return r["kind"] == "crash"; }},
        {"module=Vpn&kind=feedback", [](const Json&) { return false; }},
        {"module=Gui&machine=" + kA,
         [](const Json& r) { return r["machine_id"] == kA && r["modules"][0] == "Gui"; }},
        {"module=Tunnel&version=5.1.2&until=" + until,
         [](const Json& r) { return r["version"] == "5.1.2" && r["received"] < "2026-02-16"; }},
        {"module=Vpn&since=" + since,
         [](const Json& r) {
             return r["modules"].back() == "Vpn" && r["received"] >= "2026-02-15";
         }},
        {"kind=crash&customer=customer-k&until=" + until,
         [](const Json& r) { return r["kind"] == "crash" && r["received"] < "2026-02-16"; }},
        {"since=" + since + "&until=" + until,
         [](const Json& r) {
             return r["received"] >= "2026-02-15" && r["received"] < "2026-02-16";
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.query);
        std::vector<Json> expected, seen;
        for (const Json& report : all) {
            if (c.keep(report)) {
                expected.push_back(report["id"]);
            }
        }
        std::string target = "/api/reports?limit=2&" + c.query;
        for (int page = 0; page < 20; ++page) {
            ApiAnswer answer = Get(target);
            ASSERT_EQ(200, answer.status);
            Json body = Json::parse(answer.body);
            for (const Json& report : body["reports"]) {
                seen.push_back(report["id"]);
            }
            if (body["next"].is_null()) {
                break;
            }
            target =
                "/api/reports?limit=2&" + c.query + "&after=" + body["next"].get<std::string>();
        }
        EXPECT_EQ(expected, seen);
    }
}

TEST_F(Api, OneReportItsDownloadsAndItsMachine) {
    Json report = Json::parse(Get("/api/reports/" + std::to_string(firstId)).body);
    ASSERT_EQ(1u, report["crash_dumps"].size());
    EXPECT_EQ("../etc/passwd", report["crash_dumps"][0]["module"]);
    ApiAnswer dump = Get("/api/reports/" + std::to_string(firstId) + "/crash/..%2Fetc%2Fpasswd");
    EXPECT_EQ(200, dump.status);
    EXPECT_EQ("DUMPBYTES", dump.body);
    ASSERT_FALSE(dump.headers.empty());
    std::string disposition;
    for (const auto& header : dump.headers) {
        if (header.first == "Content-Disposition") {
            disposition = header.second;
        }
    }
    EXPECT_EQ("attachment; filename=\"report-" + std::to_string(firstId) + "-crash-1.dmp\"",
              disposition);
    ApiAnswer raw = Get("/api/reports/" + std::to_string(firstId) + "/raw");
    EXPECT_EQ("application/octet-stream", raw.contentType);
    ValidatedReport first = pwsupport::MakeReport(kB, 0, 0, "k");
    pwsupport::AddDump(first, "../etc/passwd", "DUMPBYTES");
    EXPECT_EQ(first.body, raw.body);
    // 2^60 does not fit a double exactly: it is given as text.
    Json second = Json::parse(Get("/api/reports/" + std::to_string(secondId)).body);
    EXPECT_EQ("1152921504606846976", second["os"]["major"]);
    Json machine = Json::parse(Get("/api/machines/" + kB).body);
    EXPECT_EQ(5u, machine["reports"].size());
    EXPECT_EQ(3u, machine["versions"].size());  // 5.1.2, 5.1.1, then 5.1.2 again
}

TEST_F(Api, AValidatedCrashReportIsShownWhole) {
    const std::string seed =
        pwsupport::ReadFileOrEmpty(std::string(PW_REPORT_FUZZ_REGRESSIONS) + "/seed-crash");
    ValidatedReport crash = ValidateBody("data=" + seed, false);
    ASSERT_EQ(ReportKind::Crash, crash.kind) << crash.damagedReason;
    ASSERT_FALSE(crash.crashDumps.empty());
    std::vector<InsertOutcome> outcomes;
    ASSERT_EQ(StoreResult::Ok, store->InsertBatch({crash}, outcomes));
    const std::string path = "/api/reports/" + std::to_string(outcomes[0].id);
    Json report = Json::parse(Get(path).body);
    EXPECT_EQ(7, report["report"][0]);
    EXPECT_EQ(crash.machineId, report["report"][1]);
    EXPECT_EQ(crash.crashDumps[0].bytes, Get(path + "/crash/" + crash.crashDumps[0].module).body);
    EXPECT_EQ(seed, Get(path + "/raw").body);
}

TEST_F(Api, FiguresOfTheKnownReports) {
    Json daily = Json::parse(Get("/api/stats/daily?days=4").body)["days"];
    ASSERT_EQ(4u, daily.size());
    EXPECT_EQ("2026-02-16", daily[3]["day"]);  // day 20500
    const int feedback[] = {0, 8, 8, 8};       // 25 reports over three days, one a crash
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(feedback[i] + (i == 3),
                  daily[i]["feedback"].get<int>() + daily[i]["crash"].get<int>());
    }
    EXPECT_EQ(1, daily[1]["duplicates"]);  // the copy of report 2, two days ago
    EXPECT_EQ(2, daily[3]["machines"]);
    Json versions = Json::parse(Get("/api/stats/breakdown?by=version&days=30").body)["values"];
    ASSERT_EQ(2u, versions.size());
    EXPECT_EQ(13, versions[0]["count"]);
    Json fields = Json::parse(Get("/api/modules/Tunnel/fields?days=30").body)["fields"];
    ASSERT_EQ(2u, fields.size());
    EXPECT_EQ("Connects", fields[0]["field"]);
    int64_t sum = 0;
    for (const Json& day : fields[0]["days"]) {
        sum += day["sum"].get<int64_t>();
    }
    EXPECT_EQ(13 * 1 + 12 * 2, sum);
    EXPECT_EQ("text", fields[1]["kind"]);
}

TEST_F(Api, CrashFiguresPerDayAndVersionKeepRepeatsApart) {
    // Report 0 (machine B, today, 5.1.1) holds "../etc/passwd"; the same dump again a day
    // later from B is a repeat, from A it is new; one crash is older than the range.
    const struct {
        const std::string& machine;
        int64_t daysAgo;
        std::string module, dump;
    } crashes[] = {{kB, 1, "../etc/passwd", "DUMPBYTES"},
                   {kA, 1, "../etc/passwd", "DUMPBYTES"},
                   {kA, 1, "Gui", "OTHER"},
                   {kA, 40, "Gui", "OLD"}};
    std::vector<ValidatedReport> batch;
    for (const auto& c : crashes) {
        batch.push_back(pwsupport::MakeReport(c.machine, 100 + batch.size(),
                                              (kToday - c.daysAgo) * 86400 + 5, "kkk"));
        pwsupport::AddDump(batch.back(), c.module, c.dump);
    }
    std::vector<InsertOutcome> outcomes;
    ASSERT_EQ(StoreResult::Ok, store->InsertBatch(batch, outcomes));
    Json body = Json::parse(Get("/api/stats/crashes?days=30").body);
    std::vector<std::string> perDay, perVersion;
    for (const Json& d : body["per_day"]) {
        perDay.push_back(d["day"].get<std::string>() + " " + d["module"].get<std::string>() + " " +
                         d["count"].dump() + "=" + d["new"].dump() + "+" + d["repeats"].dump());
    }
    for (const Json& v : body["per_version"]) {
        perVersion.push_back(v["version"].get<std::string>() + " " + v["count"].dump());
    }
    EXPECT_EQ((std::vector<std::string>{"2026-02-15 ../etc/passwd 2=1+1", "2026-02-15 Gui 1=1+0",
                                        "2026-02-16 ../etc/passwd 1=1+0"}),
              perDay);
    std::sort(perVersion.begin(), perVersion.end());
    EXPECT_EQ((std::vector<std::string>{"5.1.0 3", "5.1.1 1"}), perVersion);
    EXPECT_EQ("2026-01-18", body["first_day"]);
    EXPECT_EQ(400, Get("/api/stats/crashes?days=0").status);
}

}  // namespace
