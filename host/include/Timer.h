// Timers.
//
// A CTimerList keeps deadlines on the host clock. TimeToExpired() gives the milliseconds to
// the earliest armed deadline; CheckExpired() fires the due ones, calling
// ITimerCB::OnTimerExpired on the calling thread without holding the list's lock (a
// callback may start or stop timers). No thread is created for timers: the owner of the
// list sleeps until the next deadline in CEventList::WaitOnEvents. StartTimer on a running
// timer re-arms it. StartTimer and StopTimer are safe from any thread; a caller on another
// thread must wake the waiting thread (an event) so that it recomputes its wait.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

class ITimerCB {
public:
    virtual void OnTimerExpired(void* context, unsigned long timerId) = 0;
    virtual ~ITimerCB() {}
};

class CTimer;

class CTimerList {
public:
    CTimerList();
    ~CTimerList();

    // `milliseconds` = time to the earliest armed deadline (0 if one is due).
    // Returns pwresult::kNoTimer when nothing is armed (then `milliseconds` = 0xFFFFFFFF).
    long TimeToExpired(unsigned long& milliseconds);
    // Fires every due timer once, earliest first. 0 on success.
    long CheckExpired();

    void Add(CTimer* timer);
    void Remove(CTimer* timer);

    CTimerList(const CTimerList&) = delete;
    CTimerList& operator=(const CTimerList&) = delete;

private:
    friend class CTimer;
    std::recursive_mutex m_mutex;
    std::vector<CTimer*> m_timers;
    CTimer* m_pFiring;  // the timer whose callback is running, if any
};

class CTimer {
public:
    CTimer(long& result, CTimerList* list, ITimerCB* callback, void* context,
           unsigned long timerId);
    virtual ~CTimer();

    // Arms (or re-arms) the timer to fire `milliseconds` from now. 0 on success.
    long StartTimer(unsigned long milliseconds);
    long StopTimer();
    bool IsRunning() const;
    // While the timer is armed: true with `milliseconds` = time left to its deadline (0 when
    // due). false when it is not armed. Safe from any thread.
    bool RemainingMs(unsigned long& milliseconds) const;
    unsigned long GetTimerId() const { return m_timerId; }

    CTimer(const CTimer&) = delete;
    CTimer& operator=(const CTimer&) = delete;

private:
    friend class CTimerList;
    CTimerList* m_pList;
    ITimerCB* m_pCallback;
    void* m_pContext;
    unsigned long m_timerId;
    bool m_bArmed;
    uint64_t m_deadlineMs;
};
