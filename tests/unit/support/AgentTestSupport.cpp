#include "AgentTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "ExecutionContext.h"
#include "FeedbackServer.h"
#include "FileSystem.h"
#include "HostSettings.h"
#include "HttpSessionCurl.h"
#include "PhoneHomeConfig.h"

namespace pwtest {

const char* const kTestDeviceId = "0123456789abcdef0123456789abcdef";

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

}  // namespace

std::string Wire(CBencode& value) {
    CBencodeStream stream("", false);
    if (!value.Externalize(stream)) {
        ADD_FAILURE() << "externalize failed";
    }
    return stream.Size() == 0 ? "" : std::string(stream.Data(), stream.Size());
}

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
    if (level3 != nullptr && level3->Get("QualityImprovementData", data, false)) {
        report.data = Wire(*data);
    }
    return report;
}

ServiceRunner::ServiceRunner(CPhoneHomePlugin& plugin) : m_plugin(plugin), m_finished(false) {
    m_thread = std::thread([this] {
        m_plugin.StartPhoneHome();
        m_finished = true;
    });
}

bool ServiceRunner::WaitUntilWaiting(unsigned int timeoutMs) {
    return WaitUntil(
        [this] {
            if (m_finished) {
                return true;
            }
            CExecutionContext* context =
                CExecutionContext::acquireInstance(CPhoneHomeAgent::kExecutionContextId);
            if (context == nullptr) {
                return false;
            }
            bool waiting = context->GetEventList()->IsWaiting();
            context->releaseInstance();
            return waiting;
        },
        timeoutMs);
}

void ServiceRunner::Stop() {
    if (m_thread.joinable()) {
        m_plugin.StopPhoneHome();
        m_thread.join();
    }
}

long ModuleSettingsCallback::GetSettingsCB(IBencodeSettings& settings) {
    ++calls;
    for (const auto& setting : m_settings) {
        settings.Insert(setting.first.c_str(), setting.second.c_str(), false);
    }
    return m_result;
}

void AgentFixture::SetUp() {
    HostFixture::SetUp();
    RemoveTree(phonehome::kInstallDir);
    ASSERT_NE(0, MakeSureDirectoryPathExists(FeedbackDir().c_str()));
    OverrideDeviceId(kTestDeviceId);
    setenv("LC_ALL", "C", 1);
    RefuseOutboundConnections();
    NewPlugin();
}

void AgentFixture::TearDown() {
    m_runner.reset();
    m_plugin.reset();
    ClearRoute();
    CHttpSessionCurl::SetLowSpeedGuard(16, 60);
    ClearDeviceIdOverride();
    HostFixture::TearDown();
}

void AgentFixture::NewPlugin() {
    m_plugin.reset();
    long result = 0;
    m_plugin.reset(new CPhoneHomePlugin(result));
    ASSERT_EQ(0, result);
}

void AgentFixture::Prepare() {
    ASSERT_TRUE(agent().InitPhoneHomeAgent()) << DumpLog();
    for (auto timer :
         {std::make_pair(&agent().m_pPhoneHomeTimer, CPhoneHomeAgent::kPhoneHomeTimerId),
          std::make_pair(&agent().m_pPostRetryTimer, CPhoneHomeAgent::kPostRetryTimerId)}) {
        long rc = 0;
        *timer.first = new CTimer(rc, agent().m_pExecutionContext->GetTimerList(), &agent(),
                                  nullptr, timer.second);
        ASSERT_EQ(0, rc);
    }
    ClearCapturedLogs();
}

void AgentFixture::StartService() {
    m_runner.reset(new ServiceRunner(*m_plugin));
    ASSERT_TRUE(m_runner->WaitUntilWaiting()) << DumpLog();
}

long long AgentFixture::Remaining(CTimer* timer) {
    unsigned long ms = 0;
    return timer != nullptr && timer->IsRunning() && timer->RemainingMs(ms)
               ? static_cast<long long>(ms)
               : -1;
}

std::string AgentFixture::FeedbackDir() {
    return std::string(phonehome::kInstallDir) + "/CustomerExperienceFeedback/";
}

void AgentFixture::WriteProfile(const std::string& innerXml) {
    ASSERT_TRUE(WriteFile(ProfilePath(),
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

bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace pwtest
