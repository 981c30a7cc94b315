#include "server/SessionRegistry.h"

#include <vector>

namespace collector {

uint64_t SessionRegistry::Add(const std::shared_ptr<Drainable>& session) {
    std::lock_guard<std::mutex> lock(mutex_);
    sessions_.emplace(++next_, session);
    return next_;
}

void SessionRegistry::Remove(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    sessions_.erase(id);
}

void SessionRegistry::DrainAll() {
    std::vector<std::shared_ptr<Drainable>> alive;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& entry : sessions_) {
            if (auto session = entry.second.lock())
                alive.push_back(std::move(session));
        }
    }
    for (auto& session : alive)
        session->Drain();
}

size_t SessionRegistry::Size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sessions_.size();
}

}  // namespace collector
