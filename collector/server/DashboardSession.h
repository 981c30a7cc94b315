// One connection of the dashboard listener: plain HTTP on loopback, HTTPS with the
// collector's certificate elsewhere. It serves the JSON API under /api/ (on the
// ApiRunner's thread), /metrics, and the login form and logout that set and clear the
// session cookie; every other request needs the dashboard token.
//
// Threads: everything runs on the connection's strand.
#pragma once

#include <atomic>
#include <boost/asio/ip/tcp.hpp>

#include "CollectorSettings.h"
#include "server/ApiRunner.h"
#include "server/DashboardAccess.h"
#include "server/Metrics.h"
#include "server/SessionRegistry.h"
#include "server/TlsContext.h"

namespace collector {

struct DashboardContext {
    const CollectorSettings& settings;
    Metrics& metrics;
    const DashboardAccess& access;
    ApiRunner& api;
    SessionRegistry& sessions;
    const std::atomic<bool>& draining;
    TlsContext* tls;  // null: plain HTTP (a loopback listener)
};

// Makes and starts the session of an accepted connection.
void StartDashboardSession(boost::asio::ip::tcp::socket socket, DashboardContext& context);

}  // namespace collector
