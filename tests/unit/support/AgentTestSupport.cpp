#include "AgentTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "ExecutionContext.h"
#include "FeedbackServer.h"
#include "FileSystem.h"
#include "HostSettings.h"
#include "HttpSessionCurl.h"
#include "PhoneHomeConfig.h"

namespace pwtest {

namespace {

// Sends the feedback server's connections to a loopback port where nothing listens, so
// that posts fail at once and never leave the machine. A FeedbackServer's Route() replaces
// the route.
void RefuseOutboundConnections() {
    int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(s, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    // A port that was free a moment ago: bound, read back, and released unlistened.
    ASSERT_EQ(0, bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, getsockname(s, reinterpret_cast<sockaddr*>(&address), &length));
    close(s);
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.connectTo = std::string(kFeedbackServerName) +
                         ":443:127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    pwhost::ApplyHostSettings(settings);
}

bool LoopIsWaiting() {
    CExecutionContext* context =
        CExecutionContext::acquireInstance(CPhoneHomeAgent::kExecutionContextId);
    bool waiting = context != nullptr && context->GetEventList()->IsWaiting();
    if (context != nullptr) {
        context->releaseInstance();
    }
    return waiting;
}

}  // namespace

Report ParseReport(const std::string& bytes) {
    Report report;
    CBencodeStream stream("", false);
    stream.Write(bytes.data(), static_cast<unsigned int>(bytes.size()));
    CBencodeList payload(false);
    CBencodeList* level2 =
        payload.Internalize(stream) ? dynamic_cast<CBencodeList*>(payload[3]) : nullptr;
    if (level2 == nullptr || level2->Size() != 3) {
        return report;
    }
    (*level2)[0]->Get(report.start);
    (*level2)[1]->Get(report.end);
    auto* level3 = dynamic_cast<CBencodeDictionary*>((*level2)[2]);
    CBencodeDictionary* data = nullptr;
    CBencodeStream out("", false);
    if (level3 != nullptr && level3->Get("QualityImprovementData", data, false) &&
        data->Externalize(out) && out.Size() > 0) {
        report.data.assign(out.Data(), out.Size());
    }
    return report;
}

long ModuleSettingsCallback::GetSettingsCB(IBencodeSettings& settings) {
    ++calls;
    for (const Setting& s : m_settings) {
        if (s.kind == 'i') {
            settings.Insert(s.key.c_str(), std::stoll(s.value));
        } else {
            settings.Insert(s.key.c_str(), s.value.c_str(), s.kind == 'l');
        }
    }
    return m_result;
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
    CHttpSessionCurl::SetLowSpeedGuard(16, 60);
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
    m_callback.reset(new ModuleSettingsCallback(settings));
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
    std::vector<std::string> names;
    long rc = 0;
    Directory directory(rc, OutboundDir());
    std::string name;
    while (rc == 0 && directory.ReadDir(name) == 0) {
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

Report AgentFixture::ReportIn(const std::string& path) {
    return FileExists(path) ? ParseReport(ReadFileOrEmpty(path)) : Report();
}

void AgentFixture::WriteProfile(const std::string& innerXml) {
    ASSERT_TRUE(WriteFile(FeedbackDir() + "CustomerExperience_Feedback.xml",
                          "<?xml version=\"1.0\"?>\n<Feedback>" + innerXml + "</Feedback>\n"));
}

void AgentFixture::WriteHistory(const std::string& content) {
    ASSERT_TRUE(WriteFile(HistoryPath(), content));
}

std::map<std::string, std::string> AgentFixture::ReadHistory() {
    std::map<std::string, std::string> lines;
    std::istringstream in(ReadFileOrEmpty(HistoryPath()));
    std::string line;
    while (std::getline(in, line)) {
        size_t colon = line.find(':');
        if (colon != std::string::npos) {
            lines[line.substr(0, colon)] = line.substr(colon + 1);
        }
    }
    return lines;
}

}  // namespace pwtest
