// The store's commands: migrate both ways keeps everything (the export and the figures of
// the copy equal the original's), export filters, purge, and usage errors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "StoreFixture.h"

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

// The export of `database` with `args`, each line without the store's own id.
std::vector<Json> Export(const std::string& database, const std::vector<std::string>& args) {
    CollectorSettings settings;
    settings.database = database;
    int status = -1;
    std::string text = Capture([&] { return RunExport(settings, args); }, status);
    EXPECT_EQ(0, status);
    std::vector<Json> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(Json::parse(text.substr(start, end - start)));
        lines.back().erase("id");
    }
    return lines;
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
