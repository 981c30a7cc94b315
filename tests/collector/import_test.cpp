// The import command: what it stores of report files, posted bodies, directories and files
// it cannot read, and its usage errors.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "AppLog.h"
#include "Commands.h"
#include "ScratchFiles.h"
#include "commands/ImportReader.h"
#include "StoreFixture.h"
#include "store/Store.h"

namespace {

using pwsupport::ScratchDir;

std::string Seed(const std::string& name) {
    return pwsupport::ReadFileOrEmpty(std::string(PW_REPORT_FUZZ_REGRESSIONS) + "/" + name);
}

TEST(ImportCommand, StoresFilesAndBodiesOnceAtTheirGivenTimes) {
    CAppLog::ConfigureSinks(0);
    ScratchDir dir("/tmp", "pw-import-");
    const std::string feedback = Seed("seed-feedback");
    const std::string crash = Seed("seed-crash");
    const std::string threat = crash.substr(0, crash.find("12:CrashReports")) +
                               "13:ThreatReportsd14:ThreatIncident2:hieeeee";
    ASSERT_FALSE(feedback.empty() || crash.empty());
    ASSERT_EQ(mkdir((dir / "more").c_str(), 0700), 0);
    ASSERT_TRUE(pwsupport::WriteFile(dir / "a.cef", feedback));
    ASSERT_TRUE(pwsupport::WriteFile(dir / "b.body", "data=" + crash));
    ASSERT_TRUE(pwsupport::WriteFile(dir / "c.cef", feedback));  // sent again
    ASSERT_TRUE(pwsupport::WriteFile(dir / "d.cef", "not a report"));
    ASSERT_TRUE(pwsupport::WriteFile(dir / "more/e.cef", threat));
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);  // refused, never waited on

    collector::CollectorSettings settings;
    settings.database = dir / "collector.db";
    testing::internal::CaptureStdout();
    // A path before the first --received takes its time; a second one is for the paths
    // after it.
    const int status =
        collector::RunImport(settings, {dir / "a.cef", "--received", "2027-01-01", dir / "b.body",
                                        dir / "c.cef", dir / "d.cef", "--received", "2027-01-02",
                                        dir / "more", dir / "fifo", dir / "missing"});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "imported 5 reports: 2 feedback, 1 crash, 1 threat, 1 damaged; 1 duplicates; "
              "2 files not read\n");
    EXPECT_EQ(status, 1);

    std::string error;
    std::unique_ptr<collector::Store> store = collector::Store::Open(settings.database, error);
    ASSERT_TRUE(store) << error;
    std::vector<collector::StoredReport> stored;
    ASSERT_EQ(store->ScanReports({}, 0, 100, stored), collector::StoreResult::Ok);
    std::vector<std::string> bodies = {feedback, crash, "not a report", threat};
    std::vector<std::string> kept;
    for (const collector::StoredReport& report : stored) {
        kept.push_back(report.body);
        EXPECT_EQ(report.summary.received, report.body == threat ? 1798848000 : 1798761600);
        EXPECT_EQ(report.summary.kind == collector::ReportKind::Crash, report.body == crash);
    }
    std::sort(bodies.begin(), bodies.end());
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(kept, bodies);
}

// Enough files for several batches, which PostgreSQL stores on several connections at once:
// copies of two reports, so that every batch races the others to store them first.
TEST(ImportCommand, BatchesStoredAtOnceKeepEachReportOnce) {
    CAppLog::ConfigureSinks(0);
    const std::string feedback = Seed("seed-feedback");
    const std::string crash = Seed("seed-crash");
    ASSERT_FALSE(feedback.empty() || crash.empty());
    for (const char* backend : {"sqlite", "postgres"}) {
        SCOPED_TRACE(backend);
        pwsupport::TestDatabase db(backend);
        ScratchDir dir("/tmp", "pw-import-");
        for (int i = 0; i < 2400; ++i) {
            char name[16];
            snprintf(name, sizeof name, "%04d.cef", i);
            ASSERT_TRUE(pwsupport::WriteFile(dir / name, i % 3 ? feedback : crash));
        }
        collector::CollectorSettings settings;
        settings.database = db.location();
        testing::internal::CaptureStdout();
        EXPECT_EQ(collector::RunImport(settings, {dir.path()}), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "imported 2400 reports: 1600 feedback, 800 crash, 0 threat, 0 damaged; "
                  "2398 duplicates; 0 files not read\n");
        auto store = db.Open();
        ASSERT_TRUE(store);
        collector::StoreTotals totals;
        ASSERT_EQ(store->Totals(totals), collector::StoreResult::Ok);
        EXPECT_EQ(totals.reports, 2);
        EXPECT_EQ(totals.duplicates, 2398);
    }
}

// Many small batches, added by another thread while earlier ones are read, by more threads
// than the window holds batches: each comes out whole and in the order added, with its
// unreadable files named in order and each file's time received; a reader stopped half-way
// refuses more batches and hands none over.
TEST(BatchReader, HandsBatchesOverInTheOrderAdded) {
    ScratchDir dir("/tmp", "pw-import-");
    std::vector<collector::ImportFile> files;
    for (int i = 0; i < 300; ++i) {
        const std::string path = dir / std::to_string(i);
        if (i % 13 != 5) {  // else missing
            ASSERT_TRUE(pwsupport::WriteFile(path, "body " + std::to_string(i)));
        }
        files.push_back({path, 0, i < 150 ? size_t(0) : size_t(1)});
    }
    std::vector<std::pair<size_t, size_t>> batches;
    for (size_t begin = 0; begin < files.size(); begin += 7) {
        batches.emplace_back(begin, std::min(files.size(), begin + 7));
    }
    const std::vector<int64_t> times = {1798761600, 1798848000};
    for (size_t stopAfter : {batches.size(), size_t(3)}) {
        collector::BatchReader reader(times, 3, 2);
        std::thread lister([&] {
            for (const auto& batch : batches) {
                if (!reader.Add({files.begin() + batch.first, files.begin() + batch.second})) {
                    return;
                }
            }
            reader.Close();
        });
        collector::ImportChunk chunk;
        for (size_t batch = 0; batch < stopAfter; ++batch) {
            ASSERT_TRUE(reader.Next(chunk));
            std::vector<std::string> bodies, errors;
            for (size_t i = batches[batch].first; i < batches[batch].second; ++i) {
                if (i % 13 == 5) {
                    errors.push_back(files[i].path + ": No such file or directory");
                } else {
                    bodies.push_back("data=body " + std::to_string(i));
                }
            }
            ASSERT_EQ(chunk.reports.size(), bodies.size());
            for (size_t k = 0; k < bodies.size(); ++k) {
                EXPECT_EQ("data=" + chunk.reports[k].body, bodies[k]);
                const size_t file = std::stoul(bodies[k].substr(10));
                EXPECT_EQ(chunk.reports[k].received, times[file < 150 ? 0 : 1]);
            }
            EXPECT_EQ(chunk.errors, errors);
        }
        if (stopAfter != batches.size()) {
            reader.Stop();
        }
        EXPECT_FALSE(reader.Next(chunk));
        lister.join();
        EXPECT_FALSE(reader.Add({files[0]}));
    }
}

TEST(ImportCommand, UsageErrorsExit2) {
    const collector::CollectorSettings settings;
    const std::vector<std::vector<std::string>> cases = {
        {}, {"--received"}, {"--received", "soon", "a.cef"}, {"--since", "a.cef"}};
    for (const std::vector<std::string>& args : cases) {
        EXPECT_EQ(collector::RunImport(settings, args), 2) << args.size();
    }
}

}  // namespace
