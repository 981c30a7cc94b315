// Crash and threat reports: which crash files are sent and how, the threat watcher's set-up,
// and a threat file taken in as text.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>

#include "AgentTestSupport.h"
#include "FeedbackServer.h"

using namespace pwtest;

namespace {

class ReportsTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        RefuseOutboundConnections();
        long result = 0;
        m_plugin.reset(new CPhoneHomePlugin(result));
        ASSERT_EQ(0, result);
        ASSERT_TRUE(agent().InitPhoneHomeAgent()) << DumpLog();
        ASSERT_EQ(0, mkdir(m_crash.c_str(), 0755));
    }
    void TearDown() override {
        m_plugin.reset();
        ClearRoute();
        AgentFixture::TearDown();
    }
    CPhoneHomeAgent& agent() { return *m_plugin->GetAgent(); }

    // The string under `path` (keys separated by "/") of the level-3 "QualityImprovementData"
    // in the outbound file `name`; "(missing)" when any step is absent.
    static std::string ReportValue(const std::string& name, const std::string& path) {
        errno = 0;  // the loader judges a missing file by errno alone
        EBencodeResult result = eBencodeSuccess;
        CBencodeList report(OutboundDir() + name, result, false);
        CBencodeList* level2 =
            report.Size() == 4 ? dynamic_cast<CBencodeList*>(report[3]) : nullptr;
        CBencodeDictionary* node = level2 != nullptr && level2->Size() == 3
                                       ? dynamic_cast<CBencodeDictionary*>((*level2)[2])
                                       : nullptr;
        delete report.GetStream();
        if (node == nullptr || !node->Get("QualityImprovementData", node, false)) {
            return "(missing)";
        }
        size_t start = 0;
        for (size_t slash; (slash = path.find('/', start)) != std::string::npos;
             start = slash + 1) {
            if (!node->Get(path.substr(start, slash - start), node, false)) {
                return "(missing)";
            }
        }
        std::string value = "(missing)";
        node->Get(path.substr(start), value);
        return value;
    }

    std::unique_ptr<CPhoneHomePlugin> m_plugin;
    TempDir m_dir;
    const std::string m_crash = m_dir / "crash";
};

TEST_F(ReportsTest, EveryNewCrashFileBecomesOneBase64Report) {
    ASSERT_TRUE(WriteFile(m_crash + "/a.core", std::string("core\0\x01\x02", 7)));
    CBencodeList* list = nullptr;
    ASSERT_TRUE(agent().m_ModuleSettings.Get("OstraModule", list, true));
    list->Append(m_crash + "/");
    list->Append(5LL);                                              // not a directory
    agent().m_ModuleSettings.Insert("GuiModule", 7LL);              // not a setting of this kind
    agent().m_ModuleSettings.Insert("VpnModule", m_dir / "none/");  // no such directory

    EXPECT_TRUE(agent().CheckCrashDumps());
    EXPECT_EQ(1u, CountLogText("Invalid bencode list content"));
    EXPECT_EQ(1u, CountLogText("Unexpected content type (0) in settings dictionary"));
    EXPECT_EQ("Y29yZQABAg==",
              ReportValue("crash_report1.cef", "CrashReports/OstraModule/CrashData"));
    EXPECT_EQ(std::to_string(kStartSeconds), agent().m_mapHistory["last_crash_report"]);
    EXPECT_EQ(2u, agent().m_uiSequenceNumber);
    EXPECT_EQ(3u, agent().m_uiPostRetryCount);
    EXPECT_TRUE(FileExists(m_crash + "/a.core")) << "crash files are never deleted";
}

TEST_F(ReportsTest, OnlyFilesStrictlyNewerThanTheLastCheckAreSent) {
    ASSERT_TRUE(WriteFile(m_crash + "/a.core", "x"));
    struct stat st;
    ASSERT_EQ(0, stat((m_crash + "/a.core").c_str(), &st));
    agent().m_ModuleSettings.Insert("VpnModule", m_crash + "/");
    const struct {
        long long recorded;
        bool sent;
    } cases[] = {{st.st_mtime, false}, {st.st_mtime - 1, true}};
    for (const auto& c : cases) {
        agent().m_mapHistory["last_crash_report"] = std::to_string(c.recorded);
        unsigned int before = agent().m_uiSequenceNumber;
        EXPECT_TRUE(agent().CheckCrashDumps());
        EXPECT_EQ(c.sent, agent().m_uiSequenceNumber != before) << c.recorded;
    }
}

TEST_F(ReportsTest, DirectoryWithoutFinalSlashIsReadInItsParent) {
    ASSERT_TRUE(WriteFile(m_crash + "/a.core", "x"));
    agent().m_ModuleSettings.Insert("VpnModule", m_crash);
    EXPECT_TRUE(agent().CheckCrashDumps());
    EXPECT_TRUE(HasLogText("Failed to get creation time of " + m_dir.path() + "/a.core"));
    EXPECT_EQ(1u, agent().m_uiSequenceNumber);
}

TEST_F(ReportsTest, ThreatWatcherSetUp) {
    EXPECT_FALSE(agent().FireDelayGetThreatReportDirTimer());
    EXPECT_TRUE(HasLogText("FireDelayGetThreatReportDirTimer called before creating timer"));

    EXPECT_FALSE(agent().CreateThreatReportDirChangeEvent());
    EXPECT_TRUE(HasLogText("Failed to get threat directory information from settings"));

    agent().m_ModuleSettings.Insert("TelemetryModule", std::string());
    EXPECT_TRUE(agent().CreateThreatReportDirChangeEvent());
    EXPECT_EQ(nullptr, agent().m_pThreatReportDirChangeEvent);
}

TEST_F(ReportsTest, ThreatFileIsSentUpToItsFirstNulByte) {
    ASSERT_TRUE(WriteFile(m_dir / "incident", std::string("blocked host\0tail", 17)));
    EXPECT_TRUE(agent().SaveThreatReportToFile(m_dir / "incident"));
    EXPECT_EQ("blocked host", ReportValue("threat_report1.cef", "ThreatReports/ThreatIncident"));
    EXPECT_EQ(std::to_string(kStartSeconds), agent().m_mapHistory["last_threat_report"]);

    EXPECT_FALSE(agent().SaveThreatReportToFile(m_dir / "gone"));
    EXPECT_TRUE(HasLogText("Can't open " + (m_dir / "gone")));
}

}  // namespace
