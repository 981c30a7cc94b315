// The agent's lifecycle across threads, its timers' first expiries, and the dispatch of
// timer and event callbacks.
#include <gtest/gtest.h>

#include "AgentTestSupport.h"
#include "AppLog.h"
#include "ExecutionContext.h"

using namespace pwtest;

namespace {

using AgentLifecycleTest = AgentFixture;

TEST_F(AgentLifecycleTest, StartsOnOneThreadAndStopsFromAnother) {
    EXPECT_FALSE(agent().Stop()) << "a stop before the start";
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLog();
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

    m_plugin.reset();  // the idle plug-in's context goes with it
    CExecutionContext* context =
        CExecutionContext::acquireInstance(CPhoneHomeAgent::kExecutionContextId);
    EXPECT_EQ(nullptr, context);
    if (context != nullptr) {
        context->releaseInstance();
    }
}

TEST_F(AgentLifecycleTest, FirstExpiries) {
    struct Case {
        std::string history;
        const char* profile;
        long long phoneHome, checkCrash;
    } cases[] = {
        {"", "", 600000, 600000},
        {"last_feedback:" + std::to_string(kStartSeconds - 86400) +
             "\nlast_crash_report:" + std::to_string(kStartSeconds + 50) + "\n",
         "<CheckCrashInterval>7200</CheckCrashInterval>", 2505600000LL, 7200000},
        {"", "<IncludeCrashReport>false</IncludeCrashReport>", 600000, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.profile);
        m_runner.reset();
        NewPlugin();
        RemoveTree(HistoryPath());
        RemoveTree(ProfilePath());
        if (!c.history.empty()) {
            WriteHistory(c.history);
        }
        if (*c.profile != '\0') {
            WriteProfile(c.profile);
        }
        StartService();
        EXPECT_EQ(c.phoneHome, Remaining(agent().m_pPhoneHomeTimer));
        EXPECT_EQ(c.checkCrash, Remaining(agent().m_pCheckCrashTimer));
        EXPECT_EQ(c.checkCrash >= 0, agent().m_pCheckCrashTimer != nullptr);
        EXPECT_EQ(600000, Remaining(agent().m_pDelayGetThreatReportDirTimer));
        EXPECT_EQ(300000, Remaining(agent().m_pPhoneHomeStarterTimer));
        EXPECT_EQ(-1, Remaining(agent().m_pPostRetryTimer));
    }
}

// Five minutes after the start the starter asks the host for the module settings; a
// failure of the callback is logged with its code and changes nothing else.
TEST_F(AgentLifecycleTest, StarterAsksTheModulesForTheirSettings) {
    for (long result : {0L, PwResult(0xFE000042)}) {
        SCOPED_TRACE(result);
        m_runner.reset();
        NewPlugin();
        ClearCapturedLogs();
        ModuleSettingsCallback callback({{"VpnPhoneHomeFile", "/nonexistent/vpn.dat"}}, result);
        m_plugin->SetPhoneHomePluginCB(&callback);
        StartService();
        AdvanceManualClock(299999);
        ASSERT_TRUE(m_runner->WaitUntilWaiting());
        EXPECT_EQ(0, callback.calls);
        AdvanceManualClock(1);
        ASSERT_TRUE(WaitUntil([&callback] { return callback.calls == 1; })) << DumpLog();
        ASSERT_TRUE(m_runner->WaitUntilWaiting());
        m_runner->Stop();
        std::string path;
        EXPECT_TRUE(agent().m_ModuleSettings.Get("VpnPhoneHomeFile", path));
        EXPECT_EQ("/nonexistent/vpn.dat", path);
        std::vector<LogRecord> failed = Failures("GetSettingsCB");
        ASSERT_EQ(result == 0 ? 0u : 1u, failed.size()) << DumpLog();
        if (result != 0) {
            EXPECT_EQ("Failed to retrieve PhoneHome settings from modules", failed[0].text);
            EXPECT_TRUE(PwResultEquals(failed[0].result, 0xFE000042));
        }
    }
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

// Failures of the loop's wait: a failed wait ends the loop, timeouts are normal turns, and
// a failed timer-list query falls back to a day's wait.
TEST_F(AgentLifecycleTest, LoopWaitFailures) {
    struct Case {
        Fault fault;
        uint32_t code;
        unsigned int count;
        bool ends;
        const char* logged;  // text logged for the failure; null: no failure of the wait
    } cases[] = {
        {Fault::WaitOnEvents, 0xFE010001, 1, true, nullptr},
        {Fault::WaitOnEvents, 0xFE01000C, 3, false, nullptr},
        {Fault::TimeToExpired, 0xFE020002, 1, false, "Defaulting to 86400 ms event wait"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        m_runner.reset();
        NewPlugin();
        ClearCapturedLogs();
        FailNext(c.fault, PwResult(c.code), c.count);
        m_runner.reset(new ServiceRunner(*m_plugin));
        if (c.ends) {
            ASSERT_TRUE(WaitUntil([this] { return m_runner->Finished(); })) << DumpLog();
            EXPECT_TRUE(HasLogText("Customer Experience Feedback module stopped"));
            EXPECT_FALSE(agent().m_bRunning);
        } else {
            ASSERT_TRUE(m_runner->WaitUntilWaiting());
            EXPECT_FALSE(m_runner->Finished());
            m_runner->Stop();
        }
        std::vector<LogRecord> failed = Failures("CEventList::WaitOnEvents");
        EXPECT_EQ(c.ends ? 1u : 0u, failed.size()) << DumpLog();
        if (!failed.empty()) {
            EXPECT_EQ(CAppLog::Error, failed[0].importance);
        }
        if (c.logged != nullptr) {
            EXPECT_TRUE(HasLogText(c.logged)) << DumpLog();
        }
    }
}

// A start that cannot make its timers or reach its context fails, logging the call.
TEST_F(AgentLifecycleTest, StartFailures) {
    struct Case {
        Fault fault;
        const char* failedCall;
        uint32_t logged;  // the result in the record; 0: the injected code
    } cases[] = {
        {Fault::CreateTimer, "CTimer", 0},
        {Fault::StartTimer, "CTimer::StartTimer", 0},
        {Fault::AcquireInstance, "CInstanceSmartPtr<CExecutionContext>", 0xFE7C000A},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.failedCall);
        NewPlugin();
        ClearCapturedLogs();
        FailNext(c.fault, c.fault == Fault::AcquireInstance ? 0 : PwResult(0xFE020002));
        EXPECT_FALSE(agent().Start());
        std::vector<LogRecord> failed = Failures(c.failedCall);
        ASSERT_EQ(1u, failed.size()) << DumpLog();
        EXPECT_EQ("Start", failed[0].function);
        EXPECT_TRUE(PwResultEquals(failed[0].result, c.logged != 0 ? c.logged : 0xFE020002));
        if (c.fault == Fault::CreateTimer) {
            EXPECT_EQ("Phone Home", failed[0].text);  // the timer's label
        }
    }
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
