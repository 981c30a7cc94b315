// Agent settings and history: the key-colon-value reader, profile and config precedence,
// the disable marker, the sequence-number, last-post and version rules, the history file,
// and the first-expiry arithmetic.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <string>

#include "AgentTestSupport.h"
#include "AppLog.h"
#include "FileSystem.h"
#include "PhoneHomeConfig.h"

using namespace pwtest;

namespace {

using AgentSettingsTest = AgentFixture;
typedef std::map<std::string, std::string> TextMap;

TEST_F(AgentSettingsTest, KeyColonValueReader) {
    struct Case {
        std::string content;
        TextMap expected;
    } cases[] = {
        {"Feedback_Interval:3600\n", {{"feedback_interval", "3600"}}},
        {"a:b:c\n", {{"a", "b:c"}}},
        {"k:v\r\n", {{"k", "v"}}},
        {"k:v\rjunk\n", {{"k", "v"}}},
        {"#k:v\n", {}},
        {" #k:v\n", {{" #k", "v"}}},
        {"no colon here\n\n", {}},
        {"k=v\n", {}},
        {"k: v \n", {{"k", " v "}}},
        {"k:1\nk:2", {{"k", "2"}}},
        {":empty key\n", {{"", "empty key"}}},
        {"K:\n", {{"k", ""}}},
        {std::string("bin\0ary:va\0lue\n\xff\xfe:\x01\n", 20),
         {{std::string("bin\0ary", 7), std::string("va\0lue", 6)}, {"\xff\xfe", "\x01"}}},
        {"long:" + std::string(200000, 'x') + "\n", {{"long", std::string(200000, 'x')}}},
    };
    TempDir dir;
    for (const Case& c : cases) {
        ASSERT_TRUE(WriteFile(dir / "file", c.content));
        TextMap map{{"kept", "1"}};
        EXPECT_TRUE(CPhoneHomeAgent::LoadFileToMap(dir / "file", map));
        TextMap expected = c.expected;
        expected.emplace("kept", "1");
        EXPECT_EQ(expected, map) << c.content.substr(0, 40);
    }
    TextMap map;
    EXPECT_FALSE(CPhoneHomeAgent::LoadFileToMap(dir / "missing", map));
    EXPECT_TRUE(HasLogText("Can't open file " + (dir / "missing")));
}

// The config file's entries beat the profile's, which beat the defaults; a profile that
// does not parse is logged and leaves the defaults.
TEST_F(AgentSettingsTest, ConfigFileOverridesProfileAndDefaults) {
    const char* const kDefault = "release";
    struct Case {
        const char* profile;  // null: no profile
        const char* config;   // null: no config file
        unsigned int feedback, checkCrash;
        const char* customer;
        bool crashReports;
        bool parseFails;
    } cases[] = {
        {nullptr, nullptr, 2592000, 86400, kDefault, true, false},
        {"<FeedbackInterval>0</FeedbackInterval>", nullptr, 2592000, 86400, kDefault, true, false},
        {"<FeedbackInterval>7200</FeedbackInterval><CheckCrashInterval>60</CheckCrashInterval>"
         "<CustomerID>acme-42</CustomerID><IncludeCrashReport>false</IncludeCrashReport>",
         nullptr, 7200, 60, "acme-42", false, false},
        {"<FeedbackInterval>7200</FeedbackInterval>", "feedback_interval:3600\n", 3600, 86400,
         kDefault, true, false},
        {"<FeedbackInterval>7200</FeedbackInterval>", "feedback_interval:\n", 7200, 86400, kDefault,
         true, false},
        {nullptr, "feedback_interval: 3600\nCHECK_CRASH_INTERVAL:120\n", 3600, 120, kDefault, true,
         false},
        {nullptr, "feedback_interval:abc\n", 0, 86400, kDefault, true, false},
        {nullptr, "feedback_interval=3600\n", 2592000, 86400, kDefault, true, false},
        {nullptr, "feedback_interval:-1\n", 4294967295u, 86400, kDefault, true, false},
        {"<FeedbackInterval>-2</FeedbackInterval>", nullptr, 4294967294u, 86400, kDefault, true,
         false},
        // Profiles that do not parse leave the defaults, even for what came before the fault.
        {"<CustomerID>x</CustomerID><ServiceDisable>true</Service", nullptr, 2592000, 86400,
         kDefault, true, true},
        {"</Feedback>ServiceDisable: true<Feedback>", nullptr, 2592000, 86400, kDefault, true,
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.profile ? c.profile : "-") + " / " +
                     (c.config ? c.config : "-"));
        RemoveTree(FeedbackDir() + "config");
        RemoveTree(ProfilePath());
        if (c.profile != nullptr) {
            WriteProfile(c.profile);
        }
        if (c.config != nullptr) {
            ASSERT_TRUE(WriteFile(FeedbackDir() + "config", c.config));
        }
        NewPlugin();
        ClearCapturedLogs();
        agent().m_tstrProfileFile = ProfilePath();
        agent().m_tstrConfigFile = FeedbackDir() + "config";
        agent().LoadSettingsFromXmlFile();
        agent().LoadSettingsFromConfigFile();
        EXPECT_EQ(c.feedback, agent().m_uiFeedbackInterval);
        EXPECT_EQ(c.checkCrash, agent().m_uiCheckCrashInterval);
        EXPECT_EQ(c.customer, agent().m_tstrCustomerID);
        EXPECT_EQ(c.crashReports, agent().m_bIncludeCrashReport);
        EXPECT_FALSE(agent().m_bDisabled);
        std::vector<LogRecord> parseFailures = Failures("XmlParser::parseFile");
        // A missing profile is a failed parse too.
        ASSERT_EQ(c.parseFails || c.profile == nullptr ? 1u : 0u, parseFailures.size())
            << DumpLog();
        if (!parseFailures.empty()) {
            EXPECT_EQ(CAppLog::Error, parseFailures[0].importance);
        }
    }
}

TEST_F(AgentSettingsTest, DisableMarkerLifecycle) {
    const std::string marker = ModuleDataDir() + "cefdisable";
    WriteProfile("<ServiceDisable>true</ServiceDisable>");
    EXPECT_TRUE(agent().Start());
    EXPECT_TRUE(HasLogText("Customer Experience Feedback module is disabled"));
    EXPECT_EQ(nullptr, agent().m_pPhoneHomeTimer);
    EXPECT_TRUE(FileExists(marker));
    EXPECT_EQ("", ReadFileOrEmpty(marker));
    EXPECT_FALSE(CPhoneHomeUtility::IsPhoneHomeEnabled(ModuleDataDir()));
    // The disabled agent stays marked as running: a second start is refused.
    EXPECT_FALSE(agent().Start());
    EXPECT_TRUE(HasLogText("Customer Experience Feedback module is already running"));

    // Enabled again: the first initialisation removes the marker and still fails.
    WriteProfile("<ServiceDisable>false</ServiceDisable>");
    NewPlugin();
    EXPECT_FALSE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText("Failed to remove phoneHome status file"));
    EXPECT_FALSE(FileExists(marker));
    EXPECT_TRUE(agent().InitPhoneHomeAgent());
}

TEST_F(AgentSettingsTest, InitialisationFailsWhereItCannotWrite) {
    // A directory where the disable marker should be written.
    WriteProfile("<ServiceDisable>true</ServiceDisable>");
    ASSERT_NE(0, MakeSureDirectoryPathExists((ModuleDataDir() + "cefdisable").c_str()));
    EXPECT_FALSE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText("Failed to create phoneHome status file"));

    RemoveTree(FeedbackDir());
    ASSERT_NE(0, MakeSureDirectoryPathExists(FeedbackDir().c_str()));
    NewPlugin();
    FailNext(Fault::MakeDirectory, PwResult(0xFE3F0001));
    EXPECT_FALSE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText("Failed to create " + ModuleDataDir() + " Directory")) << DumpLog();

    // A file where the outbound directory should be.
    ASSERT_TRUE(WriteFile(FeedbackDir() + "outbound", "x"));
    EXPECT_FALSE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText("Failed to create " + OutboundDir() + " Directory")) << DumpLog();
}

TEST_F(AgentSettingsTest, SequenceNumberAndLastPostRules) {
    const char* const kBadNumber = "Illegal sequence number, using default value (1)";
    const char* const kBadTime = "Illegal last reported time, using default value (0)";
    struct Case {
        const char* history;
        unsigned int sequence;
        unsigned int periodStart;
        const char* logged;  // expected error text, or null for none
    } cases[] = {
        {"", 1, 0, nullptr},
        {"last_sequence_number:99\n", 99, 0, nullptr},
        {"last_sequence_number:0\n", 0, 0, nullptr},
        {"last_sequence_number: 42\n", 42, 0, nullptr},
        {"last_sequence_number:100\n", 1, 0, kBadNumber},
        {"last_sequence_number:7x\n", 1, 0, kBadNumber},
        {"last_sequence_number:7 \n", 1, 0, kBadNumber},
        {"last_sequence_number:\n", 1, 0, kBadNumber},
        {"last_post:1399990000\n", 1, 1399990000, nullptr},
        {"last_post:4000000000\n", 1, 4000000000u, nullptr},
        {"last_post:\n", 1, 0, kBadTime},
        {"last_post:12:30\n", 1, 0, kBadTime},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.history);
        NewPlugin();  // before the history: the old agent saves its own when it goes
        WriteHistory(c.history);
        ClearCapturedLogs();
        agent().m_tstrHistoryFile = HistoryPath();
        agent().LoadHistory();
        EXPECT_EQ(c.sequence, agent().m_uiSequenceNumber);
        EXPECT_EQ(c.periodStart, agent().m_uiCollectionPeriodStart);
        size_t errors = 0;
        for (const LogRecord& record : CapturedLogs()) {
            errors += record.importance == CAppLog::Error;
        }
        EXPECT_EQ(c.logged != nullptr ? 1u : 0u, errors) << DumpLog();
        if (c.logged != nullptr) {
            EXPECT_TRUE(HasLogText(c.logged)) << DumpLog();
        }
    }
}

TEST_F(AgentSettingsTest, SettingsSummaryIsLoggedOnceWithTheHashedDeviceId) {
    ASSERT_TRUE(agent().InitPhoneHomeAgent());
    EXPECT_EQ("b1775a785f09a6ebaf2dc33d6eaeb98974d9cdb8", agent().m_tstrMachineID);
    unsigned int summaries = 0;
    for (const LogRecord& record : CapturedLogs()) {
        if (record.messageId == 6300) {
            ++summaries;
            EXPECT_NE(std::string::npos, record.text.find(agent().m_tstrMachineID));
            EXPECT_NE(std::string::npos, record.text.find("2592000"));
        }
    }
    EXPECT_EQ(1u, summaries);
}

// A new product version forgets the recorded times but keeps the sequence number.
TEST_F(AgentSettingsTest, VersionChangeForgetsTimestampsOnly) {
    for (bool changed : {false, true}) {
        SCOPED_TRACE(changed);
        NewPlugin();
        WriteHistory(std::string("last_version_number:") +
                     (changed ? "1.0.00001" : phonehome::kProductVersion) +
                     "\nlast_sequence_number:12\nlast_post:1399000000\nlast_feedback:1399913600\n"
                     "last_crash_report:1399000000\nlast_threat_report:5\n");
        ClearCapturedLogs();
        ASSERT_TRUE(agent().InitPhoneHomeAgent());
        EXPECT_EQ(changed,
                  HasLogText(std::string("Pathweave version changed, current version is ") +
                             phonehome::kProductVersion + "."));
        EXPECT_EQ(12u, agent().m_uiSequenceNumber);
        EXPECT_EQ(changed ? 600u : 2592000u - 86400u,
                  agent().CalcRemainingSeconds("last_feedback", 2592000));
        ASSERT_TRUE(agent().SaveHistoryFile());
        TextMap saved = ReadHistory();
        EXPECT_EQ(phonehome::kProductVersion, saved["last_version_number"]);
        EXPECT_EQ("12", saved["last_sequence_number"]);
        EXPECT_EQ(changed ? "" : "1399913600", saved["last_feedback"]);
        EXPECT_EQ(changed ? "" : "5", saved["last_threat_report"]);
    }
}

TEST_F(AgentSettingsTest, HistoryFileLayout) {
    agent().m_tstrHistoryFile = HistoryPath();
    agent().m_uiSequenceNumber = 2;
    agent().m_mapHistory["last_feedback"] = "1400086400";
    agent().UpdateTimeInHistory("last_crash_report");
    agent().UpdateTimeInHistory(nullptr);
    ASSERT_TRUE(agent().SaveHistoryFile());
    EXPECT_EQ(std::string("last_version_number:") + phonehome::kProductVersion +
                  "\nlast_sequence_number:2\nlast_post:\nlast_feedback:1400086400\n"
                  "last_crash_report:1400000000\nlast_threat_report:\n",
              ReadFileOrEmpty(HistoryPath()));

    agent().m_tstrHistoryFile = FeedbackDir() + "no/such/dir/history";
    EXPECT_FALSE(agent().SaveHistoryFile());
    EXPECT_TRUE(HasLogText("Can't open hostory file for write"));
    if (FileExists("/dev/full")) {
        agent().m_tstrHistoryFile = "/dev/full";
        EXPECT_FALSE(agent().SaveHistoryFile());
        EXPECT_TRUE(HasLogText("Failed to update history file"));
    }
}

TEST_F(AgentSettingsTest, FirstExpiryFromHistory) {
    const unsigned int day = 86400;
    const unsigned int month = 30 * day;
    struct Case {
        const char* recorded;  // null: no entry
        unsigned int expected;
    } cases[] = {
        {nullptr, 600},
        {"garbage", 600},
        {"1399913600", month - day},  // one day ago
        {"1397408300", 600},          // 29 d 23 h 55 min ago: never less than 600
        {"1397408000", 600},          // due 5 minutes ago
        {"1300000000", 600},          // long overdue
        {"1400000100", month},        // in the future
        {" 1399913600xyz", month - day},
    };
    for (const Case& c : cases) {
        agent().m_mapHistory.clear();
        if (c.recorded != nullptr) {
            agent().m_mapHistory["last_feedback"] = c.recorded;
        }
        EXPECT_EQ(c.expected, agent().CalcRemainingSeconds("last_feedback", month))
            << (c.recorded ? c.recorded : "(absent)");
    }
}

}  // namespace
