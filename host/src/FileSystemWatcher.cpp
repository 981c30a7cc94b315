// Directory watcher: one inotify descriptor per watcher, joined to its context's event list.
#include "FileSystemWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>

#include "EventList.h"
#include "HostLogInternal.h"
#include "ResultCodes.h"

namespace {

const char kLogSource[] = "host/src/FileSystemWatcher";

// What ends a watch: the directory itself deleted or moved, or the kernel dropping the watch.
const uint32_t kWatchEnded = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED;

}  // namespace

CFileSystemWatcher::CFileSystemWatcher(long& result, CExecutionContext::INSTANCE_ID contextId,
                                       Callback callback, void* context,
                                       const std::string& directory, unsigned int mask)
    : m_fd(-1),
      m_wd(-1),
      m_bValid(false),
      m_callback(callback),
      m_pContext(context),
      m_pExecutionContext(nullptr),
      m_mask(mask) {
    if (callback == nullptr) {
        result = PWHOST_REFUSE(pwresult::kNullCallback, "no callback for %s", directory.c_str());
        return;
    }
    m_pExecutionContext = CExecutionContext::AcquireForWatcher(contextId, this);
    if (m_pExecutionContext == nullptr) {
        result = pwresult::kContextUnavailable;
        PWHOST_LOG(CAppLog::Error, "no execution context %u", contextId);
        return;
    }
    m_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fd < 0) {
        result = pwresult::kWatcherError;
        PWHOST_LOG_ERRNO("inotify_init1", result, errno);
        Release();
        return;
    }
    // Only directories; the end of the watch is always of interest.
    m_wd = inotify_add_watch(m_fd, directory.c_str(),
                             mask | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
    if (m_wd < 0) {
        result = pwresult::kWatcherError;
        PWHOST_LOG_ERRNO_ON("inotify_add_watch", result, errno, directory);
        Release();
        return;
    }
    result = m_pExecutionContext->GetEventList()->AddWatcher(m_fd, [this] { OnReadable(); });
    if (result != pwresult::kSuccess) {
        PWHOST_LOG(CAppLog::Error, "cannot join the event list of context %u", contextId);
        Release();
        return;
    }
    m_bValid = true;
}

CFileSystemWatcher::~CFileSystemWatcher() {
    Release();
}

void CFileSystemWatcher::Release() {
    if (m_pExecutionContext != nullptr && m_fd >= 0) {
        m_pExecutionContext->GetEventList()->RemoveWatcher(m_fd);
    }
    if (m_fd >= 0) {
        close(m_fd);  // drops the watch too
        m_fd = -1;
        m_wd = -1;
    }
    if (m_pExecutionContext != nullptr) {
        CExecutionContext* context = m_pExecutionContext;
        m_pExecutionContext = nullptr;
        context->ReleaseForWatcher(this);
    }
    m_bValid = false;
}

bool CFileSystemWatcher::IsWatchStillValid() {
    return m_bValid;
}

// Drains everything queued and reports the batch once, with the union of its event bits,
// when any of them is one the caller asked for. The callback comes last: it may destroy
// this watcher.
void CFileSystemWatcher::OnReadable() {
    alignas(struct inotify_event) char buffer[4096];
    uint32_t seen = 0;
    for (;;) {
        ssize_t got = read(m_fd, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN) {
                PWHOST_LOG_ERRNO("read", pwresult::kWatcherError, errno);
            }
            break;
        }
        if (got == 0) {
            break;
        }
        for (ssize_t offset = 0; offset < got;) {
            const struct inotify_event* event =
                reinterpret_cast<const struct inotify_event*>(buffer + offset);
            seen |= event->mask;
            offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        }
    }
    if (seen & kWatchEnded) {
        m_bValid = false;
    }
    if (seen & (m_mask | IN_Q_OVERFLOW)) {
        m_callback(m_pContext, static_cast<int>(seen));
    }
}
