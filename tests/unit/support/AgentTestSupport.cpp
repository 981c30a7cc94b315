#include "AgentTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "EventList.h"
#include "ExecutionContext.h"
#include "FeedbackServer.h"
#include "FileSystem.h"
#include "HostSettings.h"
#include "PhoneHomeConfig.h"

namespace pwtest {

const char* const kTestDeviceId = "0123456789abcdef0123456789abcdef";

void AgentFixture::SetUp() {
    HostFixture::SetUp();
    std::string install = phonehome::kInstallDir;
    RemoveTree(install);
    ASSERT_NE(0, MakeSureDirectoryPathExists(FeedbackDir().c_str()));
    OverrideDeviceId(kTestDeviceId);
    setenv("LC_ALL", "C", 1);
}

void AgentFixture::TearDown() {
    ClearDeviceIdOverride();
    HostFixture::TearDown();
}

std::string AgentFixture::FeedbackDir() {
    return std::string(phonehome::kInstallDir) + "/CustomerExperienceFeedback/";
}

void AgentFixture::WriteProfile(const std::string& innerXml) {
    ASSERT_TRUE(WriteFile(FeedbackDir() + "CustomerExperience_Feedback.xml",
                          "<?xml version=\"1.0\"?>\n<Feedback>" + innerXml + "</Feedback>\n"));
}

void AgentFixture::WriteConfig(const std::string& content) {
    ASSERT_TRUE(WriteFile(FeedbackDir() + "config", content));
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

ServiceRunner::ServiceRunner(CPhoneHomePlugin& plugin) : m_plugin(plugin), m_finished(false) {
    m_thread = std::thread([this] {
        m_plugin.StartPhoneHome();
        m_finished = true;
    });
}

ServiceRunner::~ServiceRunner() {
    Stop();
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

}  // namespace pwtest
