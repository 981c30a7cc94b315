// Timers on the manual clock: deadlines, re-arming, and callbacks that change the list.
#include <climits>
#include <functional>
#include <memory>
#include <vector>

#include "TestSupport.h"
#include "Timer.h"

namespace {

typedef std::unique_ptr<CTimer> P;
typedef std::vector<unsigned long> Ids;

class TimerTest : public pwtest::HostFixture, public ITimerCB {
protected:
    void OnTimerExpired(void* context, unsigned long timerId) override {
        EXPECT_EQ(context, this);
        m_fired.push_back(timerId);
        if (m_action && timerId == 2) {
            m_action();
        }
    }
    P Make(unsigned long id) {
        long result = -1;
        P timer(new CTimer(result, &m_list, this, this, id));
        EXPECT_EQ(result, pwresult::kSuccess);
        return timer;
    }
    // Milliseconds to the next deadline, or -1 (0xFFFFFFFF) when nothing is armed.
    long long Remaining() {
        unsigned long ms = 0;
        long rc = m_list.TimeToExpired(ms);
        return rc == pwresult::kNoTimer && ms == 0xFFFFFFFFul ? -1 : static_cast<long long>(ms);
    }
    // What one CheckExpired fires.
    Ids Check() {
        m_fired.clear();
        EXPECT_EQ(m_list.CheckExpired(), pwresult::kSuccess);
        return m_fired;
    }

    CTimerList m_list;
    Ids m_fired;
    std::function<void()> m_action;  // run when timer 2 fires
};

TEST_F(TimerTest, FiresDueTimersEarliestFirstAndReportsTheNextDeadline) {
    const struct {
        const char* name;
        std::vector<std::pair<unsigned long, unsigned long>> timers;  // id, delay
        uint64_t advance;
        Ids fired;
        long long remainingAfter;
    } cases[] = {
        // clang-format off
        {"none due yet",            {{2, 100}, {3, 200}},         99,             {},        1},
        {"exactly at the deadline", {{2, 100}},                   100,            {2},       -1},
        {"only the due ones",       {{2, 100}, {3, 200}},         150,            {2},       50},
        {"earliest first",          {{2, 300}, {3, 100}, {4, 200}}, 300,          {3, 4, 2}, -1},
        {"ties in creation order",  {{5, 100}, {4, 100}},         100,            {5, 4},    -1},
        {"thirty days",             {{3, 2592000000ul}},          2591999999ull,  {},        1},
        {"beyond the wait range",   {{3, ULONG_MAX}},             0,              {},        0xFFFFFFFEll},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        pwtest::UseManualClock(kStartSeconds);
        std::vector<P> timers;
        for (const auto& t : c.timers) {
            timers.push_back(Make(t.first));
            ASSERT_EQ(timers.back()->StartTimer(t.second), pwresult::kSuccess);
        }
        pwtest::AdvanceManualClock(c.advance);
        EXPECT_EQ(Check(), c.fired);
        EXPECT_EQ(Remaining(), c.remainingAfter);
        EXPECT_EQ(Check(), Ids{});  // one-shot
    }
}

TEST_F(TimerTest, StartingARunningTimerReArmsItAndStoppingDisarmsIt) {
    P timer = Make(3);
    timer->StartTimer(1000);
    pwtest::AdvanceManualClock(600);
    timer->StartTimer(1000);
    unsigned long left = 0;
    EXPECT_TRUE(timer->RemainingMs(left) && left == 1000u);
    pwtest::AdvanceManualClock(999);
    EXPECT_EQ(Check(), Ids{});
    pwtest::AdvanceManualClock(1);
    EXPECT_EQ(Check(), Ids{3});
    timer->StartTimer(10);
    EXPECT_EQ(timer->StopTimer(), pwresult::kSuccess);
    EXPECT_FALSE(timer->IsRunning());
    pwtest::AdvanceManualClock(100);
    EXPECT_EQ(Check(), Ids{});
    EXPECT_EQ(Remaining(), -1);
}

// Timers 2 and 3 are both due; 2's callback acts on the list before 3's turn.
TEST_F(TimerTest, CallbacksMayChangeTheListWhileItFires) {
    const struct {
        const char* name;
        std::function<void(P& two, P& three, P& four)> onTwo;
        Ids first, second;  // fired by two checks at the same time
    } cases[] = {
        // clang-format off
        {"restarts itself at once",     [](P& two, P&, P&) { two->StartTimer(0); },      {2, 3}, {2}},
        {"stops the other due timer",   [](P&, P& three, P&) { three->StopTimer(); },    {2},    {}},
        {"deletes the other due timer", [](P&, P& three, P&) { three.reset(); },         {2},    {}},
        {"deletes itself",              [](P& two, P&, P&) { two.reset(); },             {2, 3}, {}},
        {"arms an idle timer for now",  [](P&, P&, P& four) { four->StartTimer(0); },    {2, 3}, {4}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        P two = Make(2), three = Make(3), four = Make(4);
        m_action = [&] { c.onTwo(two, three, four); };
        two->StartTimer(10);
        three->StartTimer(20);
        pwtest::AdvanceManualClock(20);
        EXPECT_EQ(Check(), c.first);
        m_action = nullptr;
        EXPECT_EQ(Check(), c.second);
    }
}

}  // namespace
