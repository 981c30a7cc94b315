#include "AgentTestSupport.h"

#include <chrono>
#include <sstream>

#include "EventList.h"
#include "ExecutionContext.h"
#include "FileSystem.h"
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
