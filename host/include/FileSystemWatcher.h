// Directory watcher over inotify.
//
// Watches one directory, named by its path, with the caller's inotify mask. Its descriptor
// joins the event list of the given execution context, so the callback runs on that
// context's thread (inside CEventList::WaitOnEvents). Construct and destroy on the
// context's thread. A watcher that its creator leaves behind is destroyed by the framework
// once nothing but watchers uses its context (see ExecutionContext.h).
//
// The watch follows the path, not the directory first found there: when the directory is
// deleted or moved away, or does not exist yet when the watcher is made, the watcher
// watches the nearest existing ancestor (the parent, its parent as needed) and takes up
// the directory again as soon as one appears at the path. That appearance is reported
// like a change inside the directory, with the event bits IN_CREATE | IN_ISDIR whatever
// the mask, since files may already be in it; the loss itself is reported only when the
// mask asks for IN_DELETE_SELF or IN_MOVE_SELF. Each loss and each return is logged once.
// IsWatchStillValid() stays true while the watcher can still follow the path, and turns
// false only when it cannot (no inotify watch can be placed on the path or an ancestor).
#pragma once

#include <string>

#include "ExecutionContext.h"

class CFileSystemWatcher {
public:
    typedef void (*Callback)(void* context, int event);

    // `result` = 0, or a failure code (the object is then inert but safe to destroy). A
    // directory that does not exist yet is not a failure: it is waited for.
    CFileSystemWatcher(long& result, CExecutionContext::INSTANCE_ID contextId, Callback callback,
                       void* context, const std::string& directory, unsigned int mask);
    ~CFileSystemWatcher();

    bool IsWatchStillValid();

    CFileSystemWatcher(const CFileSystemWatcher&) = delete;
    CFileSystemWatcher& operator=(const CFileSystemWatcher&) = delete;

private:
    enum class ArmResult { Watching, Waiting, Failed };

    void OnReadable();
    // Watches the directory if it is there, else its nearest existing ancestor.
    ArmResult Arm();
    void DropAncestorWatch();
    void Release();

    int m_fd;
    int m_wd;          // the directory's watch; -1 while it is missing
    int m_ancestorWd;  // while the directory is missing: the watch on its nearest ancestor
    std::string m_directory;
    std::string m_awaited;  // the ancestor's entry on the way to the directory
    bool m_bValid;
    Callback m_callback;
    void* m_pContext;
    CExecutionContext* m_pExecutionContext;
    unsigned int m_mask;  // the caller's events: only these are reported
};
