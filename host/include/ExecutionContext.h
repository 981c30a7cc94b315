// Execution contexts.
//
// A context is a multiton keyed by instance id. It owns one CEventList and one CTimerList;
// whoever waits on that event list is the context's thread, and every callback of the
// context (event, timer, directory watcher) runs there. Creating or acquiring a context
// counts a reference; each one is balanced by releaseInstance(), and the last release
// destroys the context with its lists. Create, acquire and release are safe from any thread.
//
// Directory watchers belong to their context: a watcher that its creator never destroys is
// destroyed by the framework as soon as the watchers are the only users left of their
// context, so that no callback can reach an owner that is gone.
#pragma once

#include <memory>
#include <vector>

class CEventList;
class CFileSystemWatcher;
class CTimerList;

class CExecutionContext {
public:
    typedef unsigned int INSTANCE_ID;

    // Creates the context of `id`, or takes a reference to the existing one. `context`
    // receives it. Returns 0 or a failure code (context untouched then).
    static long CreateMultitonInstance(CExecutionContext*& context, INSTANCE_ID id);
    // Takes a reference to the existing context of `id`; null if there is none.
    static CExecutionContext* acquireInstance(INSTANCE_ID id);
    // Drops one reference; the last one destroys the context.
    void releaseInstance();

    CEventList* GetEventList() const { return m_pEventList.get(); }
    CTimerList* GetTimerList() const { return m_pTimerList.get(); }
    INSTANCE_ID GetInstanceId() const { return m_id; }

    CExecutionContext(const CExecutionContext&) = delete;
    CExecutionContext& operator=(const CExecutionContext&) = delete;

private:
    explicit CExecutionContext(INSTANCE_ID id);
    ~CExecutionContext();

    INSTANCE_ID m_id;
    unsigned int m_references;
    // Owned; unique_ptrs so that a constructor that fails part-way frees what it made.
    std::unique_ptr<CEventList> m_pEventList;
    std::unique_ptr<CTimerList> m_pTimerList;
    // Watchers holding a reference to this context.
    std::vector<CFileSystemWatcher*> m_watchers;

    friend struct ContextRegistry;
    friend class CFileSystemWatcher;
    // Acquires the context of `id` on behalf of `watcher`; null if there is none.
    static CExecutionContext* AcquireForWatcher(INSTANCE_ID id, CFileSystemWatcher* watcher);
    // Drops the watcher's reference (the watcher is going away).
    void ReleaseForWatcher(CFileSystemWatcher* watcher);
};
