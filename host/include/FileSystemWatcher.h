// Directory watcher over inotify.
//
// Watches one directory with the caller's inotify mask. Its descriptor joins the event
// list of the given execution context, so the callback runs on that context's thread
// (inside CEventList::WaitOnEvents). IsWatchStillValid() turns false once the watched
// directory is deleted or moved away. Construct and destroy on the context's thread. A
// watcher that its creator leaves behind is destroyed by the framework once nothing but
// watchers uses its context (see ExecutionContext.h).
#pragma once

#include <string>

#include "ExecutionContext.h"

class CFileSystemWatcher {
public:
    typedef void (*Callback)(void* context, int event);

    // `result` = 0, or a failure code (the object is then inert but safe to destroy).
    CFileSystemWatcher(long& result, CExecutionContext::INSTANCE_ID contextId, Callback callback,
                       void* context, const std::string& directory, unsigned int mask);
    ~CFileSystemWatcher();

    bool IsWatchStillValid();

    CFileSystemWatcher(const CFileSystemWatcher&) = delete;
    CFileSystemWatcher& operator=(const CFileSystemWatcher&) = delete;

private:
    void OnReadable();
    void Release();

    int m_fd;
    int m_wd;
    bool m_bValid;
    Callback m_callback;
    void* m_pContext;
    CExecutionContext* m_pExecutionContext;
    unsigned int m_mask;  // the caller's events: only these are reported
};
