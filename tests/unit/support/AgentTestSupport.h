// A fixture for tests of the plug-in and its agent: a fresh installation tree per test
// (the test program's own, compiled in), a fixed device identifier, the log captured and
// the manual clock; plus a runner that starts the service on a thread of its own.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "PhoneHomeAgent.h"
#include "PhoneHomePluginImp.h"
#include "TestSupport.h"

namespace pwtest {

// SHA-1 of kTestDeviceId, as the agent reports it.
extern const char* const kTestDeviceId;

class AgentFixture : public HostFixture {
protected:
    void SetUp() override;
    void TearDown() override;

    // /.../opt/norvek/pathweave/CustomerExperienceFeedback/ (with the final slash)
    static std::string FeedbackDir();
    static std::string OutboundDir() { return FeedbackDir() + "outbound/"; }
    static std::string ModuleDataDir() { return FeedbackDir() + "moduledata/"; }
    static std::string HistoryPath() { return FeedbackDir() + "history"; }

    // Writes the profile with the given elements inside <Feedback>.
    static void WriteProfile(const std::string& innerXml);
    static void WriteConfig(const std::string& content);
    static void WriteHistory(const std::string& content);
    // The history file's lines as key -> value.
    static std::map<std::string, std::string> ReadHistory();
};

// Sends the feedback server's connections to a loopback port where nothing listens, so
// that posts fail at once and never leave the machine.
// FeedbackServer.h's ClearRoute() takes the route away again.
void RefuseOutboundConnections();

// Waits (polling every millisecond) until `condition` holds or `timeoutMs` passes.
bool WaitUntil(const std::function<bool()>& condition, unsigned int timeoutMs = 5000);

// Runs StartPhoneHome on its own thread; Stop() stops and joins it.
class ServiceRunner {
public:
    explicit ServiceRunner(CPhoneHomePlugin& plugin);
    ~ServiceRunner();
    // Waits until the agent's loop is blocked in its wait (timers made and armed).
    bool WaitUntilWaiting(unsigned int timeoutMs = 5000);
    void Stop();
    bool Finished() const { return m_finished; }

private:
    CPhoneHomePlugin& m_plugin;
    std::atomic<bool> m_finished;
    std::thread m_thread;
};

}  // namespace pwtest
