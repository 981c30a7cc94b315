// Events and waits: signals from other threads, dispatch on the waiting thread.
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "EventList.h"
#include "TestSupport.h"

namespace {

const unsigned int kNoLimit = 0xFFFFFFFFu;
typedef std::vector<unsigned long> Ids;

class EventListTest : public pwtest::HostFixture, public IEventCB {
protected:
    // Runs on the waiting thread; only the test's own thread waits here.
    void OnEventSignaled(void* context, unsigned long eventId) override {
        EXPECT_EQ(context, this);
        EXPECT_EQ(std::this_thread::get_id(), m_waiter);
        m_ids.push_back(eventId);
        if (m_action) {
            m_action(eventId);
        }
    }
    std::unique_ptr<CCEvent> Make(unsigned long id,
                                  CCEvent::EVENT_TYPE type = CCEvent::AUTO_RESET) {
        long result = -1;
        std::unique_ptr<CCEvent> event(new CCEvent(result, &m_list, type, this, this, id, 0,
                                                   CCEvent::HANDLE_EVENTFD, nullptr));
        EXPECT_EQ(result, pwresult::kSuccess);
        return event;
    }

    CEventList m_list;
    Ids m_ids;
    std::thread::id m_waiter = std::this_thread::get_id();
    std::function<void(unsigned long)> m_action;
};

// Auto-reset signals coalesce into one dispatch; a wait without dispatch leaves them; a
// manual-reset event stays signalled until reset.
TEST_F(EventListTest, SignalsDispatchAsTheirTypeSays) {
    std::unique_ptr<CCEvent> automatic = Make(1);
    std::unique_ptr<CCEvent> manual = Make(2, CCEvent::MANUAL_RESET);
    EXPECT_EQ(automatic->SetEvent(false), pwresult::kSuccess);
    EXPECT_EQ(automatic->SetEvent(false), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitOnEvents(0, false), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitOnEvents(1000, true), pwresult::kSuccess);
    EXPECT_EQ(m_ids, Ids{1});
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kWaitTimedOut);

    manual->SetEvent(false);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);
    EXPECT_EQ(m_ids, (Ids{1, 2, 2}));
    EXPECT_EQ(manual->ResetEvent(), pwresult::kSuccess);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kWaitTimedOut);
}

// An unlimited wait sleeps until an event set from another thread ends it, and dispatches
// on the waiting thread. Nothing wakes it meanwhile: while it is blocked, another list's
// 200 ms wait (real clock) is the only return that the framework counts.
TEST_F(EventListTest, EventFromAnotherThreadEndsAnIdleUnlimitedWait) {
    pwtest::UseRealClock();
    std::unique_ptr<CCEvent> event = Make(1);
    std::thread setter([&] {
        while (!m_list.IsWaiting()) {
            std::this_thread::yield();
        }
        CEventList timekeeper;
        uint64_t totalBefore = pwtest::TotalWaitReturns();
        EXPECT_EQ(timekeeper.WaitOnEvents(200, true), pwresult::kWaitTimedOut);
        EXPECT_EQ(pwtest::TotalWaitReturns(), totalBefore + 1);
        EXPECT_EQ(event->SetEvent(false), pwresult::kSuccess);
    });
    EXPECT_EQ(m_list.WaitOnEvents(kNoLimit, true), pwresult::kSuccess);
    setter.join();
    EXPECT_EQ(m_ids, Ids{1});
}

TEST_F(EventListTest, CallbackDeletingAnotherReadyEventRunsOnlyOnce) {
    std::unique_ptr<CCEvent> first = Make(1);
    std::unique_ptr<CCEvent> second = Make(2);
    m_action = [&](unsigned long id) { (id == 1 ? second : first).reset(); };
    first->SetEvent(false);
    second->SetEvent(false);
    EXPECT_EQ(m_list.WaitOnEvents(0, true), pwresult::kSuccess);
    EXPECT_EQ(m_ids.size(), 1u);
}

}  // namespace
