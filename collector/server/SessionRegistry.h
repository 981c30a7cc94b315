// The connections open on the collector's listeners, so that SIGTERM can close the idle
// ones and wait for the busy ones to finish.
//
// Threads: every member from any thread. A connection registers when it starts and leaves
// when it is destroyed; DrainAll() asks each one, on its own strand, to close if idle.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace collector {

class Drainable {
public:
    virtual ~Drainable() = default;
    // Closes the connection if it waits for a request; otherwise it closes after its
    // answer. Called from any thread: the connection moves to its own strand itself.
    virtual void Drain() = 0;
};

class SessionRegistry {
public:
    uint64_t Add(const std::shared_ptr<Drainable>& session);
    void Remove(uint64_t id);
    void DrainAll();
    size_t Size() const;

private:
    mutable std::mutex mutex_;
    uint64_t next_ = 0;
    std::unordered_map<uint64_t, std::weak_ptr<Drainable>> sessions_;
};

}  // namespace collector
