// Events over eventfd, and the event list's wait: one epoll set per list holding every
// event and watcher descriptor plus the host clock's change descriptor.
#include "EventList.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>

#include "HostClock.h"
#include "HostClockInternal.h"
#include "HostLogInternal.h"
#include "ResultCodes.h"
#include "UniqueFd.h"
#include "TestControlInternal.h"

namespace {

const char kLogSource[] = "host/src/EventList";
const unsigned int kNoLimit = 0xFFFFFFFFu;
const int kMaxReadyPerWait = 16;

std::atomic<uint64_t> g_totalWaitReturns{0};

// The epoll timeout that lets `remainingHostMs` pass on the host clock; -1 when the clock is
// manual (the wait then ends through events or a clock change).
int EpollTimeout(uint64_t remainingHostMs) {
    if (remainingHostMs == 0) {
        return 0;
    }
    uint64_t realMs = pwhost::RealMsForHostMs(remainingHostMs);
    if (realMs >= 0xFFFFFFFFu) {
        return -1;
    }
    return static_cast<int>(std::min<uint64_t>(std::max<uint64_t>(realMs, 1), INT_MAX));
}

}  // namespace

// ---------------------------------------------------------------------------------------
// CEventList

CEventList::CEventList() : m_waitCount(0), m_bWaiting(false), m_epollFd(-1), m_clockFd(-1) {
    m_epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (m_epollFd < 0) {
        PWHOST_LOG_ERRNO("epoll_create1", pwresult::kOutOfResources, errno);
        return;
    }
    int clockFd = pwhost::ClockChangeFd();
    if (clockFd < 0) {
        PWHOST_LOG(CAppLog::Error, "no clock-change descriptor: clock changes do not end waits");
        return;
    }
    // Edge-triggered: the descriptor stays readable for ever, but every change of the clock
    // is one new edge for every list that watches it.
    struct epoll_event interest = {};
    interest.events = EPOLLIN | EPOLLET;
    interest.data.fd = clockFd;
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, clockFd, &interest) != 0) {
        PWHOST_LOG_ERRNO("epoll_ctl", pwresult::kOutOfResources, errno);
        return;
    }
    m_clockFd = clockFd;
}

CEventList::~CEventList() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (CCEvent* event : m_events) {
            event->m_pList = nullptr;
        }
        m_events.clear();
        m_watchers.clear();
    }
    if (m_epollFd >= 0) {
        close(m_epollFd);
    }
}

long CEventList::AddEventChecked(CCEvent* event) {
    if (event == nullptr || event->GetFd() < 0) {
        return PWHOST_REFUSE(pwresult::kInvalidArgument,
                             "no event, or an event without descriptor");
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (std::find(m_events.begin(), m_events.end(), event) != m_events.end()) {
        return pwresult::kSuccess;
    }
    if (m_epollFd < 0) {
        return pwresult::kOutOfResources;
    }
    struct epoll_event interest = {};
    interest.events = EPOLLIN;
    interest.data.fd = event->GetFd();
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, event->GetFd(), &interest) != 0) {
        PWHOST_LOG_ERRNO("epoll_ctl", pwresult::kOutOfResources, errno);
        return pwresult::kOutOfResources;
    }
    m_events.push_back(event);
    return pwresult::kSuccess;
}

void CEventList::AddEvent(CCEvent* event) {
    if (AddEventChecked(event) == pwresult::kSuccess && event != nullptr) {
        event->m_pList = this;
    }
}

void CEventList::RemoveEvent(CCEvent* event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = std::find(m_events.begin(), m_events.end(), event);
    if (found == m_events.end()) {
        return;
    }
    m_events.erase(found);
    if (epoll_ctl(m_epollFd, EPOLL_CTL_DEL, event->GetFd(), nullptr) != 0) {
        PWHOST_LOG_ERRNO("epoll_ctl", pwresult::kFailure, errno);
    }
}

long CEventList::AddWatcher(int fd, ReadyCallback callback) {
    if (fd < 0 || !callback) {
        return PWHOST_REFUSE(pwresult::kInvalidArgument,
                             "watcher %d without descriptor or callback", fd);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Watcher& watcher : m_watchers) {
        if (watcher.fd == fd) {
            return PWHOST_REFUSE(pwresult::kInvalidArgument, "descriptor %d is watched already",
                                 fd);
        }
    }
    if (m_epollFd < 0) {
        return pwresult::kOutOfResources;
    }
    struct epoll_event interest = {};
    interest.events = EPOLLIN;
    interest.data.fd = fd;
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &interest) != 0) {
        PWHOST_LOG_ERRNO("epoll_ctl", pwresult::kOutOfResources, errno);
        return pwresult::kOutOfResources;
    }
    m_watchers.push_back(Watcher{fd, std::move(callback)});
    return pwresult::kSuccess;
}

void CEventList::RemoveWatcher(int fd) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = std::find_if(m_watchers.begin(), m_watchers.end(),
                              [fd](const Watcher& watcher) { return watcher.fd == fd; });
    if (found == m_watchers.end()) {
        return;
    }
    m_watchers.erase(found);
    if (epoll_ctl(m_epollFd, EPOLL_CTL_DEL, fd, nullptr) != 0) {
        PWHOST_LOG_ERRNO("epoll_ctl", pwresult::kFailure, errno);
    }
}

long CEventList::WaitOnEvents(unsigned int milliseconds, bool dispatch) {
    long result = pwresult::kSuccess;
    if (!PWHOST_TEST_FAULT(WaitOnEvents, result)) {
        result = WaitLoop(milliseconds, dispatch);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_waitCount;
    }
    g_totalWaitReturns.fetch_add(1, std::memory_order_relaxed);
    return result;
}

long CEventList::WaitLoop(unsigned int milliseconds, bool dispatch) {
    if (m_epollFd < 0) {
        return pwresult::kWaitFailed;
    }
    const bool limited = milliseconds != kNoLimit;
    const uint64_t deadline = limited ? pwhost::HostNowMs() + milliseconds : 0;
    struct epoll_event ready[kMaxReadyPerWait];
    for (;;) {
        int timeout = -1;
        if (limited) {
            uint64_t now = pwhost::HostNowMs();
            timeout = EpollTimeout(deadline > now ? deadline - now : 0);
        }
        SetWaiting(true);
        int count = epoll_wait(m_epollFd, ready, kMaxReadyPerWait, timeout);
        const int waitErrno = errno;
        SetWaiting(false);
        if (count < 0) {
            if (waitErrno == EINTR) {
                continue;
            }
            PWHOST_LOG_ERRNO("epoll_wait", pwresult::kWaitFailed, waitErrno);
            return pwresult::kWaitFailed;
        }
        bool fired = false;
        for (int i = 0; i < count; ++i) {
            if (ready[i].data.fd == m_clockFd) {
                continue;  // the clock moved: only the deadline needs a fresh look
            }
            fired = true;
            if (dispatch) {
                DispatchReady(ready[i].data.fd);
            }
        }
        if (fired) {
            return pwresult::kSuccess;
        }
        if (limited && pwhost::HostNowMs() >= deadline) {
            return pwresult::kWaitTimedOut;
        }
    }
}

// Looks the descriptor up afresh for each dispatch: an earlier callback of the same turn may
// have removed an event or watcher (and its descriptor number may even be reused by a new
// one, whose non-blocking read then finds nothing and runs no callback).
void CEventList::DispatchReady(int fd) {
    CCEvent* event = nullptr;
    ReadyCallback callback;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (CCEvent* candidate : m_events) {
            if (candidate->GetFd() == fd) {
                event = candidate;
                break;
            }
        }
        if (event == nullptr) {
            for (const Watcher& watcher : m_watchers) {
                if (watcher.fd == fd) {
                    callback = watcher.callback;
                    break;
                }
            }
        }
    }
    if (event != nullptr) {
        event->Dispatch();
    } else if (callback) {
        callback();
    }
}

void CEventList::SetWaiting(bool waiting) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bWaiting = waiting;
}

bool CEventList::IsWaiting() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bWaiting;
}

uint64_t CEventList::WaitCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_waitCount;
}

#ifdef PW_TEST_HOOKS
namespace pwtest {
uint64_t TotalWaitReturns() {
    return g_totalWaitReturns.load(std::memory_order_relaxed);
}
}  // namespace pwtest
#endif  // PW_TEST_HOOKS

// ---------------------------------------------------------------------------------------
// CCEvent

CCEvent::CCEvent(long& result, CEventList* list, EVENT_TYPE type, IEventCB* callback, void* context,
                 unsigned long eventId, int flags, EVENT_HANDLE_TYPE handleType, const char* name)
    : m_fd(-1),
      m_pList(nullptr),
      m_type(type),
      m_pCallback(callback),
      m_pContext(context),
      m_eventId(eventId) {
    (void)flags;
    (void)name;
    long code = 0;
    if (PWHOST_TEST_FAULT(CreateEvent, code)) {
        result = code;
        return;
    }
    if ((type != AUTO_RESET && type != MANUAL_RESET) || handleType != HANDLE_EVENTFD) {
        result = PWHOST_REFUSE(pwresult::kInvalidArgument,
                               "event %lu: unsupported type %d or handle type %d", eventId,
                               static_cast<int>(type), static_cast<int>(handleType));
        return;
    }
    pwhost::UniqueFd fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!fd.Valid()) {
        result = pwresult::kOutOfResources;
        PWHOST_LOG_ERRNO("eventfd", result, errno);
        return;
    }
    m_fd = fd.Get();
    if (list != nullptr) {
        long added = list->AddEventChecked(this);
        if (added != pwresult::kSuccess) {
            m_fd = -1;  // closed with `fd`
            result = added;
            return;
        }
        m_pList = list;
    }
    fd.Release();  // the event owns it now
    result = pwresult::kSuccess;
}

CCEvent::~CCEvent() {
    if (m_pList != nullptr) {
        m_pList->RemoveEvent(this);
    }
    if (m_fd >= 0) {
        close(m_fd);
    }
}

long CCEvent::SetEvent(bool unused) {
    (void)unused;
    long code = 0;
    if (PWHOST_TEST_FAULT(SetEvent, code)) {
        return code;
    }
    if (m_fd < 0) {
        return pwresult::kInvalidArgument;
    }
    const uint64_t one = 1;
    for (;;) {
        ssize_t written = write(m_fd, &one, sizeof one);
        if (written == static_cast<ssize_t>(sizeof one)) {
            return pwresult::kSuccess;
        }
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0 && errno == EAGAIN) {
            return pwresult::kSuccess;  // the counter is full: the event is signalled anyway
        }
        PWHOST_LOG_ERRNO("write", pwresult::kFailure, written < 0 ? errno : EIO);
        return pwresult::kFailure;
    }
}

long CCEvent::ResetEvent() {
    if (m_fd < 0) {
        return pwresult::kInvalidArgument;
    }
    uint64_t value = 0;
    for (;;) {
        ssize_t got = read(m_fd, &value, sizeof value);
        if (got == static_cast<ssize_t>(sizeof value) || (got < 0 && errno == EAGAIN)) {
            return pwresult::kSuccess;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        PWHOST_LOG_ERRNO("read", pwresult::kFailure, got < 0 ? errno : EIO);
        return pwresult::kFailure;
    }
}

void CCEvent::Dispatch() {
    if (m_fd < 0) {
        return;
    }
    if (m_type == AUTO_RESET) {
        // Consumes every SetEvent since the last dispatch: they coalesce into one callback.
        uint64_t value = 0;
        ssize_t got;
        do {
            got = read(m_fd, &value, sizeof value);
        } while (got < 0 && errno == EINTR);
        if (got != static_cast<ssize_t>(sizeof value)) {
            if (got < 0 && errno != EAGAIN) {
                PWHOST_LOG_ERRNO("read", pwresult::kFailure, errno);
            }
            return;
        }
    } else {
        // A manual-reset event stays signalled until ResetEvent().
        struct pollfd probe = {m_fd, POLLIN, 0};
        int ready;
        do {
            ready = poll(&probe, 1, 0);
        } while (ready < 0 && errno == EINTR);
        if (ready < 0) {
            PWHOST_LOG_ERRNO("poll", pwresult::kFailure, errno);
        }
        if (ready <= 0) {
            return;
        }
    }
    if (m_pCallback != nullptr) {
        m_pCallback->OnEventSignaled(m_pContext, m_eventId);
    }
}
