// A fixture for tests of the plug-in and its agent: a fresh installation tree per test
// (the test program's own, compiled in), a fixed device identifier, the log captured, the
// manual clock, posts refused on loopback, and a plug-in ready to use; plus a runner that
// starts the service on a thread of its own.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "PhoneHomeAgent.h"
#include "PhoneHomePluginImp.h"
#include "TestSupport.h"

namespace pwtest {

// The device identifier every agent test runs with (its SHA-1 is the machine identifier).
extern const char* const kTestDeviceId;

// The bencode bytes of `value` (a test failure if it cannot be written).
std::string Wire(CBencode& value);

// A payload as the agent writes it: its collection period and the bencode bytes of its
// "QualityImprovementData" (-1 and empty where the payload does not have them).
struct Report {
    long long start = -1;
    long long end = -1;
    std::string data;
};
Report ParseReport(const std::string& bytes);

// Runs StartPhoneHome on its own thread; Stop() stops and joins it.
class ServiceRunner {
public:
    explicit ServiceRunner(CPhoneHomePlugin& plugin);
    ~ServiceRunner() { Stop(); }
    // Waits until the agent's loop is blocked in its wait (timers made and armed).
    bool WaitUntilWaiting(unsigned int timeoutMs = 5000);
    void Stop();
    bool Finished() const { return m_finished; }

private:
    CPhoneHomePlugin& m_plugin;
    std::atomic<bool> m_finished;
    std::thread m_thread;
};

// The host's settings callback: inserts the given module settings, counts its calls and
// returns `result`.
class ModuleSettingsCallback : public IPhoneHomePluginCB {
public:
    explicit ModuleSettingsCallback(std::map<std::string, std::string> settings, long result = 0)
        : m_settings(std::move(settings)), m_result(result) {}
    long GetSettingsCB(IBencodeSettings& settings) override;
    std::atomic<int> calls{0};

private:
    std::map<std::string, std::string> m_settings;
    long m_result;
};

class AgentFixture : public HostFixture {
protected:
    void SetUp() override;
    void TearDown() override;

    CPhoneHomeAgent& agent() { return *m_plugin->GetAgent(); }
    // Replaces the plug-in (and its agent) with a fresh one.
    void NewPlugin();
    // Initialises the agent without running its loop and gives it the "Phone Home" and "Post
    // Retry" timers; the test plays the loop by calling OnTimerExpired. Clears the log.
    void Prepare();
    void PhoneHomeExpires() { agent().OnTimerExpired(nullptr, CPhoneHomeAgent::kPhoneHomeTimerId); }
    // Runs the service and waits until its loop waits.
    void StartService();
    // Milliseconds left on `timer`, -1 when there is none or it is not running.
    static long long Remaining(CTimer* timer);

    // /.../opt/norvek/pathweave/CustomerExperienceFeedback/ (with the final slash)
    static std::string FeedbackDir();
    static std::string OutboundDir() { return FeedbackDir() + "outbound/"; }
    static std::string ModuleDataDir() { return FeedbackDir() + "moduledata/"; }
    static std::string HistoryPath() { return FeedbackDir() + "history"; }
    static std::string ProfilePath() { return FeedbackDir() + "CustomerExperience_Feedback.xml"; }

    // Writes the profile with the given elements inside <Feedback>.
    static void WriteProfile(const std::string& innerXml);
    static void WriteHistory(const std::string& content);
    // The history file's lines as key -> value.
    static std::map<std::string, std::string> ReadHistory();

    std::unique_ptr<CPhoneHomePlugin> m_plugin;
    std::unique_ptr<ServiceRunner> m_runner;
};

// Waits (polling every millisecond) until `condition` holds or `timeoutMs` passes.
bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs = 5000);

}  // namespace pwtest
