// Timers: deadlines on the host clock, fired by the list's owner from CheckExpired().
#include "Timer.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "HostClock.h"
#include "HostLogInternal.h"
#include "ResultCodes.h"
#include "TestControlInternal.h"

namespace {

const char kLogSource[] = "host/src/Timer";

// Longest wait TimeToExpired reports: one below WaitOnEvents' "no limit" value.
const uint64_t kLongestWaitMs = 0xFFFFFFFEu;

uint64_t DeadlineAfter(uint64_t now, unsigned long milliseconds) {
    uint64_t delay = static_cast<uint64_t>(milliseconds);
    if (delay > std::numeric_limits<uint64_t>::max() - now) {
        return std::numeric_limits<uint64_t>::max();
    }
    return now + delay;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// CTimerList

CTimerList::CTimerList() : m_pFiring(nullptr) {}

CTimerList::~CTimerList() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (CTimer* timer : m_timers) {
        timer->m_pList = nullptr;
        timer->m_bArmed = false;
    }
    m_timers.clear();
}

long CTimerList::TimeToExpired(unsigned long& milliseconds) {
    long code = 0;
    if (PWHOST_TEST_FAULT(TimeToExpired, code)) {
        return code;
    }
    const uint64_t now = pwhost::HostNowMs();
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    bool any = false;
    uint64_t earliest = 0;
    for (const CTimer* timer : m_timers) {
        if (timer->m_bArmed && (!any || timer->m_deadlineMs < earliest)) {
            earliest = timer->m_deadlineMs;
            any = true;
        }
    }
    if (!any) {
        milliseconds = 0xFFFFFFFFul;
        return pwresult::kNoTimer;
    }
    milliseconds =
        static_cast<unsigned long>(earliest > now ? std::min(earliest - now, kLongestWaitMs) : 0);
    return pwresult::kSuccess;
}

// Takes the due timers as they stand now, then fires each one that is still registered,
// armed and due when its turn comes: a callback may stop, re-arm or delete any timer. The
// lock is never held across a callback.
long CTimerList::CheckExpired() {
    long code = 0;
    if (PWHOST_TEST_FAULT(CheckExpired, code)) {
        return code;
    }
    const uint64_t now = pwhost::HostNowMs();
    std::vector<std::pair<uint64_t, CTimer*>> due;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        for (CTimer* timer : m_timers) {
            if (timer->m_bArmed && timer->m_deadlineMs <= now) {
                due.emplace_back(timer->m_deadlineMs, timer);
            }
        }
    }
    std::stable_sort(due.begin(), due.end(),
                     [](const std::pair<uint64_t, CTimer*>& a,
                        const std::pair<uint64_t, CTimer*>& b) { return a.first < b.first; });
    for (const auto& entry : due) {
        CTimer* timer = entry.second;
        ITimerCB* callback = nullptr;
        void* context = nullptr;
        unsigned long timerId = 0;
        {
            std::lock_guard<std::recursive_mutex> lock(m_mutex);
            if (std::find(m_timers.begin(), m_timers.end(), timer) == m_timers.end() ||
                !timer->m_bArmed || timer->m_deadlineMs > now) {
                continue;
            }
            timer->m_bArmed = false;
            m_pFiring = timer;
            callback = timer->m_pCallback;
            context = timer->m_pContext;
            timerId = timer->m_timerId;
        }
        callback->OnTimerExpired(context, timerId);
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_pFiring == timer) {
            m_pFiring = nullptr;
        }
    }
    return pwresult::kSuccess;
}

void CTimerList::Add(CTimer* timer) {
    if (timer == nullptr) {
        (void)PWHOST_REFUSE(0, "no timer to add");
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (std::find(m_timers.begin(), m_timers.end(), timer) == m_timers.end()) {
        m_timers.push_back(timer);
    }
    timer->m_pList = this;
}

void CTimerList::Remove(CTimer* timer) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    auto found = std::find(m_timers.begin(), m_timers.end(), timer);
    if (found != m_timers.end()) {
        m_timers.erase(found);
    }
    if (m_pFiring == timer) {
        m_pFiring = nullptr;
    }
}

// ---------------------------------------------------------------------------------------
// CTimer

CTimer::CTimer(long& result, CTimerList* list, ITimerCB* callback, void* context,
               unsigned long timerId)
    : m_pList(nullptr),
      m_pCallback(callback),
      m_pContext(context),
      m_timerId(timerId),
      m_bArmed(false),
      m_deadlineMs(0) {
    long code = 0;
    if (PWHOST_TEST_FAULT(CreateTimer, code)) {
        result = code;
        return;
    }
    if (list == nullptr || callback == nullptr) {
        result = PWHOST_REFUSE(pwresult::kInvalidArgument, "timer %lu: no timer list or callback",
                               timerId);
        return;
    }
    list->Add(this);
    result = pwresult::kSuccess;
}

CTimer::~CTimer() {
    if (m_pList != nullptr) {
        m_pList->Remove(this);
    }
}

long CTimer::StartTimer(unsigned long milliseconds) {
    long code = 0;
    if (PWHOST_TEST_FAULT(StartTimer, code)) {
        return code;
    }
    if (m_pList == nullptr) {
        return pwresult::kTimerFailed;
    }
    const uint64_t deadline = DeadlineAfter(pwhost::HostNowMs(), milliseconds);
    std::lock_guard<std::recursive_mutex> lock(m_pList->m_mutex);
    m_deadlineMs = deadline;
    m_bArmed = true;
    return pwresult::kSuccess;
}

long CTimer::StopTimer() {
    if (m_pList == nullptr) {
        return pwresult::kTimerFailed;
    }
    std::lock_guard<std::recursive_mutex> lock(m_pList->m_mutex);
    m_bArmed = false;
    return pwresult::kSuccess;
}

bool CTimer::IsRunning() const {
    if (m_pList == nullptr) {
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(m_pList->m_mutex);
    return m_bArmed;
}

bool CTimer::RemainingMs(unsigned long& milliseconds) const {
    if (m_pList == nullptr) {
        return false;
    }
    const uint64_t now = pwhost::HostNowMs();
    std::lock_guard<std::recursive_mutex> lock(m_pList->m_mutex);
    if (!m_bArmed) {
        return false;
    }
    milliseconds = static_cast<unsigned long>(
        m_deadlineMs > now ? std::min(m_deadlineMs - now, kLongestWaitMs) : 0);
    return true;
}
