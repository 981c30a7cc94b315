// Timers on the manual clock: deadlines, re-arming, and callbacks that change the list.
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "HostClock.h"
#include "HostTestControl.h"
#include "ResultCodes.h"
#include "TestSupport.h"
#include "Timer.h"

namespace {

class Recorder : public ITimerCB {
public:
    void OnTimerExpired(void* context, unsigned long timerId) override {
        fired.push_back(timerId);
        contexts.push_back(context);
        if (action) {
            action(timerId);
        }
    }
    std::vector<unsigned long> fired;
    std::vector<void*> contexts;
    std::function<void(unsigned long)> action;
};

class TimerTest : public pwtest::HostFixture {
protected:
    std::unique_ptr<CTimer> Make(unsigned long id) {
        long result = -1;
        std::unique_ptr<CTimer> timer(new CTimer(result, &m_list, &m_recorder, this, id));
        EXPECT_EQ(result, pwresult::kSuccess);
        return timer;
    }
    // Milliseconds to the next deadline, or -1 when nothing is armed.
    long long Remaining() {
        unsigned long ms = 0;
        long rc = m_list.TimeToExpired(ms);
        if (rc == pwresult::kNoTimer) {
            EXPECT_EQ(ms, 0xFFFFFFFFul);
            return -1;
        }
        EXPECT_EQ(rc, pwresult::kSuccess);
        return static_cast<long long>(ms);
    }

    CTimerList m_list;
    Recorder m_recorder;
};

struct Schedule {
    const char* name;
    std::vector<std::pair<unsigned long, unsigned long>> timers;  // id, delay
    uint64_t advance;
    std::vector<unsigned long> fired;
    long long remainingAfter;
};

TEST_F(TimerTest, FiresDueTimersEarliestFirstAndReportsTheNextDeadline) {
    const Schedule cases[] = {
        {"nothing armed", {}, 1000, {}, -1},
        {"none due yet", {{2, 100}, {3, 200}}, 99, {}, 1},
        {"exactly at the deadline", {{2, 100}}, 100, {2}, -1},
        {"only the due ones", {{2, 100}, {3, 200}}, 150, {2}, 50},
        {"earliest first", {{2, 300}, {3, 100}, {4, 200}}, 300, {3, 4, 2}, -1},
        {"ties in creation order", {{5, 100}, {4, 100}}, 100, {5, 4}, -1},
        {"zero delay", {{2, 0}}, 0, {2}, -1},
        {"thirty days", {{3, 2592000000ul}}, 2591999999ull, {}, 1},
        {"beyond the wait range", {{3, ULONG_MAX}}, 0, {}, 0xFFFFFFFEll},
    };
    for (const Schedule& c : cases) {
        SCOPED_TRACE(c.name);
        pwtest::UseManualClock(kStartSeconds);
        m_recorder.fired.clear();
        std::vector<std::unique_ptr<CTimer>> timers;
        for (const auto& t : c.timers) {
            timers.push_back(Make(t.first));
            ASSERT_EQ(timers.back()->StartTimer(t.second), pwresult::kSuccess);
        }
        pwtest::AdvanceManualClock(c.advance);
        ASSERT_EQ(m_list.CheckExpired(), pwresult::kSuccess);
        EXPECT_EQ(m_recorder.fired, c.fired);
        EXPECT_EQ(Remaining(), c.remainingAfter);
        // One-shot: a second check fires nothing more.
        m_recorder.fired.clear();
        ASSERT_EQ(m_list.CheckExpired(), pwresult::kSuccess);
        EXPECT_TRUE(m_recorder.fired.empty());
    }
}

TEST_F(TimerTest, StartingARunningTimerReArmsItAndStoppingDisarmsIt) {
    std::unique_ptr<CTimer> timer = Make(3);
    ASSERT_EQ(timer->StartTimer(1000), pwresult::kSuccess);
    pwtest::AdvanceManualClock(600);
    ASSERT_EQ(timer->StartTimer(1000), pwresult::kSuccess);
    EXPECT_EQ(Remaining(), 1000);
    unsigned long left = 0;
    EXPECT_TRUE(timer->RemainingMs(left));
    EXPECT_EQ(left, 1000u);
    pwtest::AdvanceManualClock(999);
    m_list.CheckExpired();
    EXPECT_TRUE(m_recorder.fired.empty());
    pwtest::AdvanceManualClock(1);
    m_list.CheckExpired();
    EXPECT_EQ(m_recorder.fired, std::vector<unsigned long>{3});
    EXPECT_EQ(m_recorder.contexts, std::vector<void*>{this});
    EXPECT_FALSE(timer->IsRunning());
    EXPECT_FALSE(timer->RemainingMs(left));

    timer->StartTimer(10);
    EXPECT_TRUE(timer->IsRunning());
    EXPECT_EQ(timer->StopTimer(), pwresult::kSuccess);
    EXPECT_FALSE(timer->IsRunning());
    pwtest::AdvanceManualClock(100);
    m_list.CheckExpired();
    EXPECT_EQ(m_recorder.fired.size(), 1u);
    EXPECT_EQ(Remaining(), -1);
}

// Timers 2 and 3 are both due; 2's callback acts on the list before 3's turn.
struct CallbackCase {
    const char* name;
    std::function<void(std::unique_ptr<CTimer>&, std::unique_ptr<CTimer>&,
                       std::unique_ptr<CTimer>&)>
        onTwo;
    std::vector<unsigned long> firedFirstPass;
    std::vector<unsigned long> firedSecondPass;  // after another CheckExpired, same time
};

TEST_F(TimerTest, CallbacksMayChangeTheListWhileItFires) {
    typedef std::unique_ptr<CTimer> P;
    const CallbackCase cases[] = {
        {"restarts itself at once: fires once per check",
         [](P& two, P&, P&) { two->StartTimer(0); },
         {2, 3},
         {2}},
        {"stops the other due timer", [](P&, P& three, P&) { three->StopTimer(); }, {2}, {}},
        {"deletes the other due timer", [](P&, P& three, P&) { three.reset(); }, {2}, {}},
        {"deletes itself", [](P& two, P&, P&) { two.reset(); }, {2, 3}, {}},
        {"re-arms the other due timer later",
         [](P&, P& three, P&) { three->StartTimer(50); },
         {2},
         {}},
        {"arms an idle timer for now: it fires at the next check",
         [](P&, P&, P& four) { four->StartTimer(0); },
         {2, 3},
         {4}},
    };
    for (const CallbackCase& c : cases) {
        SCOPED_TRACE(c.name);
        m_recorder.fired.clear();
        P two = Make(2), three = Make(3), four = Make(4);
        m_recorder.action = [&](unsigned long id) {
            if (id == 2) {
                c.onTwo(two, three, four);
            }
        };
        two->StartTimer(10);
        three->StartTimer(20);
        pwtest::AdvanceManualClock(20);
        m_list.CheckExpired();
        EXPECT_EQ(m_recorder.fired, c.firedFirstPass);
        m_recorder.fired.clear();
        m_recorder.action = nullptr;
        m_list.CheckExpired();
        EXPECT_EQ(m_recorder.fired, c.firedSecondPass);
    }
}

TEST_F(TimerTest, FaultSwitchesFailOneCallAndLeaveTheTimersAlone) {
    std::unique_ptr<CTimer> timer = Make(3);
    const long code = pwresult::kFaultInjected;

    pwtest::FailNext(pwtest::Fault::StartTimer, code);
    EXPECT_EQ(timer->StartTimer(10), code);
    EXPECT_FALSE(timer->IsRunning());
    ASSERT_EQ(timer->StartTimer(10), pwresult::kSuccess);

    pwtest::FailNext(pwtest::Fault::TimeToExpired, code);
    unsigned long ms = 12345;
    EXPECT_EQ(m_list.TimeToExpired(ms), code);
    EXPECT_EQ(Remaining(), 10);

    pwtest::AdvanceManualClock(10);
    pwtest::FailNext(pwtest::Fault::CheckExpired, code);
    EXPECT_EQ(m_list.CheckExpired(), code);
    EXPECT_TRUE(m_recorder.fired.empty());
    m_list.CheckExpired();
    EXPECT_EQ(m_recorder.fired, std::vector<unsigned long>{3});

    pwtest::FailNext(pwtest::Fault::CreateTimer, code);
    long result = 0;
    CTimer failed(result, &m_list, &m_recorder, nullptr, 9);
    EXPECT_EQ(result, code);
    EXPECT_EQ(failed.StartTimer(1), pwresult::kTimerFailed);
    EXPECT_EQ(Remaining(), -1);
}

// Another thread re-arms and stops a timer while the owner checks the list (for TSan).
TEST_F(TimerTest, StartAndStopFromAnotherThread) {
    std::unique_ptr<CTimer> timer = Make(5);
    std::thread other([&] {
        for (int i = 0; i < 500; ++i) {
            timer->StartTimer(i % 3);
            if (i % 7 == 0) {
                timer->StopTimer();
            }
        }
    });
    for (int i = 0; i < 500; ++i) {
        unsigned long ms = 0;
        m_list.TimeToExpired(ms);
        m_list.CheckExpired();
        if (i % 50 == 0) {
            pwtest::AdvanceManualClock(1);
        }
    }
    other.join();
    timer->StartTimer(0);
    m_recorder.fired.clear();
    m_list.CheckExpired();
    EXPECT_EQ(m_recorder.fired, std::vector<unsigned long>{5});
}

}  // namespace
