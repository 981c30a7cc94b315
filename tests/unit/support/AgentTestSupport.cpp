#include "AgentTestSupport.h"

#include <algorithm>

#include "ExecutionContext.h"
#include "FeedbackServer.h"
#include "FileSystem.h"
#include "HostSettings.h"
#include "PhoneHomeConfig.h"

namespace pwtest {

namespace {

// Sends the feedback server's connections to loopback port 1, where nothing listens, so
// that posts fail at once and never leave the machine. A FeedbackServer's Route() replaces
// the route.
void RefuseOutboundConnections() {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.connectTo = std::string(kFeedbackServerName) + ":443:127.0.0.1:1";
    pwhost::ApplyHostSettings(settings);
}

}  // namespace

bool LoopIsWaiting() {
    CExecutionContext* context =
        CExecutionContext::acquireInstance(CPhoneHomeAgent::kExecutionContextId);
    if (context == nullptr) {
        return false;
    }
    bool waiting = context->GetEventList()->IsWaiting();
    context->releaseInstance();
    return waiting;
}

long ModuleSettingsCallback::GetSettingsCB(IBencodeSettings& target) {
    for (const Setting& s : settings) {
        if (s.kind == 'i') {
            target.Insert(s.key.c_str(), std::stoll(s.value));
        } else {
            target.Insert(s.key.c_str(), s.value.c_str(), s.kind == 'l');
        }
    }
    return 0;
}

void AgentFixture::SetUp() {
    HostFixture::SetUp();
    RemoveTree(phonehome::kInstallDir);
    ASSERT_NE(0, MakeSureDirectoryPathExists(FeedbackDir().c_str()));
    OverrideDeviceId("0123456789abcdef0123456789abcdef");
    setenv("LC_ALL", "C", 1);
    RefuseOutboundConnections();
    NewPlugin();
}

void AgentFixture::TearDown() {
    StopService();
    m_plugin.reset();
    ClearRoute();
    ClearDeviceIdOverride();
    HostFixture::TearDown();
}

void AgentFixture::NewPlugin() {
    StopService();
    m_plugin.reset();
    long result = 0;
    m_plugin.reset(new CPhoneHomePlugin(result));
    ASSERT_EQ(0, result);
}

void AgentFixture::Prepare() {
    ASSERT_TRUE(PhoneHomeAgentTestAccess::Prepare(agent())) << DumpLog();
    ClearCapturedLogs();
}

void AgentFixture::Deposit(const std::vector<Setting>& settings) {
    m_callback.reset(new ModuleSettingsCallback());
    m_callback->settings = settings;
    m_plugin->SetPhoneHomePluginCB(m_callback.get());
    Expire(CPhoneHomeAgent::kPhoneHomeStarterTimerId);
    ClearCapturedLogs();
}

void AgentFixture::StartService() {
    m_finished = false;
    m_service = std::thread([this] {
        m_plugin->StartPhoneHome();
        m_finished = true;
    });
    ASSERT_TRUE(WaitUntil([this] { return m_finished || LoopIsWaiting(); })) << DumpLog();
}

void AgentFixture::Advance(unsigned long long ms) {
    const uint64_t turns = TotalWaitReturns();
    AdvanceManualClock(ms);
    ASSERT_TRUE(WaitUntil([turns] { return TotalWaitReturns() > turns; })) << DumpLog();
    ASSERT_TRUE(WaitUntil([this] { return m_finished || LoopIsWaiting(); })) << DumpLog();
}

void AgentFixture::StopService() {
    if (m_service.joinable()) {
        m_plugin->StopPhoneHome();
        m_service.join();
    }
}

std::string AgentFixture::FeedbackDir() {
    return std::string(phonehome::kInstallDir) + "/CustomerExperienceFeedback/";
}

std::vector<std::string> AgentFixture::OutboundFiles() {
    std::vector<std::string> names = pwsupport::FilesWithSuffix(OutboundDir(), "");
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& n) { return n == "." || n == ".."; }),
                names.end());
    return names;
}

std::string AgentFixture::DataIn(const std::string& path) {
    // The data dictionary is the last key of the last dictionary, closed by three "e"s.
    const std::string bytes = ReadFileOrEmpty(path), key = "22:QualityImprovementData";
    const size_t at = bytes.rfind(key), from = at + key.size();
    return at == std::string::npos || bytes.size() < from + 3
               ? ""
               : bytes.substr(from, bytes.size() - from - 3);
}

void AgentFixture::WriteProfile(const std::string& innerXml) {
    ASSERT_TRUE(WriteFile(FeedbackDir() + "CustomerExperience_Feedback.xml",
                          "<?xml version=\"1.0\"?>\n<Feedback>" + innerXml + "</Feedback>\n"));
}

std::string AgentFixture::History(const std::string& key) {
    const std::string text = "\n" + ReadFileOrEmpty(HistoryPath()), tag = "\n" + key + ":";
    const size_t at = text.find(tag), from = at + tag.size();
    return at == std::string::npos ? "" : text.substr(from, text.find('\n', from) - from);
}

}  // namespace pwtest
