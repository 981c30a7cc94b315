// A fixture for tests of the plug-in and its agent: a fresh installation tree per test
// (the test program's own, compiled in), a fixed device identifier, the log captured, the
// manual clock, posts refused on loopback, and a plug-in ready to use; plus a runner that
// starts the service on a thread of its own.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PhoneHomeAgent.h"
#include "PhoneHomeAgentTestAccess.h"
#include "PhoneHomePluginImp.h"
#include "TestSupport.h"

namespace pwtest {

// A module setting as a module deposits it through the host callback: a string, a string
// appended to a list, or an integer.
struct Setting {
    std::string key, value;
    char kind = 's';  // 's', 'l' (list item) or 'i'
};

// Whether the agent's loop waits on its event list now.
bool LoopIsWaiting();

// The host's settings callback: inserts `settings`.
struct ModuleSettingsCallback : IPhoneHomePluginCB {
    long GetSettingsCB(IBencodeSettings& settings) override;
    std::vector<Setting> settings;
};

class AgentFixture : public HostFixture {
protected:
    void SetUp() override;
    void TearDown() override;

    CPhoneHomeAgent& agent() { return *m_plugin->GetAgent(); }
    // Replaces the plug-in (and its agent, which saves its history as it goes).
    void NewPlugin();
    // A new plug-in with no history and an empty outbound directory.
    void Fresh() {
        NewPlugin();
        RemoveTree(OutboundDir());
        RemoveTree(HistoryPath());
    }
    // Initialises the agent without its loop, timers made but not armed; the test plays
    // the loop with Expire(). Clears the log.
    void Prepare();
    void Expire(unsigned long timerId) { agent().OnTimerExpired(nullptr, timerId); }
    // The starter's expiry with the host callback reporting `settings`; clears the log.
    void Deposit(const std::vector<Setting>& settings);
    long long Remaining(unsigned long timerId) {
        return PhoneHomeAgentTestAccess::RemainingMs(agent(), timerId);
    }

    // Runs the service on a thread of its own and waits until its loop waits.
    void StartService();
    // Moves the manual clock past a deadline and waits until the loop waits again.
    void Advance(unsigned long long ms);
    bool Finished() const { return m_finished; }
    void StopService();

    static std::string FeedbackDir();  // .../CustomerExperienceFeedback/
    static std::string OutboundDir() { return FeedbackDir() + "outbound/"; }
    static std::string ModuleDataDir() { return FeedbackDir() + "moduledata/"; }
    static std::string HistoryPath() { return FeedbackDir() + "history"; }
    static std::string Outbound(const std::string& kind, unsigned int n) {
        return OutboundDir() + kind + std::to_string(n) + ".cef";
    }
    // Names in the outbound directory, sorted.
    static std::vector<std::string> OutboundFiles();
    // The bencode bytes of the "QualityImprovementData" of the report at `path` (empty if none).
    static std::string DataIn(const std::string& path);
    static void WriteProfile(const std::string& innerXml);  // inside <Feedback>
    static void WriteHistory(const std::string& content) {
        ASSERT_TRUE(WriteFile(HistoryPath(), content));
    }
    static std::string History(const std::string& key);  // its value in the history file

    std::unique_ptr<CPhoneHomePlugin> m_plugin;
    std::unique_ptr<ModuleSettingsCallback> m_callback;

private:
    std::atomic<bool> m_finished{false};
    std::thread m_service;
};

}  // namespace pwtest
