// What every connection of the receiving listeners shares: the settings, the limits, the
// committer and the counters. Owned by RunServe, which outlives every connection.
#pragma once

#include <atomic>
#include <boost/asio/thread_pool.hpp>

#include "CollectorSettings.h"
#include "server/Committer.h"
#include "server/Limits.h"
#include "server/Metrics.h"
#include "server/SessionRegistry.h"
#include "server/TlsContext.h"

namespace collector {

// The largest body accepted: "data=" and a report of up to 16 MiB.
constexpr uint64_t kMaxBodyBytes = (16ull << 20) + 5;

struct ReceiveContext {
    const CollectorSettings& settings;
    Metrics& metrics;
    Committer& committer;
    TlsContext& tls;
    ConnectionLimiter& connections;
    AddressQuotas& quotas;
    BodyBudget& budget;
    FreeSpaceWatch& freeSpace;
    LogThrottle& damagedLog;
    SlowClientGuard& slowClients;
    LogThrottle& slowLog;
    boost::asio::thread_pool& validators;  // bodies are validated off the network threads
    SessionRegistry& sessions;
    std::atomic<bool> draining{false};
};

}  // namespace collector
