// Events and the event list.
//
// CCEvent is an eventfd registered with a CEventList. SetEvent() may be called from any
// thread. CEventList::WaitOnEvents() is one poll over the list's event descriptors and
// watcher descriptors; it dispatches IEventCB::OnEventSignaled and watcher callbacks on the
// waiting thread. Only one thread waits on a list. An event must be destroyed before its
// list, and not while its list is being waited on by another thread.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

class IEventCB {
public:
    virtual void OnEventSignaled(void* context, unsigned long eventId) = 0;
    virtual ~IEventCB() {}
};

class CCEvent;

class CEventList {
public:
    CEventList();
    ~CEventList();

    // Waits up to `milliseconds` (0xFFFFFFFF: no limit) for an event or a watcher to
    // become ready. With `dispatch`, callbacks of the ready ones run before the return.
    // Returns 0 when something fired, pwresult::kWaitTimedOut when the time passed (both
    // normal), another code on failure. Under a manual host clock the time limit is
    // measured on that clock: the wait ends when a test advances it past the deadline.
    long WaitOnEvents(unsigned int milliseconds, bool dispatch);

    // Framework-internal: readable descriptors that join the poll (directory watchers).
    // The callback runs on the waiting thread when `fd` is readable.
    typedef std::function<void()> ReadyCallback;
    long AddWatcher(int fd, ReadyCallback callback);
    void RemoveWatcher(int fd);

    void AddEvent(CCEvent* event);
    void RemoveEvent(CCEvent* event);

    // Number of returns from WaitOnEvents since the list was made (measuring idle wake-ups).
    uint64_t WaitCount() const;
    // true while a thread is blocked in WaitOnEvents (not while it runs callbacks), so that
    // another thread can tell that the owner has gone idle.
    bool IsWaiting() const;

    CEventList(const CEventList&) = delete;
    CEventList& operator=(const CEventList&) = delete;

private:
    friend class CCEvent;
    struct Watcher {
        int fd;
        ReadyCallback callback;
    };
    long AddEventChecked(CCEvent* event);
    long WaitLoop(unsigned int milliseconds, bool dispatch);
    void DispatchReady(int fd);
    void SetWaiting(bool waiting);

    mutable std::mutex m_mutex;
    std::vector<CCEvent*> m_events;
    std::vector<Watcher> m_watchers;
    uint64_t m_waitCount;
    bool m_bWaiting;
    int m_epollFd;  // every event and watcher descriptor, plus the clock-change descriptor
    int m_clockFd;  // registered edge-triggered: each clock change wakes a wait once
};

class CCEvent {
public:
    enum EVENT_TYPE { AUTO_RESET = 1, MANUAL_RESET = 2 };
    enum EVENT_HANDLE_TYPE { HANDLE_EVENTFD = -1 };

    // Registers with `list` (may be null: then nothing dispatches it; SetEvent and
    // ResetEvent still work). `result` receives 0 or a failure code.
    CCEvent(long& result, CEventList* list, EVENT_TYPE type, IEventCB* callback, void* context,
            unsigned long eventId, int flags, EVENT_HANDLE_TYPE handleType, const char* name);
    virtual ~CCEvent();

    // Signals the event; safe from any thread. 0 on success.
    long SetEvent(bool unused);
    long ResetEvent();

    int GetFd() const { return m_fd; }
    unsigned long GetEventId() const { return m_eventId; }

    // Framework-internal: consumes the signal and runs the callback.
    void Dispatch();

    CCEvent(const CCEvent&) = delete;
    CCEvent& operator=(const CCEvent&) = delete;

private:
    friend class CEventList;  // detaches its events when it goes first
    int m_fd;
    CEventList* m_pList;
    EVENT_TYPE m_type;
    IEventCB* m_pCallback;
    void* m_pContext;
    unsigned long m_eventId;
};
