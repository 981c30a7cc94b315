// Events and waits: signals from other threads, the manual clock's deadlines, dispatch.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "EventList.h"
#include "HostClock.h"
#include "HostTestControl.h"
#include "ResultCodes.h"
#include "TestSupport.h"

namespace {

const unsigned int kNoLimit = 0xFFFFFFFFu;

class EventRecorder : public IEventCB {
public:
    void OnEventSignaled(void* context, unsigned long eventId) override {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ids.push_back(eventId);
            contexts.push_back(context);
            threads.push_back(std::this_thread::get_id());
        }
        if (action) {
            action(eventId);
        }
    }
    std::vector<unsigned long> Ids() {
        std::lock_guard<std::mutex> lock(mutex);
        return ids;
    }
    std::mutex mutex;
    std::vector<unsigned long> ids;
    std::vector<void*> contexts;
    std::vector<std::thread::id> threads;
    std::function<void(unsigned long)> action;
};

class EventListTest : public pwtest::HostFixture {
protected:
    std::unique_ptr<CCEvent> Make(unsigned long id,
                                  CCEvent::EVENT_TYPE type = CCEvent::AUTO_RESET) {
        long result = -1;
        std::unique_ptr<CCEvent> event(new CCEvent(result, &m_list, type, &m_recorder, this, id, 0,
                                                   CCEvent::HANDLE_EVENTFD, nullptr));
        EXPECT_EQ(result, pwresult::kSuccess);
        return event;
    }

    CEventList m_list;
    EventRecorder m_recorder;
};

TEST_F(EventListTest, SignalsCoalesceIntoOneDispatchThenTheWaitTimesOut) {
    std::unique_ptr<CCEvent> event = Make(1);
    EXPECT_EQ(event->SetEvent(false), pwresult::kSuccess);
    EXPECT_EQ(event->SetEvent(false), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitOnEvents(1000, true), pwresult::kSuccess);
    EXPECT_EQ(m_recorder.Ids(), std::vector<unsigned long>{1});
    EXPECT_EQ(m_recorder.contexts, std::vector<void*>{this});
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kWaitTimedOut);
    EXPECT_EQ(m_recorder.Ids().size(), 1u);
    EXPECT_EQ(m_list.WaitCount(), 2u);
}

TEST_F(EventListTest, WaitWithoutDispatchLeavesTheSignal) {
    std::unique_ptr<CCEvent> event = Make(7);
    event->SetEvent(false);
    EXPECT_EQ(m_list.WaitOnEvents(0, false), pwresult::kSuccess);
    EXPECT_TRUE(m_recorder.Ids().empty());
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);
    EXPECT_EQ(m_recorder.Ids(), std::vector<unsigned long>{7});
}

TEST_F(EventListTest, ManualResetEventStaysSignalledUntilReset) {
    std::unique_ptr<CCEvent> event = Make(2, CCEvent::MANUAL_RESET);
    event->SetEvent(false);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);
    EXPECT_EQ(m_recorder.Ids().size(), 2u);
    EXPECT_EQ(event->ResetEvent(), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kWaitTimedOut);
}

TEST_F(EventListTest, EventSetFromAnotherThreadEndsAnUnlimitedWait) {
    std::unique_ptr<CCEvent> event = Make(1);
    std::promise<long> setResult;
    std::thread setter([&] {
        // Signal a wait that is really blocked, not one that finds the signal already set.
        while (!m_list.IsWaiting()) {
            std::this_thread::yield();
        }
        setResult.set_value(event->SetEvent(false));
    });
    EXPECT_FALSE(m_list.IsWaiting());
    EXPECT_EQ(m_list.WaitOnEvents(kNoLimit, true), pwresult::kSuccess);
    setter.join();
    EXPECT_EQ(setResult.get_future().get(), pwresult::kSuccess);
    EXPECT_FALSE(m_list.IsWaiting());
    ASSERT_EQ(m_recorder.Ids(), std::vector<unsigned long>{1});
    EXPECT_EQ(m_recorder.threads[0], std::this_thread::get_id());  // dispatched by the waiter
}

// The wait ends only once the manual clock has passed its deadline, however the clock is
// advanced meanwhile.
TEST_F(EventListTest, ManualClockWaitTimesOutWhenTheClockPassesTheDeadline) {
    std::unique_ptr<CCEvent> event = Make(1);
    struct Outcome {
        long result;
        uint64_t waited;
    };
    std::future<Outcome> waiter = std::async(std::launch::async, [&] {
        uint64_t before = pwhost::HostNowMs();
        long result = m_list.WaitOnEvents(1000, true);
        return Outcome{result, pwhost::HostNowMs() - before};
    });
    for (int i = 0; i < 100000; ++i) {
        if (waiter.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) {
            break;
        }
        pwtest::AdvanceManualClock(7);
    }
    Outcome outcome = waiter.get();
    EXPECT_EQ(outcome.result, pwresult::kWaitTimedOut);
    EXPECT_GE(outcome.waited, 1000u);
    EXPECT_TRUE(m_recorder.Ids().empty());
}

// A real-clock check that nothing wakes an idle waiter: the waiter's list counts no return
// while another list waits 200 ms of real time, then one return for the event that ends it.
TEST_F(EventListTest, IdleUnlimitedWaitHasNoSpuriousWakeUps) {
    pwtest::UseRealClock();
    std::unique_ptr<CCEvent> event = Make(1);
    std::future<long> waiter =
        std::async(std::launch::async, [&] { return m_list.WaitOnEvents(kNoLimit, true); });
    CEventList timekeeper;
    uint64_t totalBefore = pwtest::TotalWaitReturns();
    EXPECT_EQ(timekeeper.WaitOnEvents(200, true), pwresult::kWaitTimedOut);
    EXPECT_EQ(m_list.WaitCount(), 0u);
    EXPECT_EQ(pwtest::TotalWaitReturns(), totalBefore + 1);
    event->SetEvent(false);
    EXPECT_EQ(waiter.get(), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitCount(), 1u);
}

TEST_F(EventListTest, CallbackDeletingAnotherReadyEventRunsOnlyOnce) {
    std::unique_ptr<CCEvent> first = Make(1);
    std::unique_ptr<CCEvent> second = Make(2);
    m_recorder.action = [&](unsigned long id) { (id == 1 ? second : first).reset(); };
    first->SetEvent(false);
    second->SetEvent(false);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);
    EXPECT_EQ(m_recorder.Ids().size(), 1u);
    m_recorder.action = nullptr;
}

TEST_F(EventListTest, FaultSwitchesFailOneCall) {
    const long code = pwresult::kFaultInjected;
    long result = 0;
    pwtest::FailNext(pwtest::Fault::CreateEvent, code);
    CCEvent failed(result, &m_list, CCEvent::AUTO_RESET, &m_recorder, nullptr, 5, 0,
                   CCEvent::HANDLE_EVENTFD, nullptr);
    EXPECT_EQ(result, code);
    EXPECT_EQ(failed.SetEvent(false), pwresult::kInvalidArgument);

    std::unique_ptr<CCEvent> event = Make(1);
    pwtest::FailNext(pwtest::Fault::SetEvent, code);
    EXPECT_EQ(event->SetEvent(false), code);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kWaitTimedOut);

    event->SetEvent(false);
    pwtest::FailNext(pwtest::Fault::WaitOnEvents, code);
    EXPECT_EQ(m_list.WaitOnEvents(kNoLimit, true), code);
    EXPECT_TRUE(m_recorder.Ids().empty());
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);  // the signal was kept
    EXPECT_EQ(m_list.WaitCount(), 3u);
}

}  // namespace
