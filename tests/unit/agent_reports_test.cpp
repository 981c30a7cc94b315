// Crash and threat reports: which crash settings and files are sent, one base64 report per
// file, the 16 MiB bound; the threat watcher's set-up and the pass over the threat
// directory.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <thread>
#include <csignal>
#include <string>
#include <vector>

#include "AgentTestSupport.h"
#include "FileSystem.h"

using namespace pwtest;

namespace {

typedef CPhoneHomeAgent A;

std::string Str(const std::string& s) {
    return std::to_string(s.size()) + ":" + s;
}
std::string Crash(const std::string& module, const std::string& base64) {
    return "d12:CrashReportsd" + Str(module) + "d9:CrashData" + Str(base64) + "eee";
}
std::string Threat(const std::string& text) {
    return "d13:ThreatReportsd14:ThreatIncident" + Str(text) + "ee";
}
// Whether a descriptor of this process is open on `path`.
bool ProcessHasOpen(const std::string& path) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        if (std::filesystem::read_symlink(entry.path(), error) == path) {
            return true;
        }
    }
    return false;
}
void SetTime(const std::string& path, time_t seconds) {
    const timespec times[2] = {{seconds, 999999999}, {seconds, 999999999}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW));
}

class ReportsTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        Prepare();  // every post fails at once: the outbound files stay
    }
    // The "QualityImprovementData" of the outbound files "<kind>N.cef", in N's order.
    static std::vector<std::string> Sent(const std::string& kind) {
        std::vector<std::string> sent;
        for (unsigned int n = 0; n < 10; ++n) {
            if (FileExists(Outbound(kind, n))) {
                sent.push_back(DataIn(Outbound(kind, n)));
            }
        }
        return sent;
    }
    // The threat directory, reported and watched. Its scan lists "<dir>\*" and reads the
    // entries it finds there as "<dir>\*<name>".
    std::string WatchThreats() {
        const std::string dir = m_dir / "threats";
        EXPECT_EQ(0, mkdir(dir.c_str(), 0700) + mkdir((dir + "\\*").c_str(), 0700));
        Deposit({{"TelemetryModule", dir}});
        Expire(A::kDelayGetThreatReportDirTimerId);
        return dir + "\\*";
    }
    // A threat file `name` in the scan `listed`, created `secondsAgo`.
    static std::string ThreatFile(const std::string& listed, const std::string& name,
                                  const std::string& content, int secondsAgo) {
        const std::string path = listed + name;
        EXPECT_TRUE(WriteFile(listed + "/" + name, ""));
        EXPECT_TRUE(WriteFile(path, content));
        SetTime(path, kStartSeconds - secondsAgo);
        return path;
    }

    TempDir m_dir;
};

TEST_F(ReportsTest, CrashSettingsOfEveryShape) {
    // a/one; b/two, b/link (to a/one: refused, links are not followed there) and b/sub/;
    // beside a/ and b/ a "two" of their parent.
    const std::string a = m_dir / "a/", b = m_dir / "b", none = m_dir / "none/";
    ASSERT_NE(0, MakeSureDirectoryPathExists((b + "/sub").c_str()) *
                     MakeSureDirectoryPathExists(a.c_str()));
    ASSERT_TRUE(WriteFile(a + "one", "abc"));
    ASSERT_TRUE(WriteFile(b + "/two", std::string("\0\xff\x10", 3)));
    ASSERT_EQ(0, symlink((a + "one").c_str(), (b + "/link").c_str()));
    ASSERT_TRUE(WriteFile(m_dir / "two", "outer"));
    const std::string one = "YWJj", two = "AP8Q";
    // clang-format off
    struct Case { std::vector<Setting> settings; std::vector<std::string> sent; std::string logged; } cases[] = {
        {{}, {}, ""},
        {{{"DownloaderModule", none}, {"VpnModule", a}}, {Crash("VpnModule", one)}, ""},
        {{{"GuiModule", a, 'l'}, {"GuiModule", b + "/", 'l'}}, {Crash("GuiModule", one), Crash("GuiModule", two)}, "Can't open crash file " + b + "/link"},
        {{{"OstraModule", "5", 'i'}, {"DownloaderModule", b + "/"}}, {Crash("DownloaderModule", two)}, "Unexpected content type (0) in settings dictionary"},
        {{{"VpnModule", b}}, {Crash("VpnModule", "b3V0ZXI=")}, "Failed to get creation time of " + m_dir / "link"},
    };
    // clang-format on
    for (Case& c : cases) {
        SCOPED_TRACE(c.settings.empty() ? "" : c.settings[0].value);
        Fresh();
        Prepare();
        Deposit(c.settings);
        Expire(A::kCheckCrashTimerId);
        std::vector<std::string> sent = Sent("crash_report");
        std::sort(sent.begin(), sent.end());
        std::sort(c.sent.begin(), c.sent.end());
        EXPECT_EQ(c.sent, sent);
        EXPECT_TRUE(c.logged.empty() || HasLogText(c.logged)) << DumpLog();
        EXPECT_EQ(86400000, Remaining(A::kCheckCrashTimerId));
        EXPECT_EQ(c.sent.empty() ? -1 : 1800000, Remaining(A::kPostRetryTimerId));
    }
    EXPECT_EQ("abc", ReadFileOrEmpty(a + "one"));  // crash files stay where they are
}

TEST_F(ReportsTest, OnlyCrashFilesNewerThanTheLastReportAreSent) {
    const std::string dir = m_dir / "crash/";
    ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
    ASSERT_TRUE(WriteFile(dir + "core", "abc"));
    const unsigned int fileTime = kStartSeconds - 100;
    SetTime(dir + "core", fileTime);
    // stored: the history's "last_crash_report"
    // clang-format off
    const struct { std::string stored; bool sent; } cases[] = {
        {"", true}, {"not a time", true}, {std::to_string(fileTime - 1), true},
        {std::to_string(fileTime), false},  // the same second, though later within it
        {std::to_string(fileTime + 1), false}, {"4294967296", false},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE("stored \"" + c.stored + "\"");
        Fresh();
        WriteHistory("last_crash_report:" + c.stored + "\n");
        Prepare();
        Deposit({{"VpnModule", dir}});
        Expire(A::kCheckCrashTimerId);
        EXPECT_EQ(c.sent ? 1u : 0u, Sent("crash_report").size());
        Expire(A::kCheckCrashTimerId);  // a day later nothing new is there
        EXPECT_EQ(c.sent ? 1u : 0u, Sent("crash_report").size());
    }
}

// 16777216 bytes are encoded (and the report is then too large to post); one byte more
// means the crash directory is not the modules' own, and the process stops.
TEST_F(ReportsTest, CrashFileSizeBound) {
    const std::string dir = m_dir / "crash/";
    ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
    int fd = open((dir + "core").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_EQ(0, ftruncate(fd, 16777216));  // sparse: nothing is written
    close(fd);
    Deposit({{"VpnModule", dir}});
    Expire(A::kCheckCrashTimerId);
    EXPECT_NE(std::string::npos,
              ReadFileOrEmpty(Outbound("crash_report", 1)).find("9:CrashData22369624:AAAA"));
    EXPECT_EQ(1u, CountLogText("File size exceeds maximum size limit (16777216)")) << DumpLog();
    EXPECT_EQ(1800000, Remaining(A::kPostRetryTimerId));

    ASSERT_EQ(0, truncate((dir + "core").c_str(), 16777217));
    SetTime(dir + "core", kStartSeconds + 10);
    SetManualUnixSeconds(kStartSeconds + 20);
    const rlimit noCore = {0, 0};
    EXPECT_EXIT((setrlimit(RLIMIT_CORE, &noCore), Expire(A::kCheckCrashTimerId)),
                testing::KilledBySignal(SIGILL), "");
}

TEST_F(ReportsTest, ThreatWatcherSetUp) {
    const std::string kFailed = "Failed to create threat report dir change event";
    // logged: besides kFailed when it fails
    // clang-format off
    const struct { std::vector<Setting> settings; bool failWakeup; std::string logged; } cases[] = {
        {{}, false, "Failed to get threat directory information from settings"},
        {{{"TelemetryModule", "1", 'i'}}, false, "Failed to get threat directory information from settings"},
        {{{"TelemetryModule", ""}}, false, ""},
        {{{"TelemetryModule", ""}}, true, "SetEvent Failed"},
        {{{"TelemetryModule", m_dir.path()}}, false, ""},
    };
    // clang-format on
    for (const auto& c : cases) {
        Fresh();
        Prepare();
        Deposit(c.settings);
        if (c.failWakeup) {
            FailNext(Fault::SetEvent, pwresult::kFailure);
        }
        Expire(A::kDelayGetThreatReportDirTimerId);
        EXPECT_TRUE(c.logged.empty() || HasLogText(c.logged)) << DumpLog();
        EXPECT_EQ(!c.logged.empty(), HasLogText(kFailed)) << DumpLog();
    }
    Expire(A::kDelayGetThreatReportDirTimerId);  // a watcher once made stays: no second one
    EXPECT_TRUE(HasLogText(kFailed));
}

// One pass: every file, oldest first and one per second of creation time, becomes a threat
// report up to its first NUL and is removed; the reports are posted after the pass.
TEST_F(ReportsTest, ThreatDirectoryPass) {
    const std::string listed = WatchThreats();
    ThreatFile(listed, "late", std::string("blocked host\0tail", 17), 10);
    const std::string first = ThreatFile(listed, "early1", "first", 30);
    const std::string second = ThreatFile(listed, "early2", "second", 30);
    ThreatFile(listed, "empty", "", 20);
    SetManualUnixSeconds(kStartSeconds + 5);
    PhoneHomeAgentTestAccess::ThreatDirChanged(agent());

    // Of the two files of one second one is taken, the other stays for a later pass.
    const char* taken = FileExists(first) ? "second" : "first";
    EXPECT_EQ((std::vector<std::string>{Threat(taken), Threat(""), Threat("blocked host")}),
              Sent("threat_report"))
        << DumpLog();
    EXPECT_NE(FileExists(first), FileExists(second));
    EXPECT_FALSE(FileExists(listed + "late") || FileExists(listed + "empty"));
    EXPECT_EQ(std::to_string(kStartSeconds + 5), History("last_threat_report"));
    EXPECT_EQ(1800000, Remaining(A::kPostRetryTimerId));  // posted (and refused) after the pass
}

// A stop during the pass ends it before the next file, and nothing is posted. The oldest
// file is large (sparse): the stop is requested while the pass is reading it.
TEST_F(ReportsTest, StopDuringTheThreatPass) {
    const std::string listed = WatchThreats();
    const std::string big = ThreatFile(listed, "big", "", 20);
    ASSERT_EQ(0, truncate(big.c_str(), 256 << 20));
    SetTime(big, kStartSeconds - 20);
    const std::string later = ThreatFile(listed, "later", "later", 10);
    std::thread pass([this] { PhoneHomeAgentTestAccess::ThreatDirChanged(agent()); });
    ASSERT_TRUE(WaitUntil([&big] { return ProcessHasOpen(big); }));
    PhoneHomeAgentTestAccess::RequestStop(agent());
    pass.join();
    EXPECT_EQ(std::vector<std::string>{Threat("")}, Sent("threat_report"));
    EXPECT_TRUE(FileExists(later));
    EXPECT_EQ(-1, Remaining(A::kPostRetryTimerId));
}

}  // namespace
