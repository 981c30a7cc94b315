// Agent settings and history: the key-colon-value reader, profile and config precedence,
// the disable marker, the sequence-number, last-post and version rules, the history file,
// and the first-expiry arithmetic.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>

#include "AgentTestSupport.h"
#include "PhoneHomeConfig.h"

using namespace pwtest;

namespace {

class AgentSettingsTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        long result = 0;
        m_plugin.reset(new CPhoneHomePlugin(result));
        ASSERT_EQ(0, result);
    }
    void TearDown() override {
        m_plugin.reset();
        AgentFixture::TearDown();
    }
    CPhoneHomeAgent& agent() { return *m_plugin->GetAgent(); }

    std::unique_ptr<CPhoneHomePlugin> m_plugin;
};

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

TEST_F(AgentSettingsTest, ConfigFileOverridesProfileAndDefaults) {
    struct Case {
        const char* profile;  // inner XML, null: no profile
        const char* config;   // null: no config file
        unsigned int feedback;
        unsigned int checkCrash;
    } cases[] = {
        {nullptr, nullptr, 2592000, 86400},
        {"<FeedbackInterval>0</FeedbackInterval>", nullptr, 2592000, 86400},
        {"<FeedbackInterval>7200</FeedbackInterval><CheckCrashInterval>60</CheckCrashInterval>",
         nullptr, 7200, 60},
        {"<FeedbackInterval>7200</FeedbackInterval>", "feedback_interval:3600\n", 3600, 86400},
        {"<FeedbackInterval>7200</FeedbackInterval>", "feedback_interval:\n", 7200, 86400},
        {nullptr, "feedback_interval: 3600\nCHECK_CRASH_INTERVAL:120\n", 3600, 120},
        {nullptr, "feedback_interval:abc\n", 0, 86400},
        {nullptr, "feedback_interval=3600\n", 2592000, 86400},
        {nullptr, "feedback_interval:-1\n", 4294967295u, 86400},
        {"<FeedbackInterval>-2</FeedbackInterval>", nullptr, 4294967294u, 86400},
    };
    for (const Case& c : cases) {
        remove((FeedbackDir() + "config").c_str());
        remove((FeedbackDir() + "CustomerExperience_Feedback.xml").c_str());
        if (c.profile != nullptr) {
            WriteProfile(c.profile);
        }
        if (c.config != nullptr) {
            WriteConfig(c.config);
        }
        long result = 0;
        CPhoneHomePlugin plugin(result);
        CPhoneHomeAgent& fresh = *plugin.GetAgent();
        fresh.m_tstrProfileFile = FeedbackDir() + "CustomerExperience_Feedback.xml";
        fresh.m_tstrConfigFile = FeedbackDir() + "config";
        fresh.LoadSettingsFromXmlFile();
        fresh.LoadSettingsFromConfigFile();
        SCOPED_TRACE(std::string(c.profile ? c.profile : "-") + " / " +
                     (c.config ? c.config : "-"));
        EXPECT_EQ(c.feedback, fresh.m_uiFeedbackInterval);
        EXPECT_EQ(c.checkCrash, fresh.m_uiCheckCrashInterval);
    }
}

TEST_F(AgentSettingsTest, ProfileSetsSwitchesAndCustomerId) {
    ASSERT_TRUE(agent().InitPhoneHomeAgent());
    EXPECT_EQ("release", agent().m_tstrCustomerID);
    EXPECT_TRUE(agent().m_bIncludeCrashReport);

    WriteProfile("<CustomerID>acme-42</CustomerID><IncludeCrashReport>false</IncludeCrashReport>");
    long result = 0;
    CPhoneHomePlugin plugin(result);
    CPhoneHomeAgent& configured = *plugin.GetAgent();
    ASSERT_TRUE(configured.InitPhoneHomeAgent());
    EXPECT_EQ("acme-42", configured.m_tstrCustomerID);
    EXPECT_FALSE(configured.m_bIncludeCrashReport);
}

TEST_F(AgentSettingsTest, BadProfilesAreLoggedAndDefaultsKept) {
    const std::string bomb =
        "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY a \"aaaaaaaaaa\">"
        "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c "
        "\"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
        "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e "
        "\"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\">"
        "<!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\"><!ENTITY g "
        "\"&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;\">"
        "<!ENTITY h \"&g;&g;&g;&g;&g;&g;&g;&g;&g;&g;\">]><Feedback><CustomerID>&h;</CustomerID>"
        "<ServiceDisable>true</ServiceDisable></Feedback>";
    const std::string cases[] = {
        "",
        "<Feedback><ServiceDisable>true</ServiceDisable>",
        "ServiceDisable: true",
        std::string("\x7f"
                    "ELF\x01\x00\x00\xff\xfe",
                    9),
        bomb,
    };
    for (const std::string& profile : cases) {
        ASSERT_TRUE(WriteFile(FeedbackDir() + "CustomerExperience_Feedback.xml", profile));
        ClearCapturedLogs();
        long result = 0;
        CPhoneHomePlugin plugin(result);
        CPhoneHomeAgent& fresh = *plugin.GetAgent();
        fresh.m_tstrProfileFile = FeedbackDir() + "CustomerExperience_Feedback.xml";
        fresh.LoadSettingsFromXmlFile();
        EXPECT_FALSE(fresh.m_bDisabled) << profile.substr(0, 30);
        EXPECT_EQ("release", fresh.m_tstrCustomerID);
        bool logged = false;
        for (const LogRecord& record : CapturedLogs()) {
            logged |= record.failedCall == "XmlParser::parseFile" && record.importance == 69;
        }
        EXPECT_TRUE(logged) << profile.substr(0, 30);
    }
}

TEST_F(AgentSettingsTest, MegabyteOfElementTextIsRead) {
    WriteProfile("<CustomerID>" + std::string(1 << 20, 'c') + "</CustomerID>");
    ASSERT_TRUE(agent().InitPhoneHomeAgent());
    EXPECT_EQ(size_t(1) << 20, agent().m_tstrCustomerID.size());
}

TEST_F(AgentSettingsTest, DisableMarkerLifecycle) {
    const std::string marker = ModuleDataDir() + "cefdisable";
    WriteProfile("<ServiceDisable>true</ServiceDisable>");
    {
        long result = 0;
        CPhoneHomePlugin plugin(result);
        EXPECT_TRUE(plugin.GetAgent()->Start());
        EXPECT_TRUE(HasLogText("Customer Experience Feedback module is disabled"));
        EXPECT_EQ(nullptr, plugin.GetAgent()->m_pPhoneHomeTimer);
        EXPECT_TRUE(FileExists(marker));
        EXPECT_EQ("", ReadFileOrEmpty(marker));
        EXPECT_FALSE(CPhoneHomeUtility::IsPhoneHomeEnabled(ModuleDataDir()));
        // The disabled agent stays marked as running: a second start is refused.
        EXPECT_FALSE(plugin.GetAgent()->Start());
        EXPECT_TRUE(HasLogText("Customer Experience Feedback module is already running"));
    }
    WriteProfile("<ServiceDisable>false</ServiceDisable>");
    {
        long result = 0;
        CPhoneHomePlugin plugin(result);
        EXPECT_FALSE(plugin.GetAgent()->InitPhoneHomeAgent());
        EXPECT_TRUE(HasLogText("Failed to remove phoneHome status file"));
        EXPECT_FALSE(FileExists(marker));
        EXPECT_TRUE(plugin.GetAgent()->InitPhoneHomeAgent());
    }
}

TEST_F(AgentSettingsTest, UnwritableMarkerFailsInitialisation) {
    WriteProfile("<ServiceDisable>true</ServiceDisable>");
    ASSERT_EQ(0, mkdir((ModuleDataDir()).c_str(), 0755));
    ASSERT_EQ(0, mkdir((ModuleDataDir() + "cefdisable").c_str(), 0755));  // not openable for write
    EXPECT_FALSE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText("Failed to create phoneHome status file"));
}

TEST_F(AgentSettingsTest, DirectoryCreationFailureStopsInitialisation) {
    FailNext(Fault::MakeDirectory, PwResult(0xFE3F0001));
    EXPECT_FALSE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText("Failed to create " + ModuleDataDir() + " Directory")) << DumpLog();

    // A file where the outbound directory should be.
    ClearCapturedLogs();
    ASSERT_TRUE(WriteFile(FeedbackDir() + "outbound", "x"));
    EXPECT_FALSE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText("Failed to create " + OutboundDir() + " Directory")) << DumpLog();
}

TEST_F(AgentSettingsTest, MachineIdIsTheHashOfTheDeviceIdOrOfTheDefault) {
    ASSERT_TRUE(agent().InitPhoneHomeAgent());
    std::string expected;
    ASSERT_TRUE(agent().SHA1Hash(kTestDeviceId, expected));
    EXPECT_EQ(expected, agent().m_tstrMachineID);

    FailNext(Fault::DeviceId, PwResult(0xFE3F0001));
    long result = 0;
    CPhoneHomePlugin plugin(result);
    ASSERT_TRUE(plugin.GetAgent()->InitPhoneHomeAgent());
    EXPECT_EQ("a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb", plugin.GetAgent()->m_tstrMachineID);
    EXPECT_TRUE(HasLogText(
        "Unable to retrieve machineID, using default: a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb"));
}

TEST_F(AgentSettingsTest, Sha1HexDigests) {
    const std::pair<std::string, std::string> vectors[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"DefaultMachineID", "a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb"},
    };
    for (const auto& v : vectors) {
        std::string out = "untouched";
        ASSERT_TRUE(agent().SHA1Hash(v.first, out));
        EXPECT_EQ(v.second, out);
    }
}

TEST_F(AgentSettingsTest, SequenceNumberAndLastPostRules) {
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
        {"last_sequence_number:100\n", 1, 0, "Illegal sequence number, using default value (1)"},
        {"last_sequence_number:7x\n", 1, 0, "Illegal sequence number, using default value (1)"},
        {"last_sequence_number:7 \n", 1, 0, "Illegal sequence number, using default value (1)"},
        {"last_sequence_number:\n", 1, 0, "Illegal sequence number, using default value (1)"},
        {"last_post:1399990000\n", 1, 1399990000, nullptr},
        {"last_post:4000000000\n", 1, 4000000000u, nullptr},
        {"last_post:\n", 1, 0, "Illegal last reported time, using default value (0)"},
        {"last_post:12:30\n", 1, 0, "Illegal last reported time, using default value (0)"},
    };
    for (const Case& c : cases) {
        WriteHistory(c.history);
        ClearCapturedLogs();
        long result = 0;
        CPhoneHomePlugin plugin(result);
        CPhoneHomeAgent& fresh = *plugin.GetAgent();
        fresh.m_tstrHistoryFile = HistoryPath();
        fresh.LoadHistory();
        SCOPED_TRACE(c.history);
        EXPECT_EQ(c.sequence, fresh.m_uiSequenceNumber);
        EXPECT_EQ(c.periodStart, fresh.m_uiCollectionPeriodStart);
        if (c.logged != nullptr) {
            EXPECT_TRUE(HasLogText(c.logged)) << DumpLog();
        } else {
            for (const LogRecord& record : CapturedLogs()) {
                EXPECT_NE(69, record.importance) << record.text;
            }
        }
    }
}

TEST_F(AgentSettingsTest, SettingsSummaryIsLoggedOnceWhenEnabled) {
    ASSERT_TRUE(agent().InitPhoneHomeAgent());
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

TEST_F(AgentSettingsTest, VersionChangeForgetsTimestampsOnly) {
    WriteHistory(
        "last_version_number:1.0.00001\nlast_sequence_number:12\nlast_post:1399000000\n"
        "last_feedback:1399000000\nlast_crash_report:1399000000\nlast_threat_report:5\n");
    ASSERT_TRUE(agent().InitPhoneHomeAgent());
    EXPECT_TRUE(HasLogText(std::string("Pathweave version changed, current version is ") +
                           phonehome::kProductVersion + "."));
    EXPECT_EQ(12u, agent().m_uiSequenceNumber);
    EXPECT_EQ(600u, agent().CalcRemainingSeconds("last_feedback", 2592000));
    EXPECT_EQ(600u, agent().CalcRemainingSeconds("last_crash_report", 86400));

    ASSERT_TRUE(agent().SaveHistoryFile());
    TextMap saved = ReadHistory();
    EXPECT_EQ(phonehome::kProductVersion, saved["last_version_number"]);
    EXPECT_EQ("12", saved["last_sequence_number"]);
    EXPECT_EQ("", saved["last_feedback"]);
    EXPECT_EQ("", saved["last_threat_report"]);
}

TEST_F(AgentSettingsTest, SameVersionKeepsTimestamps) {
    WriteHistory(std::string("last_version_number:") + phonehome::kProductVersion +
                 "\nlast_feedback:1399913600\n");
    ASSERT_TRUE(agent().InitPhoneHomeAgent());
    EXPECT_EQ(2592000u - 86400u, agent().CalcRemainingSeconds("last_feedback", 2592000));
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
    for (const char* key : {"last_sequence_number", "last_post", "last_feedback",
                            "last_crash_report", "last_threat_report"}) {
        EXPECT_EQ(1u, agent().m_mapHistory.count(key)) << key;
    }
}

TEST_F(AgentSettingsTest, UnwritableHistoryIsReported) {
    agent().m_tstrHistoryFile = FeedbackDir() + "no/such/dir/history";
    EXPECT_FALSE(agent().SaveHistoryFile());
    EXPECT_TRUE(HasLogText("Can't open hostory file for write"));
    if (FileExists("/dev/full")) {
        ClearCapturedLogs();
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
        {"", 600},
        {"0", 600},
        {"garbage", 600},
        {"1399913600", month - day},  // one day ago
        {"1397408300", 600},          // 29 d 23 h 55 min ago
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
