// Directory watcher: one inotify descriptor per watcher, joined to its context's event list.
// It holds one watch at a time: on the directory while it exists, else on the nearest
// existing ancestor, waiting for the entry that leads back to the directory.
#include "FileSystemWatcher.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "EventList.h"
#include "HostLogInternal.h"
#include "ResultCodes.h"

namespace {

const char kLogSource[] = "host/src/FileSystemWatcher";

// What ends a watch: the directory itself deleted or moved, its file system unmounted, or
// the kernel dropping the watch.
const uint32_t kWatchEnded = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

// What an ancestor is watched for: an entry appearing under it, or its own end.
const uint32_t kAncestorEvents =
    IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// How often one Arm follows a path that keeps appearing under it before it leaves the
// rest to the next event of the ancestor it watches.
const int kArmAttempts = 16;

// `path` without trailing slashes ("/" stays "/").
std::string Trimmed(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    return end == std::string::npos ? path.substr(0, 1) : path.substr(0, end + 1);
}

// The parent of a trimmed path: "/a/b" -> "/a", "/a" -> "/", "a" -> ".".
std::string ParentOf(const std::string& path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : Trimmed(path.substr(0, slash));
}

std::string BaseName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool IsDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

CFileSystemWatcher::CFileSystemWatcher(long& result, CExecutionContext::INSTANCE_ID contextId,
                                       Callback callback, void* context,
                                       const std::string& directory, unsigned int mask)
    : m_fd(-1),
      m_wd(-1),
      m_ancestorWd(-1),
      m_directory(directory),
      m_bValid(false),
      m_callback(callback),
      m_pContext(context),
      m_pExecutionContext(nullptr),
      m_mask(mask) {
    if (callback == nullptr) {
        result = PWHOST_REFUSE(pwresult::kNullCallback, "no callback for %s", directory.c_str());
        return;
    }
    if (directory.empty()) {
        result = PWHOST_REFUSE(pwresult::kWatcherError, "no directory to watch");
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
    const ArmResult armed = Arm();
    if (armed == ArmResult::Failed) {
        result = pwresult::kWatcherError;
        Release();
        return;
    }
    if (armed == ArmResult::Waiting) {
        PWHOST_LOG(CAppLog::Warning, "watched directory %s does not exist; waiting for it",
                   directory.c_str());
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
        close(m_fd);  // drops the watches too
        m_fd = -1;
        m_wd = -1;
        m_ancestorWd = -1;
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

void CFileSystemWatcher::DropAncestorWatch() {
    if (m_ancestorWd >= 0) {
        inotify_rm_watch(m_fd, m_ancestorWd);  // EINVAL when the kernel dropped it already
        m_ancestorWd = -1;
    }
}

// A missing directory (ENOENT, or ENOTDIR for a file on the way) makes it climb to the
// first ancestor that takes a watch. Once that watch is in place, the entry below it is
// looked at again: what appeared before the watch sent no event, so it is followed now.
CFileSystemWatcher::ArmResult CFileSystemWatcher::Arm() {
    const std::string target = Trimmed(m_directory);
    for (int attempt = 0; attempt < kArmAttempts; ++attempt) {
        int wd = inotify_add_watch(m_fd, m_directory.c_str(),
                                   m_mask | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
        if (wd >= 0) {
            if (wd == m_ancestorWd) {
                m_ancestorWd = -1;  // the path leads back to the ancestor: one watch for both
            }
            DropAncestorWatch();
            m_wd = wd;
            return ArmResult::Watching;
        }
        if (errno != ENOENT && errno != ENOTDIR) {
            PWHOST_LOG_ERRNO_ON("inotify_add_watch", pwresult::kWatcherError, errno, m_directory);
            return ArmResult::Failed;
        }
        std::string child = target;
        for (;;) {
            if (child == "/" || child == ".") {  // nothing above it to wait on
                PWHOST_LOG_ERRNO_ON("inotify_add_watch", pwresult::kWatcherError, errno, child);
                return ArmResult::Failed;
            }
            const std::string ancestor = ParentOf(child);
            wd = inotify_add_watch(m_fd, ancestor.c_str(), kAncestorEvents);
            if (wd >= 0) {
                if (wd != m_ancestorWd) {
                    DropAncestorWatch();
                    m_ancestorWd = wd;
                }
                m_awaited = BaseName(child);
                break;
            }
            if (errno != ENOENT && errno != ENOTDIR) {
                PWHOST_LOG_ERRNO_ON("inotify_add_watch", pwresult::kWatcherError, errno, ancestor);
                return ArmResult::Failed;
            }
            child = ancestor;
        }
        if (!IsDirectory(child)) {
            return ArmResult::Waiting;
        }
    }
    return ArmResult::Waiting;  // the ancestor's next event follows the path further
}

// Drains everything queued, follows the directory when it went or came back, and reports
// the batch once, with the union of its event bits, when any of them is one the caller
// asked for or the directory appeared. The callback comes last: it may destroy this
// watcher.
void CFileSystemWatcher::OnReadable() {
    alignas(struct inotify_event) char buffer[4096];
    uint32_t seen = 0;
    bool lost = false, ancestorChanged = false;
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
            if (m_wd >= 0 && event->wd == m_wd) {
                seen |= event->mask;
                lost = lost || (event->mask & kWatchEnded) != 0;
            } else if (m_ancestorWd >= 0 && event->wd == m_ancestorWd) {
                // Its own end (then the climb goes on) or the awaited entry appearing.
                ancestorChanged = ancestorChanged || (event->mask & kWatchEnded) != 0 ||
                                  (event->len > 0 && m_awaited == event->name);
            } else if (event->mask & IN_Q_OVERFLOW) {
                seen |= IN_Q_OVERFLOW;  // events were lost: look at the path again too
                ancestorChanged = true;
            }  // else: the last events of a watch already dropped
            offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        }
    }
    if ((seen & IN_Q_OVERFLOW) && m_wd >= 0 && !lost) {
        // The directory's end may be among the lost events: the path still leads to the
        // watched directory when it yields the same watch.
        const int wd = inotify_add_watch(m_fd, m_directory.c_str(),
                                         m_mask | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
        if (wd != m_wd) {
            if (wd >= 0) {
                inotify_rm_watch(m_fd, wd);  // taken up again below, once the old one is gone
            }
            lost = true;
        }
    }
    bool appeared = false;
    if (lost) {
        inotify_rm_watch(m_fd, m_wd);  // a moved directory is still watched where it went
        m_wd = -1;
        PWHOST_LOG(CAppLog::Warning, "watched directory %s is gone; waiting for it to return",
                   m_directory.c_str());
    }
    if (m_wd < 0 && (lost || ancestorChanged)) {
        switch (Arm()) {
            case ArmResult::Watching:
                PWHOST_LOG(CAppLog::Information, "watched directory %s is there; watching it",
                           m_directory.c_str());
                appeared = true;
                break;
            case ArmResult::Waiting:
                break;
            case ArmResult::Failed:
                m_bValid = false;
                break;
        }
    }
    if (appeared) {
        seen |= IN_CREATE | IN_ISDIR;
    }
    if (appeared || (seen & (m_mask | IN_Q_OVERFLOW))) {
        m_callback(m_pContext, static_cast<int>(seen));
    }
}
