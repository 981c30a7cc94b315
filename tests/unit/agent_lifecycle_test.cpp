// The agent's lifecycle across threads, its timers' first expiries, and the dispatch of
// timer and event callbacks.
#include <gtest/gtest.h>

#include "AgentTestSupport.h"
#include "AppLog.h"
#include "ExecutionContext.h"

using namespace pwtest;

namespace {

using AgentLifecycleTest = AgentFixture;
typedef CPhoneHomeAgent A;

TEST_F(AgentLifecycleTest, StartsOnOneThreadAndStopsFromAnother) {
    EXPECT_FALSE(agent().Stop()) << "a stop before the start";
    EXPECT_TRUE(PwResultEquals(m_plugin->IsPhoneHomeRunning(), 0xFFFFFFFF));
    StartService();
    EXPECT_EQ(0, m_plugin->IsPhoneHomeRunning());
    EXPECT_FALSE(agent().Start()) << "a second start while running";
    EXPECT_TRUE(HasLogText("Customer Experience Feedback module is already running"));
    EXPECT_EQ(0, m_plugin->StopPhoneHome());
    EXPECT_TRUE(WaitUntil([this] { return Finished(); })) << DumpLog();
    EXPECT_TRUE(PwResultEquals(m_plugin->IsPhoneHomeRunning(), 0xFFFFFFFF));
    EXPECT_TRUE(HasLogText("Customer Experience Feedback module stopped"));
    StopService();
    m_plugin.reset();  // the idle plug-in's context goes with it
    EXPECT_EQ(nullptr, CExecutionContext::acquireInstance(A::kExecutionContextId));
}

// The first expiry of "Phone Home" and "Check Crash" follows the history: 600 s when
// nothing (or nothing readable) is recorded or the job is overdue, the rest of the
// interval otherwise, a full interval for a time in the future. Recorded times are read as
// 32-bit longs: past 2038 they saturate into the future.
TEST_F(AgentLifecycleTest, FirstExpiriesFollowTheHistory) {
    const long long day = 86400000, month = 30 * day;
    const std::string ago1d = std::to_string(kStartSeconds - 86400);
    struct Case {
        std::string history;
        const char* profile;
        long long phoneHome, checkCrash;
    } cases[] = {
        // clang-format off
        {"", "", 600000, 600000},
        {"last_feedback:" + ago1d, "", month - day, 600000},
        {"last_feedback:garbage", "", 600000, 600000},
        {"last_feedback: " + ago1d + "xyz", "", month - day, 600000},
        {"last_feedback:" + std::to_string(kStartSeconds - 2591700), "", 600000, 600000},
        {"last_feedback:1300000000", "", 600000, 600000},
        {"last_feedback:" + std::to_string(kStartSeconds + 100), "", month, 600000},
        {"last_feedback:4294967296", "", month, 600000},
        {"last_feedback:99999999999", "", month, 600000},
        {"last_version_number:1.0.00001\nlast_feedback:" + ago1d, "", 600000, 600000},
        {"last_crash_report:" + std::to_string(kStartSeconds + 50),
         "<CheckCrashInterval>7200</CheckCrashInterval>", 600000, 7200000},
        {"", "<IncludeCrashReport>false</IncludeCrashReport>", 600000, -1},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.history + c.profile);
        NewPlugin();
        WriteHistory(c.history + "\n");
        WriteProfile(c.profile);
        StartService();
        EXPECT_EQ(c.phoneHome, Remaining(A::kPhoneHomeTimerId));
        EXPECT_EQ(c.checkCrash, Remaining(A::kCheckCrashTimerId));
        EXPECT_EQ(600000, Remaining(A::kDelayGetThreatReportDirTimerId));
        EXPECT_EQ(300000, Remaining(A::kPhoneHomeStarterTimerId));
        EXPECT_EQ(-1, Remaining(A::kPostRetryTimerId));
    }
}

// A restart a day after the last report: nothing is reported early, and the report that
// falls due carries the next sequence number.
TEST_F(AgentLifecycleTest, RestartWithRecentHistory) {
    WriteHistory(
        std::string("last_version_number:") + PW_PRODUCT_VERSION_TEXT +
        "\nlast_sequence_number:7\nlast_feedback:" + std::to_string(kStartSeconds - 86400) + "\n");
    StartService();
    Advance(600000);  // starter, threat directory, crash check
    EXPECT_TRUE(OutboundFiles().empty()) << DumpLog();
    Advance(29ull * 86400000 - 600000);
    EXPECT_EQ(std::vector<std::string>{"feedback_data7.cef"}, OutboundFiles()) << DumpLog();
    StopService();
    EXPECT_EQ("8", ReadHistory()["last_sequence_number"]);
}

// Five minutes after the start the starter asks the host for the module settings; a
// failure of the callback is logged with its code and changes nothing else.
TEST_F(AgentLifecycleTest, StarterAsksTheModulesForTheirSettings) {
    for (long result : {0L, PwResult(0xFE000042)}) {
        SCOPED_TRACE(result);
        NewPlugin();
        ModuleSettingsCallback callback({}, result);
        m_plugin->SetPhoneHomePluginCB(&callback);
        StartService();
        ClearCapturedLogs();
        Advance(300000);
        EXPECT_EQ(1, callback.calls);
        StopService();
        std::vector<LogRecord> failed = Failures("GetSettingsCB");
        ASSERT_EQ(result == 0 ? 0u : 1u, failed.size()) << DumpLog();
        if (result != 0) {
            EXPECT_TRUE(PwResultEquals(failed[0].result, 0xFE000042));
        }
    }
}

TEST_F(AgentLifecycleTest, UnknownTimerAndEventIdsOnlyLog) {
    ClearCapturedLogs();
    for (unsigned long id : {0ul, 1ul, 7ul}) {
        Expire(id);
    }
    EXPECT_EQ(3u, CountLogText("Unexpected timer"));
    agent().OnEventSignaled(nullptr, A::kWakeupEventId);
    agent().OnEventSignaled(nullptr, 2);
    EXPECT_EQ(4u, CapturedLogs().size());
    EXPECT_EQ(1u, CountLogText("Unexpected event"));
}

// A failed wait ends the loop, timeouts are normal turns, and a failed timer-list query
// falls back to a day's wait.
TEST_F(AgentLifecycleTest, LoopWaitFailures) {
    struct Case {
        Fault fault;
        uint32_t code;
        unsigned int count;
        bool ends;
        const char* failedCall;
    } cases[] = {
        // clang-format off
        {Fault::WaitOnEvents, 0xFE010001, 1, true, "CEventList::WaitOnEvents"},
        {Fault::WaitOnEvents, 0xFE01000C, 3, false, nullptr},
        {Fault::TimeToExpired, 0xFE020002, 1, false, "CTimerList::TimeToExpired"},
        // clang-format on
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        NewPlugin();
        ClearCapturedLogs();
        FailNext(c.fault, PwResult(c.code), c.count);
        StartService();
        EXPECT_EQ(c.ends, WaitUntil([this] { return Finished(); }, c.ends ? 5000 : 50));
        size_t failures = 0;
        for (const LogRecord& record : CapturedLogs()) {
            failures += record.hasResult && record.function == "Start";
        }
        EXPECT_EQ(c.failedCall ? 1u : 0u, failures) << DumpLog();
        if (c.failedCall != nullptr) {
            EXPECT_EQ(1u, Failures(c.failedCall).size()) << DumpLog();
        }
    }
}

// A start that cannot make its timers or reach its context fails, logging the call.
TEST_F(AgentLifecycleTest, StartFailures) {
    struct Case {
        Fault fault;
        const char* failedCall;
        uint32_t logged;
    } cases[] = {
        {Fault::CreateTimer, "CTimer", 0xFE020002},
        {Fault::StartTimer, "CTimer::StartTimer", 0xFE020002},
        {Fault::AcquireInstance, "CInstanceSmartPtr<CExecutionContext>", 0xFE7C000A},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.failedCall);
        NewPlugin();
        FailNext(c.fault, c.fault == Fault::AcquireInstance ? 0 : PwResult(0xFE020002));
        EXPECT_FALSE(agent().Start());
        std::vector<LogRecord> failed = Failures(c.failedCall);
        ASSERT_EQ(1u, failed.size()) << DumpLog();
        EXPECT_EQ("Start", failed[0].function);
        EXPECT_TRUE(PwResultEquals(failed[0].result, c.logged));
    }
}

TEST_F(AgentLifecycleTest, PluginDirChangedPushesTheWatcherTimerBack) {
    EXPECT_FALSE(agent().FireDelayGetThreatReportDirTimer());
    EXPECT_TRUE(HasLogText("FireDelayGetThreatReportDirTimer called before creating timer"));
    StartService();
    Advance(300000);
    EXPECT_EQ(300000, Remaining(A::kDelayGetThreatReportDirTimerId));
    EXPECT_EQ(0, m_plugin->PluginDirChanged());
    EXPECT_EQ(600000, Remaining(A::kDelayGetThreatReportDirTimerId));
}

}  // namespace
