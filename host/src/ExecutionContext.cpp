// Execution contexts: a process-wide registry of reference-counted contexts by instance id.
#include "ExecutionContext.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "EventList.h"
#include "FileSystemWatcher.h"
#include "ResultCodes.h"
#include "Timer.h"
#include "TestControlInternal.h"

// The registry owns the contexts; a context leaves it (and is destroyed) with its last
// reference. One mutex guards the map and every reference count.
struct ContextRegistry {
    std::mutex mutex;
    std::map<CExecutionContext::INSTANCE_ID, CExecutionContext*> contexts;

    static ContextRegistry& Get() {
        // Never destroyed: contexts may be released by the host during process exit.
        static ContextRegistry* registry = new ContextRegistry;
        return *registry;
    }

    static CExecutionContext* Create(CExecutionContext::INSTANCE_ID id) {
        return new CExecutionContext(id);
    }
    static void Destroy(CExecutionContext* context) { delete context; }
};

CExecutionContext::CExecutionContext(INSTANCE_ID id)
    : m_id(id), m_references(0), m_pEventList(new CEventList), m_pTimerList(new CTimerList) {}

CExecutionContext::~CExecutionContext() = default;

long CExecutionContext::CreateMultitonInstance(CExecutionContext*& context, INSTANCE_ID id) {
    long code = 0;
    if (PWHOST_TEST_FAULT(CreateExecutionContext, code)) {
        return code;
    }
    ContextRegistry& registry = ContextRegistry::Get();
    std::lock_guard<std::mutex> lock(registry.mutex);
    CExecutionContext*& slot = registry.contexts[id];
    if (slot == nullptr) {
        slot = ContextRegistry::Create(id);
    }
    ++slot->m_references;
    context = slot;
    return pwresult::kSuccess;
}

CExecutionContext* CExecutionContext::acquireInstance(INSTANCE_ID id) {
    long code = 0;
    if (PWHOST_TEST_FAULT(AcquireInstance, code)) {
        return nullptr;
    }
    ContextRegistry& registry = ContextRegistry::Get();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.contexts.find(id);
    if (found == registry.contexts.end()) {
        return nullptr;
    }
    ++found->second->m_references;
    return found->second;
}

void CExecutionContext::releaseInstance() {
    ContextRegistry& registry = ContextRegistry::Get();
    std::vector<CFileSystemWatcher*> orphans;
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        if (--m_references > 0) {
            if (m_references != m_watchers.size()) {
                return;
            }
            // Only watchers use the context now: nobody can destroy them any more.
            orphans.swap(m_watchers);
        } else {
            registry.contexts.erase(m_id);
        }
    }
    if (!orphans.empty()) {
        for (CFileSystemWatcher* watcher : orphans) {
            delete watcher;  // the last one's release destroys the context
        }
        return;
    }
    ContextRegistry::Destroy(this);
}

CExecutionContext* CExecutionContext::AcquireForWatcher(INSTANCE_ID id,
                                                        CFileSystemWatcher* watcher) {
    CExecutionContext* context = acquireInstance(id);
    if (context != nullptr) {
        std::lock_guard<std::mutex> lock(ContextRegistry::Get().mutex);
        context->m_watchers.push_back(watcher);
    }
    return context;
}

void CExecutionContext::ReleaseForWatcher(CFileSystemWatcher* watcher) {
    {
        std::lock_guard<std::mutex> lock(ContextRegistry::Get().mutex);
        m_watchers.erase(std::remove(m_watchers.begin(), m_watchers.end(), watcher),
                         m_watchers.end());
    }
    releaseInstance();
}
