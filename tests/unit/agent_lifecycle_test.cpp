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
    EXPECT_EQ(0, m_plugin->StopPhoneHome());
    EXPECT_TRUE(WaitUntil([this] { return Finished(); })) << DumpLog();
    EXPECT_TRUE(PwResultEquals(m_plugin->IsPhoneHomeRunning(), 0xFFFFFFFF));
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
    // clang-format off
    struct Case { std::string history; const char* profile; long long phoneHome, checkCrash; } cases[] = {
        {"", "", 600000, 600000},
        {"last_feedback:" + ago1d, "", month - day, 600000},
        {"last_feedback:garbage", "", 600000, 600000},
        {"last_feedback: " + ago1d + "xyz", "", month - day, 600000},
        {"last_feedback:" + std::to_string(kStartSeconds - 2591700), "", 600000, 600000},
        {"last_feedback:1300000000", "", 600000, 600000},
        {"last_feedback:" + std::to_string(kStartSeconds + 100), "", month, 600000},
        {"last_feedback:4294967296", "", month, 600000},
        {"last_version_number:1.0.00001\nlast_feedback:" + ago1d, "", 600000, 600000},
        {"last_crash_report:" + std::to_string(kStartSeconds + 50),
         "<CheckCrashInterval>7200</CheckCrashInterval>", 600000, 7200000},
        {"", "<IncludeCrashReport>false</IncludeCrashReport>", 600000, -1},
    };
    // clang-format on
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

// Host failures at the start or in the loop: each is logged once, by the start, with its
// code; a failed wait ends the loop, timeouts are normal turns, and a failed timer-list
// query falls back to a day's wait.
TEST_F(AgentLifecycleTest, HostFailuresAtTheStartAndInTheLoop) {
    // clang-format off
    struct Case { Fault fault; uint32_t injected; unsigned int count; const char* failedCall; uint32_t logged; bool ends; } cases[] = {
        {Fault::CreateTimer, 0xFE020002, 1, "CTimer", 0xFE020002, true},
        {Fault::StartTimer, 0xFE020002, 1, "CTimer::StartTimer", 0xFE020002, true},
        {Fault::AcquireInstance, 0, 1, "CInstanceSmartPtr<CExecutionContext>", 0xFE7C000A, true},
        {Fault::WaitOnEvents, 0xFE010001, 1, "CEventList::WaitOnEvents", 0xFE010001, true},
        {Fault::WaitOnEvents, 0xFE01000C, 3, nullptr, 0, false},
        {Fault::TimeToExpired, 0xFE020002, 1, "CTimerList::TimeToExpired", 0xFE020002, false},
    };
    // clang-format on
    WriteProfile("");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.failedCall ? c.failedCall : "timeouts");
        NewPlugin();
        ClearCapturedLogs();
        FailNext(c.fault, PwResult(c.injected), c.count);
        if (c.ends) {
            EXPECT_FALSE(agent().Start());
        } else {
            StartService();
            EXPECT_FALSE(WaitUntil([this] { return Finished(); }, 50));
        }
        size_t logged = 0;
        for (const LogRecord& r : CapturedLogs()) {
            logged += r.hasResult && r.function == "Start" &&
                      (!c.failedCall ||
                       (r.failedCall == c.failedCall && PwResultEquals(r.result, c.logged)));
        }
        EXPECT_EQ(c.failedCall ? 1u : 0u, logged) << DumpLog();
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
