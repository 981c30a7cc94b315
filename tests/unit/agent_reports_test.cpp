// Crash and threat reports: which crash settings and files are sent, one base64 report per
// file; the oversized crash file; the threat watcher's set-up; a threat file taken in as text.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "AgentTestSupport.h"
#include "AppLog.h"

using namespace pwtest;

namespace {

typedef std::vector<std::pair<int, std::string>> Logs;  // importance, text
const int kError = CAppLog::Error, kWarning = CAppLog::Warning, kInfo = CAppLog::Information;

// A bencode string.
std::string Str(const std::string& s) {
    return std::to_string(s.size()) + ":" + s;
}

// "QualityImprovementData" of a report that carries one crash file.
std::string CrashData(const std::string& module, const std::string& base64) {
    return "d12:CrashReportsd" + Str(module) + "d9:CrashData" + Str(base64) + "eee";
}

class ReportsTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        Prepare();  // every post fails at once: the outbound files stay
    }

    // An empty outbound directory, numbering from 1, the module settings of the bencode
    // dictionary `settings`, a clean log.
    void Restart(const std::string& settings) {
        RemoveTree(OutboundDir());
        ASSERT_EQ(0, mkdir(OutboundDir().c_str(), 0700));
        agent().m_uiSequenceNumber = 1;
        agent().m_uiPostRetryCount = 0;
        CBencodeStream in("", false);
        in.Write(settings.data(), static_cast<unsigned int>(settings.size()));
        agent().m_ModuleSettings.Reset();
        ASSERT_TRUE(agent().m_ModuleSettings.Internalize(in)) << settings;
        ClearCapturedLogs();
    }
    // The "QualityImprovementData" of the outbound files "<kind>1.cef", "<kind>2.cef", ...
    // (sorted: the directory's order decides the numbers).
    static std::vector<std::string> Sent(const std::string& kind) {
        std::vector<std::string> sent;
        for (unsigned int n = 1; FileExists(OutboundDir() + kind + std::to_string(n) + ".cef");
             ++n) {
            sent.push_back(
                ParseReport(ReadFileOrEmpty(OutboundDir() + kind + std::to_string(n) + ".cef"))
                    .data);
        }
        std::sort(sent.begin(), sent.end());
        return sent;
    }
    // Records that the given operation logged.
    static Logs LogsOf(const std::string& function) {
        Logs logs;
        for (const LogRecord& record : CapturedLogs()) {
            if (record.function == function) {
                logs.emplace_back(record.importance, record.text);
            }
        }
        return logs;
    }

    TempDir m_dir;
};

TEST_F(ReportsTest, CrashSettingsOfEveryShape) {
    // a/one; b/two, b/link (to a/one) and b/sub/; beside a/ and b/ a "two" of their parent.
    const std::string a = m_dir / "a/", b = m_dir / "b", none = Str(m_dir / "none/");
    ASSERT_EQ(0, mkdir(a.c_str(), 0700));
    ASSERT_EQ(0, mkdir(b.c_str(), 0700));
    ASSERT_EQ(0, mkdir((b + "/sub").c_str(), 0700));
    ASSERT_TRUE(WriteFile(a + "one", "abc"));
    ASSERT_TRUE(WriteFile(b + "/two", std::string("\0\xff\x10", 3)));
    ASSERT_EQ(0, symlink((a + "one").c_str(), (b + "/link").c_str()));
    ASSERT_TRUE(WriteFile(m_dir / "two", "outer"));
    const std::string one = "YWJj", two = "AP8Q", outer = "b3V0ZXI=";
    struct Case {
        const char* name;
        std::string settings;
        std::vector<std::string> sent;
        Logs logged;
    } cases[] = {
        {"a directory, then a missing one",
         "d16:DownloaderModule" + none + "9:VpnModule" + Str(a) + "e",
         {CrashData("VpnModule", one)},
         {}},
        {"a list with a non-string element",
         "d9:GuiModulel" + Str(a) + "i7e" + Str(b + "/") + "ee",
         {CrashData("GuiModule", one), CrashData("GuiModule", two), CrashData("GuiModule", one)},
         {{kError, "Invalid bencode list content"}}},
        {"an integer, then a later module",
         "d16:DownloaderModule" + Str(b + "/") + "11:OstraModulei5ee",
         {CrashData("DownloaderModule", two), CrashData("DownloaderModule", one)},
         {{kError, "Unexpected content type (0) in settings dictionary"}}},
        {"a dictionary",
         "d17:WebSecurityModuledee",
         {},
         {{kError, "Unexpected content type (3) in settings dictionary"}}},
        {"an empty list, a missing directory", "d9:GuiModulele9:VpnModule" + none + "e", {}, {}},
        {"no final slash: the entries are looked for in the parent",
         "d9:VpnModule" + Str(b) + "e",
         {CrashData("VpnModule", outer)},
         {{kWarning, "Failed to get creation time of " + m_dir / "link"}}},
    };
    unsigned int now = kStartSeconds;
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        Restart(c.settings);
        SetManualUnixSeconds(++now);
        agent().m_mapHistory.erase("last_crash_report");  // every file counts as new
        EXPECT_TRUE(agent().CheckCrashDumps());
        std::sort(c.sent.begin(), c.sent.end());
        EXPECT_EQ(c.sent, Sent("crash_report"));
        EXPECT_EQ(c.logged, LogsOf("CheckCrashDumps")) << DumpLog();
        EXPECT_TRUE(LogsOf("SaveCrashReportToDataFile").empty()) << DumpLog();
        const bool any = !c.sent.empty();
        EXPECT_EQ(any ? std::to_string(now) : "", agent().m_mapHistory["last_crash_report"]);
        EXPECT_EQ(any ? 3u : 0u, agent().m_uiPostRetryCount);
    }
    EXPECT_EQ("abc", ReadFileOrEmpty(a + "one"));  // crash files are left where they are
}

TEST_F(ReportsTest, OnlyCrashFilesNewerThanTheLastReportAreSent) {
    const std::string dir = m_dir / "crash/", core = dir + "core";
    ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
    ASSERT_TRUE(WriteFile(core, "abc"));
    const unsigned int fileTime = kStartSeconds - 100;
    const timespec times[2] = {{static_cast<time_t>(fileTime), 999999999},
                               {static_cast<time_t>(fileTime), 999999999}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, core.c_str(), times, 0));
    const struct {
        std::string stored;  // "last_crash_report"
        bool sent;
    } cases[] = {
        {"", true},
        {"not a time", true},
        {std::to_string(fileTime - 1), true},
        {std::to_string(fileTime), false},  // the same second, though later within it
        {std::to_string(fileTime + 1), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("stored \"" + c.stored + "\"");
        Restart("d9:VpnModule" + Str(dir) + "e");
        agent().m_mapHistory["last_crash_report"] = c.stored;
        EXPECT_TRUE(agent().CheckCrashDumps());
        EXPECT_EQ(c.sent ? 1u : 0u, Sent("crash_report").size());
        EXPECT_EQ(c.sent ? std::to_string(kStartSeconds) : c.stored,
                  agent().m_mapHistory["last_crash_report"]);
    }
}

TEST_F(ReportsTest, CrashFileOverSixteenMebibytesStopsTheProcess) {
    const std::string path = m_dir / "huge";
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ftruncate(fd, 16777217));  // sparse: nothing is written
    close(fd);
    auto save = [&] {
        const rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        agent().SaveCrashReportToDataFile(path, "VpnModule");
    };
    EXPECT_EXIT(save(), testing::KilledBySignal(SIGILL), "");
}

TEST_F(ReportsTest, ThreatWatcherSetUp) {
    ClearCapturedLogs();
    EXPECT_FALSE(agent().FireDelayGetThreatReportDirTimer());
    EXPECT_EQ(Logs({{kWarning, "FireDelayGetThreatReportDirTimer called before creating timer"}}),
              LogsOf("FireDelayGetThreatReportDirTimer"));

    const std::string dir = "d15:TelemetryModule" + Str(m_dir.path()) + "e";
    const std::string empty = "d15:TelemetryModule0:e";
    const Logs noSetting = {{kInfo, "Failed to get threat directory information from settings"}};
    const struct {
        const char* name;
        std::string settings;
        bool stop, failWakeup, result, watcher;
        Logs logged;
    } cases[] = {
        // In this order: the watcher that the last but one makes blocks the last.
        {"no setting", "de", false, false, false, false, noSetting},
        {"not a string", "d15:TelemetryModulei1ee", false, false, false, false, noSetting},
        {"an empty string", empty, false, false, true, false, {}},
        {"no wake-up", empty, false, true, false, false, {{kError, "SetEvent Failed"}}},
        {"stop requested", dir, true, false, false, false, {}},
        {"a directory", dir, false, false, true, true, {}},
        {"again, another directory", "d15:TelemetryModule1:/e", false, false, false, true, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Restart(c.settings);
        agent().m_bStopRequested = c.stop;
        if (c.failWakeup) {
            FailNext(Fault::SetEvent, pwresult::kFailure);
        }
        EXPECT_EQ(c.result, agent().CreateThreatReportDirChangeEvent());
        EXPECT_EQ(c.watcher, agent().m_pThreatReportDirChangeEvent != nullptr);
        EXPECT_EQ(c.logged, LogsOf("CreateThreatReportDirChangeEvent")) << DumpLog();
    }
    agent().m_bStopRequested = false;
    EXPECT_EQ(m_dir.path(), agent().m_tstrThreatReportDir);
}

TEST_F(ReportsTest, ThreatFileIsSentAsTextUpToItsFirstNul) {
    const struct {
        std::string content;
        std::string sent;
    } cases[] = {
        {std::string("blocked host\0tail", 17), "blocked host"},
        {std::string("\0tail", 5), ""},
        {"", ""},
    };
    unsigned int now = kStartSeconds;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        Restart("de");
        SetManualUnixSeconds(++now);
        ASSERT_TRUE(WriteFile(m_dir / "incident", c.content));
        EXPECT_TRUE(agent().SaveThreatReportToFile(m_dir / "incident")) << DumpLog();
        EXPECT_EQ(
            std::vector<std::string>{"d13:ThreatReportsd14:ThreatIncident" + Str(c.sent) + "ee"},
            Sent("threat_report"));
        EXPECT_EQ(std::to_string(now), agent().m_mapHistory["last_threat_report"]);
    }
}

}  // namespace
