// The agent's lifecycle across threads, its timers' first expiries, and the dispatch of
// timer and event callbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "AgentTestSupport.h"
#include "ExecutionContext.h"
#include "Timer.h"

using namespace pwtest;

namespace {

class CountingCallback : public IPhoneHomePluginCB {
public:
    explicit CountingCallback(long result = 0) : m_result(result) {}
    long GetSettingsCB(IBencodeSettings& settings) override {
        ++calls;
        settings.Insert("VpnPhoneHomeFile", "/nonexistent/vpn.dat", false);
        return m_result;
    }
    std::atomic<int> calls{0};

private:
    long m_result;
};

class AgentLifecycleTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        long result = 0;
        m_plugin.reset(new CPhoneHomePlugin(result));
        ASSERT_EQ(0, result);
        m_plugin->SetPhoneHomePluginCB(&m_callback);
    }
    void TearDown() override {
        m_runner.reset();
        m_plugin.reset();
        AgentFixture::TearDown();
    }
    CPhoneHomeAgent& agent() { return *m_plugin->GetAgent(); }
    void StartService() {
        m_runner.reset(new ServiceRunner(*m_plugin));
        ASSERT_TRUE(m_runner->WaitUntilWaiting()) << DumpLog();
    }
    static long long Remaining(CTimer* timer) {
        unsigned long ms = 0;
        if (timer == nullptr || !timer->RemainingMs(ms)) {
            return -1;
        }
        return static_cast<long long>(ms);
    }

    CountingCallback m_callback;
    std::unique_ptr<CPhoneHomePlugin> m_plugin;
    std::unique_ptr<ServiceRunner> m_runner;
};

TEST_F(AgentLifecycleTest, StartsOnOneThreadAndStopsFromAnother) {
    EXPECT_TRUE(PwResultEquals(m_plugin->IsPhoneHomeRunning(), 0xFFFFFFFF));
    StartService();
    EXPECT_EQ(0, m_plugin->IsPhoneHomeRunning());
    EXPECT_FALSE(agent().Start()) << "a second start while running";
    EXPECT_TRUE(HasLogText("Customer Experience Feedback module is already running"));

    EXPECT_EQ(0, m_plugin->StopPhoneHome());
    EXPECT_TRUE(PwResultEquals(m_plugin->IsPhoneHomeRunning(), 0xFFFFFFFF));
    EXPECT_TRUE(WaitUntil([this] { return m_runner->Finished(); })) << DumpLog();
    m_runner->Stop();
    EXPECT_TRUE(HasLogText("Starting Customer Experience Feedback module"));
    EXPECT_TRUE(HasLogText("Send stop event to PhoneHome agent"));
    EXPECT_TRUE(HasLogText("Customer Experience Feedback module stopped"));
    EXPECT_FALSE(agent().m_bRunning);
}

TEST_F(AgentLifecycleTest, StopBeforeStartIsRefusedSilently) {
    EXPECT_FALSE(agent().Stop());
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLog();
}

TEST_F(AgentLifecycleTest, DestroyingAnIdlePluginReleasesItsContext) {
    m_plugin.reset();
    CExecutionContext* context =
        CExecutionContext::acquireInstance(CPhoneHomeAgent::kExecutionContextId);
    EXPECT_EQ(nullptr, context);
    if (context != nullptr) {
        context->releaseInstance();
    }
}

TEST_F(AgentLifecycleTest, FirstExpiriesWithoutHistory) {
    StartService();
    EXPECT_EQ(600000, Remaining(agent().m_pPhoneHomeTimer));
    EXPECT_EQ(600000, Remaining(agent().m_pCheckCrashTimer));
    EXPECT_EQ(600000, Remaining(agent().m_pDelayGetThreatReportDirTimer));
    EXPECT_EQ(300000, Remaining(agent().m_pPhoneHomeStarterTimer));
    EXPECT_EQ(-1, Remaining(agent().m_pPostRetryTimer));
}

TEST_F(AgentLifecycleTest, FirstExpiriesFollowTheHistory) {
    WriteHistory(std::string("last_feedback:") + std::to_string(kStartSeconds - 86400) +
                 "\nlast_crash_report:" + std::to_string(kStartSeconds + 50) + "\n");
    WriteProfile("<CheckCrashInterval>7200</CheckCrashInterval>");
    StartService();
    EXPECT_EQ(2505600000LL, Remaining(agent().m_pPhoneHomeTimer));
    EXPECT_EQ(7200000, Remaining(agent().m_pCheckCrashTimer));
}

TEST_F(AgentLifecycleTest, NoCrashTimerWhenCrashReportsAreExcluded) {
    WriteProfile("<IncludeCrashReport>false</IncludeCrashReport>");
    StartService();
    EXPECT_EQ(nullptr, agent().m_pCheckCrashTimer);
    EXPECT_EQ(600000, Remaining(agent().m_pPhoneHomeTimer));
}

TEST_F(AgentLifecycleTest, StarterAsksTheModulesForTheirSettings) {
    StartService();
    AdvanceManualClock(299999);
    ASSERT_TRUE(m_runner->WaitUntilWaiting());
    EXPECT_EQ(0, m_callback.calls);
    AdvanceManualClock(1);
    ASSERT_TRUE(WaitUntil([this] { return m_callback.calls == 1; })) << DumpLog();
    ASSERT_TRUE(m_runner->WaitUntilWaiting());
    m_runner->Stop();
    std::string path;
    EXPECT_TRUE(agent().m_ModuleSettings.Get("VpnPhoneHomeFile", path));
    EXPECT_EQ("/nonexistent/vpn.dat", path);
    EXPECT_FALSE(HasLogText("Failed to retrieve PhoneHome settings from modules"));
}

TEST_F(AgentLifecycleTest, FailingSettingsCallbackIsLoggedAndPostingGoesOn) {
    CountingCallback failing(PwResult(0xFE000042));
    m_plugin->SetPhoneHomePluginCB(&failing);
    StartService();
    AdvanceManualClock(300000);
    ASSERT_TRUE(WaitUntil([&failing] { return failing.calls == 1; }));
    m_runner->Stop();
    bool logged = false;
    for (const LogRecord& record : CapturedLogs()) {
        logged |= record.failedCall == "GetSettingsCB" &&
                  record.text == "Failed to retrieve PhoneHome settings from modules" &&
                  PwResultEquals(record.result, 0xFE000042);
    }
    EXPECT_TRUE(logged) << DumpLog();
}

TEST_F(AgentLifecycleTest, UnknownTimerAndEventIdsOnlyLog) {
    for (unsigned long id : {0ul, 1ul, 7ul, 1000ul}) {
        ClearCapturedLogs();
        agent().OnTimerExpired(nullptr, id);
        EXPECT_EQ(1u, CountLogText("Unexpected timer")) << id;
    }
    ClearCapturedLogs();
    agent().OnEventSignaled(nullptr, 1);
    EXPECT_TRUE(CapturedLogs().empty());
    agent().OnEventSignaled(nullptr, 2);
    EXPECT_EQ(1u, CountLogText("Unexpected event"));
}

TEST_F(AgentLifecycleTest, FailedWaitEndsTheLoop) {
    FailNext(Fault::WaitOnEvents, PwResult(0xFE010001));
    m_runner.reset(new ServiceRunner(*m_plugin));
    ASSERT_TRUE(WaitUntil([this] { return m_runner->Finished(); })) << DumpLog();
    bool logged = false;
    for (const LogRecord& record : CapturedLogs()) {
        logged |= record.failedCall == "CEventList::WaitOnEvents" && record.importance == 69;
    }
    EXPECT_TRUE(logged) << DumpLog();
    EXPECT_TRUE(HasLogText("Customer Experience Feedback module stopped"));
    EXPECT_FALSE(agent().m_bRunning);
}

TEST_F(AgentLifecycleTest, WaitTimeoutCodeIsNormal) {
    FailNext(Fault::WaitOnEvents, PwResult(0xFE01000C), 3);
    StartService();
    m_runner->Stop();
    for (const LogRecord& record : CapturedLogs()) {
        EXPECT_NE("CEventList::WaitOnEvents", record.failedCall);
    }
}

TEST_F(AgentLifecycleTest, FailedTimerListQueryFallsBackToShortWait) {
    FailNext(Fault::TimeToExpired, PwResult(0xFE020002));
    StartService();
    m_runner->Stop();
    EXPECT_TRUE(HasLogText("Defaulting to 86400 ms event wait")) << DumpLog();
}

TEST_F(AgentLifecycleTest, TimerFailuresEndStartAndReleaseTheContext) {
    struct Case {
        Fault fault;
        const char* failedCall;
    } cases[] = {{Fault::CreateTimer, "CTimer"}, {Fault::StartTimer, "CTimer::StartTimer"}};
    for (const Case& c : cases) {
        ClearCapturedLogs();
        long result = 0;
        CPhoneHomePlugin plugin(result);
        FailNext(c.fault, PwResult(0xFE020002));
        EXPECT_FALSE(plugin.GetAgent()->Start());
        bool logged = false;
        for (const LogRecord& record : CapturedLogs()) {
            logged |= record.failedCall == c.failedCall && record.function == "Start";
            if (c.fault == Fault::CreateTimer && record.failedCall == "CTimer") {
                EXPECT_EQ("Phone Home", record.text);
            }
        }
        EXPECT_TRUE(logged) << DumpLog();
    }
}

TEST_F(AgentLifecycleTest, UnavailableContextIsReported) {
    FailNext(Fault::AcquireInstance, 0);
    EXPECT_FALSE(agent().Start());
    bool logged = false;
    for (const LogRecord& record : CapturedLogs()) {
        logged |= record.failedCall == "CInstanceSmartPtr<CExecutionContext>" &&
                  PwResultEquals(record.result, 0xFE7C000A);
    }
    EXPECT_TRUE(logged) << DumpLog();
}

TEST_F(AgentLifecycleTest, PluginDirChangedPushesTheWatcherTimerBack) {
    StartService();
    AdvanceManualClock(100000);
    ASSERT_TRUE(m_runner->WaitUntilWaiting());
    EXPECT_EQ(500000, Remaining(agent().m_pDelayGetThreatReportDirTimer));
    EXPECT_EQ(0, m_plugin->PluginDirChanged());
    EXPECT_EQ(600000, Remaining(agent().m_pDelayGetThreatReportDirTimer));
}

}  // namespace
