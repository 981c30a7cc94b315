// The store's commands: migrate both ways keeps everything (the export and the figures of
// the copy equal the original's), export filters, purge, and usage errors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "StoreFixture.h"
#include "report/ReportReader.h"

using namespace collector;
using Json = nlohmann::json;

namespace {

const std::string kA(40, 'a'), kB(40, 'b');
constexpr int64_t kT0 = 20000 * 86400;

// What `command` prints on stdout, and its exit status.
std::string Capture(const std::function<int()>& command, int& status) {
    pwsupport::ScratchDir scratch("/tmp", "pw-out-");
    const std::string path = scratch / "out";
    fflush(stdout);
    int saved = dup(1);
    int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    dup2(file, 1);
    status = command();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(file);
    return pwsupport::ReadFileOrEmpty(path);
}

// The export of `database` with `args`, one object a line.
std::vector<Json> ExportWithIds(const std::string& database, const std::vector<std::string>& args) {
    CollectorSettings settings;
    settings.database = database;
    int status = -1;
    std::string text = Capture([&] { return RunExport(settings, args); }, status);
    EXPECT_EQ(0, status);
    std::vector<Json> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(Json::parse(text.substr(start, end - start)));
    }
    return lines;
}

// The same, each line without the store's own id.
std::vector<Json> Export(const std::string& database, const std::vector<std::string>& args) {
    std::vector<Json> lines = ExportWithIds(database, args);
    for (Json& line : lines) {
        line.erase("id");
    }
    return lines;
}

std::string Bencoded(const std::string& bytes) {
    return std::to_string(bytes.size()) + ":" + bytes;
}

TEST(StoreCommands, MigrateKeepsEverythingBothWays) {
    for (const auto& direction :
         {std::make_pair("sqlite", "postgres"), std::make_pair("postgres", "sqlite")}) {
        SCOPED_TRACE(direction.first);
        pwsupport::TestDatabase from(direction.first), to(direction.second);
        {
            auto store = from.Open();
            ASSERT_TRUE(store);
            std::vector<ValidatedReport> batch;
            for (int i = 0; i < 30; ++i) {
                batch.push_back(pwsupport::MakeReport(i % 4 ? kA : kB, i % 11, kT0 + i * 40000,
                                                      std::string(1 + i % 3, 'm')));
                if (i % 7 == 0) {
                    pwsupport::AddDump(batch.back(), "Core", "dump" + std::to_string(i % 2));
                }
            }
            batch[5].kind = ReportKind::Damaged;
            batch[5].damagedReason = "truncated";
            batch[6].hasThreat = true;
            batch[6].threatIncident = "blocked";
            std::vector<InsertOutcome> outcomes;
            ASSERT_EQ(StoreResult::Ok, store->InsertBatch(batch, outcomes));
        }
        CollectorSettings settings;
        settings.database = from.location();
        int status = -1;
        Capture([&] { return RunMigrate(settings, {"--to", to.location()}); }, status);
        ASSERT_EQ(0, status);
        EXPECT_EQ(Export(from.location(), {}), Export(to.location(), {}));
        auto original = from.Open();
        auto copy = to.Open();
        ASSERT_TRUE(original && copy);
        EXPECT_EQ(pwsupport::Figures(*original, kT0 / 86400, kT0 / 86400 + 14),
                  pwsupport::Figures(*copy, kT0 / 86400, kT0 / 86400 + 14));
        // A second copy would count every report again.
        Capture([&] { return RunMigrate(settings, {"--to", to.location()}); }, status);
        EXPECT_EQ(1, status);
    }
}

TEST(StoreCommands, ExportFiltersAndPurgeByMachine) {
    pwsupport::TestDatabase db("sqlite");
    auto store = db.Open();
    ASSERT_TRUE(store);
    std::vector<ValidatedReport> batch;
    for (int i = 0; i < 12; ++i) {
        batch.push_back(pwsupport::MakeReport(i % 3 ? kA : kB, i, kT0 + i * 86400, "e"));
        if (i % 2) {
            pwsupport::AddDump(batch.back(), "Core", "d");
        }
    }
    std::vector<InsertOutcome> outcomes;
    ASSERT_EQ(StoreResult::Ok, store->InsertBatch(batch, outcomes));
    const struct {
        std::vector<std::string> args;
        size_t lines;
    } cases[] = {
        {{}, 12},
        {{"--kind", "crash"}, 6},
        {{"--machine", kB}, 4},
        {{"--since", "2024-10-06", "--until", "2024-10-08T00:00:00Z"}, 2},  // days 2 and 3
        {{"--kind", "feedback", "--machine", kA}, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.size());
        EXPECT_EQ(c.lines, Export(db.location(), c.args).size());
    }
    CollectorSettings settings;
    settings.database = db.location();
    int status = -1;
    EXPECT_EQ("purged 4 reports\n", Capture(
                                        [&] {
                                            return RunPurge(settings, {"--machine", kB});
                                        },
                                        status));
    EXPECT_EQ(0, status);
    EXPECT_EQ(8u, Export(db.location(), {}).size());
}

// Export reads pages of the store on several threads at once: whatever the pages, the lines
// come in id order, each matching report once, each with the report in the shared JSON form
// (null where that form refuses the body). Reports are received out of id order, some hold a
// megabyte (pages shrink around them), some bodies are damaged or not in the client's form.
TEST(StoreCommands, ExportKeepsOrderAndContentAcrossPages) {
    for (const char* backend : {"sqlite", "postgres"}) {
        SCOPED_TRACE(backend);
        pwsupport::TestDatabase db(backend);
        auto store = db.Open();
        ASSERT_TRUE(store);
        std::vector<ValidatedReport> batch;
        for (int i = 0; i < 240; ++i) {
            // Strings that need escapes, that are not UTF-8 (base64 in JSON), and every 16th
            // a megabyte of base64 text with a quote at an odd offset.
            std::string text = "q\"b\\n\nt\tc\x01\xc3\xa9" + std::to_string(i);
            std::string large = i % 16 == 5 ? std::string(1 << 20, 'Q') : "short";
            large[large.size() / 2 + 3] = '"';
            ValidatedReport r = pwsupport::MakeReport(
                i % 5 ? kA : kB, i, kT0 + (i * 7 % 24) * 86400, std::to_string(i));
            r.body = "li7e" + Bencoded(r.machineId) + "d1:A" + Bencoded(text) + "1:B" +
                     Bencoded("\xff\xfe" + std::to_string(i)) + "1:Ci-" + std::to_string(i + 1) +
                     "e1:D" + Bencoded(large) + "ee";
            if (i % 9 == 4) {
                pwsupport::AddDump(r, "Core", "d" + std::to_string(i));
            }
            if (i % 31 == 7) {
                r.body =
                    "li7e" + Bencoded(std::to_string(i)) + "d1:Bi1e1:Ai2eee";  // keys out of order
            } else if (i % 37 == 8) {
                r.body = "li7e" + Bencoded(std::to_string(i)) + "d1:Ai1e1:Ai2eee";  // a key twice
            } else if (i % 23 == 2) {
                r.kind = ReportKind::Damaged;
                r.damagedReason = "truncated";
                // Cut after the text that makes each body its own: a body equal byte for
                // byte to one kept already is that report again.
                r.body = r.body.substr(0, r.body.size() - 3);
            } else if (i % 29 == 3) {
                // Reads as bencode, but not in the client's form: a damaged body is read the
                // long way, which refuses it.
                r.kind = ReportKind::Damaged;
                r.damagedReason = "a number with leading zeros";
                r.body = "li007e" + r.body.substr(4);
            }
            r.sha256 = pwsupport::Sha256Hex(r.body);
            batch.push_back(r);
        }
        std::vector<InsertOutcome> outcomes;
        ASSERT_EQ(StoreResult::Ok, store->InsertBatch(batch, outcomes));
        ASSERT_EQ(batch.size(), outcomes.size());
        const int64_t day = 86400;
        const struct {
            std::vector<std::string> args;
            std::function<bool(const ValidatedReport&)> matches;
        } cases[] = {
            {{}, [](const ValidatedReport&) { return true; }},
            {{"--since", "2024-10-09", "--until", "2024-10-15"},
             [&](const ValidatedReport& r) {
                 return r.received >= kT0 + 5 * day && r.received < kT0 + 11 * day;
             }},
            {{"--kind", "crash"},
             [](const ValidatedReport& r) { return r.kind == ReportKind::Crash; }},
            {{"--kind", "damaged"},
             [](const ValidatedReport& r) { return r.kind == ReportKind::Damaged; }},
            {{"--machine", kB}, [](const ValidatedReport& r) { return r.machineId == kB; }},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.args.empty() ? "all" : c.args[0]);
            std::map<int64_t, const ValidatedReport*> expected;
            for (size_t i = 0; i < batch.size(); ++i) {
                if (c.matches(batch[i])) {
                    expected[outcomes[i].id] = &batch[i];
                }
            }
            std::vector<Json> lines = ExportWithIds(db.location(), c.args);
            ASSERT_EQ(expected.size(), lines.size());
            auto want = expected.begin();
            for (const Json& line : lines) {
                ASSERT_EQ(want->first, line["id"].get<int64_t>());
                const ValidatedReport& r = *want->second;
                EXPECT_EQ(r.sha256, line["sha256"]);
                std::string json, reason;
                EXPECT_EQ(ReportToJson(r.body, json, reason) ? Json::parse(json) : Json(),
                          line["report"]);
                ++want;
            }
        }
    }
}

TEST(StoreCommands, UsageErrorsExitTwo) {
    CollectorSettings settings;
    settings.database = "/nonexistent/never/opened.db";
    using Command = int (*)(const CollectorSettings&, const std::vector<std::string>&);
    const struct {
        Command command;
        std::vector<std::string> args;
    } cases[] = {
        {RunExport, {"--kind", "crashes"}},     {RunExport, {"--since"}},
        {RunExport, {"--since", "2024-13-01"}}, {RunExport, {"--machine", "xyz"}},
        {RunExport, {"--colour", "red"}},       {RunPurge, {}},
        {RunPurge, {"--older-than", "ten"}},    {RunPurge, {"--older-than", "1", "--machine", kA}},
        {RunPurge, {"--machine", "ABC"}},       {RunMigrate, {}},
        {RunMigrate, {"--from", "x"}},          {RunStats, {"extra"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.empty() ? "" : c.args[0]);
        EXPECT_EQ(2, c.command(settings, c.args));
    }
}

}  // namespace
