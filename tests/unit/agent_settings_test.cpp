// Agent settings and history: profile and config precedence and the key-colon-value
// reader, the disable marker, initialisation failures, the sequence-number, last-post and
// version rules, and the history file's layout.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "AgentTestSupport.h"
#include "AppLog.h"
#include "FileSystem.h"
#include "RegularFile.h"

using namespace pwtest;

namespace {

using AgentSettingsTest = AgentFixture;
typedef CPhoneHomeAgent A;

// The config file's entries beat the profile's, which beat the defaults; the intervals show
// in the timers that a "Phone Home" cycle and a crash check re-arm. A missing or broken
// profile leaves the defaults and is one error line of the agent's own, with the reason.
TEST_F(AgentSettingsTest, ConfigFileOverridesProfileAndDefaults) {
    // profile: null for none; config: null for an empty config file
    // clang-format off
    struct Case { const char* profile; const char* config; unsigned int feedback, checkCrash; bool unreadable; } cases[] = {
        {nullptr, nullptr, 2592000, 86400, true},
        {"<FeedbackInterval>0</FeedbackInterval>", nullptr, 2592000, 86400, false},
        {"<FeedbackInterval>7200</FeedbackInterval><CheckCrashInterval>60</CheckCrashInterval>", nullptr, 7200, 60, false},
        {"<FeedbackInterval>7200</FeedbackInterval>", "feedback_interval:3600\n", 3600, 86400, false},
        {"<FeedbackInterval>7200</FeedbackInterval>", "feedback_interval:\n", 7200, 86400, false},
        {"<FeedbackInterval>-2</FeedbackInterval>", nullptr, 4294967294u, 86400, false},
        {"<CheckCrashInterval>60</CheckCrashInterval><ServiceDisable>true</Service", nullptr, 2592000, 86400, true},
        {"", "Feedback_Interval: 3600\r\nCHECK_CRASH_INTERVAL:120\rjunk\n", 3600, 120, false},
        {"", "#feedback_interval:5\nfeedback_interval=5\nno colon\n\n", 2592000, 86400, false},
        {"", "feedback_interval:5\nfeedback_interval:7200:9", 7200, 86400, false},
        {"", "feedback_interval:-1\n", 4294967295u, 86400, false},
        {"", "feedback_interval:99999999999\n", 2147483647, 86400, false},
        {"", "feedback_interval:12abc\n", 12, 86400, false},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.profile ? c.profile : "-") + " / " +
                     (c.config ? c.config : "-"));
        RemoveTree(FeedbackDir() + "CustomerExperience_Feedback.xml");
        if (c.profile != nullptr) {
            WriteProfile(c.profile);
        }
        ASSERT_TRUE(WriteFile(FeedbackDir() + "config", c.config ? c.config : ""));
        NewPlugin();
        ClearCapturedLogs();
        ASSERT_TRUE(PhoneHomeAgentTestAccess::Prepare(agent()));
        std::vector<LogRecord> failed = Failures("XmlParser::parseFile");
        ASSERT_EQ(c.unreadable ? 1u : 0u, failed.size()) << DumpLog();
        EXPECT_TRUE(!c.unreadable || (failed[0].function == "LoadSettingsFromXmlFile" &&
                                      failed[0].text.find("_Feedback.xml") != std::string::npos));
        Expire(A::kPhoneHomeTimerId);
        Expire(A::kCheckCrashTimerId);
        EXPECT_EQ(static_cast<unsigned int>(c.feedback * 1000u), Remaining(A::kPhoneHomeTimerId));
        EXPECT_EQ(c.checkCrash * 1000u, Remaining(A::kCheckCrashTimerId));
    }
}

TEST_F(AgentSettingsTest, DisableMarkerLifecycle) {
    const std::string marker = ModuleDataDir() + "cefdisable";
    WriteProfile("<ServiceDisable>true</ServiceDisable>");
    EXPECT_TRUE(agent().Start());
    EXPECT_TRUE(FileExists(marker));
    EXPECT_FALSE(agent().Start()) << "the disabled agent stays marked as running";

    // Enabled again: the first initialisation removes the marker and still fails.
    WriteProfile("<ServiceDisable>false</ServiceDisable>");
    NewPlugin();
    EXPECT_FALSE(PhoneHomeAgentTestAccess::Prepare(agent()));
    EXPECT_TRUE(HasLogText("Failed to remove phoneHome status file"));
    EXPECT_FALSE(FileExists(marker));
    NewPlugin();
    EXPECT_TRUE(PhoneHomeAgentTestAccess::Prepare(agent()));
}

TEST_F(AgentSettingsTest, InitialisationFailsWhereItCannotWrite) {
    WriteProfile("<ServiceDisable>true</ServiceDisable>");
    ASSERT_NE(0, MakeSureDirectoryPathExists((ModuleDataDir() + "cefdisable").c_str()));
    EXPECT_FALSE(PhoneHomeAgentTestAccess::Prepare(agent()));
    EXPECT_TRUE(HasLogText("Failed to create phoneHome status file"));

    RemoveTree(FeedbackDir());
    ASSERT_NE(0, MakeSureDirectoryPathExists(FeedbackDir().c_str()));
    ASSERT_TRUE(WriteFile(FeedbackDir() + "outbound", "x"));  // a file where a directory goes
    NewPlugin();
    EXPECT_FALSE(PhoneHomeAgentTestAccess::Prepare(agent()));
    EXPECT_TRUE(HasLogText("Failed to create " + OutboundDir() + " Directory")) << DumpLog();
}

// The history's sequence number names the next report and its "last_post" starts the next
// collection period; bad values are reported under the agent's initialisation and replaced
// by the defaults. A new product version forgets the recorded times only.
TEST_F(AgentSettingsTest, SequenceNumberLastPostAndVersionRules) {
    const char* const kBadNumber = "Illegal sequence number, using default value (1)";
    const char* const kBadTime = "Illegal last reported time, using default value (0)";
    const std::string kChanged = std::string("Pathweave version changed, current version is ") +
                                 PW_PRODUCT_VERSION_TEXT + ".";
    // logged: empty for nothing
    // clang-format off
    struct Case { const char* history; unsigned int sequence; std::string logged; } cases[] = {
        {"", 1, ""},
        {"last_sequence_number:99\n", 99, ""},
        {"last_sequence_number:0\n", 0, ""},
        {"last_sequence_number: 42\n", 42, ""},
        {"last_sequence_number:100\n", 1, kBadNumber},
        {"last_sequence_number:7x\n", 1, kBadNumber},
        {"last_sequence_number:7 \n", 1, kBadNumber},
        {"last_sequence_number:\n", 1, kBadNumber},
        {"last_post:4000000000\n", 1, ""},
        {"last_post:\n", 1, kBadTime},
        {"last_post:12:30\n", 1, kBadTime},
        {"last_version_number:1.0.00001\nlast_sequence_number:12\nlast_threat_report:5\n", 12, kChanged},
    };
    // clang-format on
    WriteProfile("");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.history);
        NewPlugin();  // before the history: the old agent saves its own as it goes
        WriteHistory(c.history);
        ClearCapturedLogs();
        ASSERT_TRUE(PhoneHomeAgentTestAccess::Prepare(agent())) << DumpLog();
        std::string logged;
        for (const LogRecord& record : CapturedLogs()) {
            logged += record.function == "InitPhoneHomeAgent" ? record.text : "";
        }
        EXPECT_EQ(c.logged, logged) << DumpLog();
        Expire(A::kPhoneHomeTimerId);
        EXPECT_TRUE(FileExists(Outbound("feedback_data", c.sequence))) << DumpLog();
        EXPECT_EQ("", History("last_threat_report"));
    }
}

TEST_F(AgentSettingsTest, HistoryFileLayoutAndSettingsSummary) {
    ASSERT_TRUE(PhoneHomeAgentTestAccess::Prepare(agent()));
    size_t summaries = 0;  // the machine ID is the SHA-1 of the test's device identifier
    for (const LogRecord& r : CapturedLogs()) {
        summaries += r.messageId == 6300 &&
                     r.text ==
                         "Customer Experience Feedback settings: service Enabled, machine ID "
                         "b1775a785f09a6ebaf2dc33d6eaeb98974d9cdb8, customer ID release, "
                         "server https://feedback.pathweave.example/cef/upload, include crash "
                         "reports Yes, crash check interval 86400 s, feedback interval "
                         "2592000 s, next sequence number 1";
    }
    EXPECT_EQ(1u, summaries) << DumpLog();
    SetManualUnixSeconds(kStartSeconds + 7);
    Expire(A::kPhoneHomeTimerId);
    EXPECT_EQ(std::string("last_version_number:") + PW_PRODUCT_VERSION_TEXT +
                  "\nlast_sequence_number:2\nlast_post:\nlast_feedback:1400000007\n"
                  "last_crash_report:\nlast_threat_report:\n",
              ReadFileOrEmpty(HistoryPath()));
}

mode_t ModeOf(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

// History and config are read only when they are regular files of at most 1 MiB, and the
// first report and the history are written only over regular files: anything else counts
// as missing (logged once) or fails the write, and is left as it is; a FIFO never blocks
// the service. Under umask 022 reports, history and the outbound directory are still the
// owner's alone; those open to others before are tightened at start, each said once.
TEST_F(AgentSettingsTest, FilesTheServiceKeepsAreSmallPrivateRegularFiles) {
    const size_t kMiB = 1024 * 1024;
    // kind: 'f' FIFO (with a reader), 'l' link to a file, 'd' dangling link, 'o' open
    // outbound directory, 's' sparse file of `size` bytes
    // clang-format off
    struct Case { const char* name; char kind; size_t size; unsigned int sequence, feedback; bool saved; size_t open; } cases[] = {
        {"history", 's', kMiB, 42, 2592000, true, 1},
        {"history", 's', kMiB + 1, 1, 2592000, true, 1},
        {"history", 'o', 24, 42, 2592000, true, 2},
        {"history", 'f', 0, 1, 2592000, false, 0},
        {"history", 'l', 0, 42, 2592000, false, 0},
        {"config", 's', kMiB + 1, 1, 2592000, true, 0},
        {"outbound/feedback_data1.cef", 'f', 0, 1, 2592000, true, 0},
        {"outbound/feedback_data1.cef", 'd', 0, 1, 2592000, true, 0},
    };
    // clang-format on
    const mode_t previous = umask(022);
    WriteProfile("");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + c.kind + std::to_string(c.size));
        Fresh();
        const std::string path = FeedbackDir() + c.name, target = FeedbackDir() + "target";
        const std::string text = c.name == std::string("config") ? "feedback_interval:3600\n"
                                                                 : "last_sequence_number:42\n";
        ASSERT_TRUE(mkdir(OutboundDir().c_str(), c.kind == 'o' ? 0755 : 0700) == 0 &&
                    WriteFile(c.kind == 'l' ? target : path, c.kind == 'f' ? "" : text));
        ASSERT_EQ(0, c.kind == 'f'   ? unlink(path.c_str()) + mkfifo(path.c_str(), 0600)
                     : c.kind == 'l' ? symlink(target.c_str(), path.c_str())
                     : c.kind == 'd' ? unlink(path.c_str()) + symlink(target.c_str(), path.c_str())
                                     : truncate(path.c_str(), static_cast<off_t>(c.size)));
        // A reader: a write that opened the FIFO would not block but write into it.
        CFileDescriptor reader(c.kind == 'f' ? open(path.c_str(), O_RDONLY | O_NONBLOCK) : -1);
        const mode_t kind = ModeOf(path) & S_IFMT;
        ClearCapturedLogs();
        ASSERT_TRUE(PhoneHomeAgentTestAccess::Prepare(agent())) << DumpLog();
        size_t open = 0;
        for (const LogRecord& record : CapturedLogs()) {
            open += record.text.find("was open to other users") != std::string::npos;
        }
        EXPECT_EQ(c.open, open) << DumpLog();
        EXPECT_EQ(c.size > kMiB || (c.kind == 'f' && path != Outbound("feedback_data", 1)),
                  HasLogText("Can't open file " + path));
        Expire(A::kPhoneHomeTimerId);
        EXPECT_EQ(c.feedback * 1000u, Remaining(A::kPhoneHomeTimerId));
        EXPECT_EQ(!c.saved, HasLogText("Can't open hostory file for write"));
        EXPECT_EQ(kind, ModeOf(path) & S_IFMT);
        EXPECT_TRUE(c.kind == 'l' ? ReadFileOrEmpty(target) == text : !FileExists(target));
        const std::string report = Outbound("feedback_data", c.sequence);
        EXPECT_TRUE(report == path || ModeOf(report) == (S_IFREG | 0600)) << ModeOf(report);
        EXPECT_EQ(report == path || !c.saved,
                  HasLogText("Failure to create phoneHome bencode file"));
        EXPECT_EQ(S_IFDIR | 0700u, ModeOf(OutboundDir()));
        EXPECT_NE(S_IFREG | 0644u, ModeOf(HistoryPath()));
        RemoveTree(path);
        RemoveTree(target);
    }
    umask(previous);
}

}  // namespace
