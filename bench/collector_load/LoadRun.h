// The posting loop: `concurrency` posts in flight on one thread, each on a new TCP
// connection with a full TLS handshake (no session is ever resumed), each the request a
// client sends (POST /cef/upload with the client's headers and "data=" + report), the
// connection closed once the answer has been read. A slot whose post ends starts the next
// one until the run's duration or count is reached.
//
// With idle connections asked for, the run first opens them (each posts one feedback report
// and then stays open, idle, as a kept-alive connection) and holds them through the
// measured posts, noting which of them the server closes meanwhile.
//
// With slow clients asked for, the run first opens those (slowloris: after the handshake
// each sends the start of a request one byte at a time, a byte every `slowInterval`
// seconds, and never finishes it); the server closes them at its header deadline and
// each opens again at once, so that the given number stays open through the measured
// posts.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ReportFleet.h"

namespace collectorload {

struct LoadAddress {
    std::string host;  // address (or name) to connect to
    std::string port;
};

struct LoadTarget {
    // The server's addresses: each new connection goes to the next one in turn, as
    // clients spread over several nodes by a round-robin name would.
    std::vector<LoadAddress> addresses;
    std::string serverName;  // TLS server name, certificate name and Host header
    std::string caFile;      // empty with verify: the system trust store
    bool verify = true;
};

struct LoadLimits {
    unsigned int concurrency = 16;
    double durationSeconds = 10;  // used when count is 0
    uint64_t count = 0;           // posts in all
    double timeoutSeconds = 30;   // for each step of a post
    unsigned int idleConnections = 0;
    unsigned int slowConnections = 0;
    double slowIntervalSeconds = 2;
    // Connections come from this many loopback addresses (127.0.0.1, 127.0.0.2, ...), as
    // from that many clients; 0 leaves the choice to the system.
    unsigned int sourceAddresses = 0;
};

struct LoadResult {
    uint64_t delivered = 0;  // answered 2xx
    uint64_t deliveredKinds[kReportKinds] = {0, 0, 0};
    uint64_t connectFailures = 0;
    uint64_t tlsFailures = 0;
    uint64_t httpFailures = 0;  // sending or reading the exchange failed
    uint64_t timeouts = 0;
    std::map<int, uint64_t> statuses;  // every answer's status
    uint64_t bodyBytes = 0;            // of the delivered posts
    double seconds = 0;                // from the first post's start to the last one's end
    std::vector<float> latencyMs;      // of each delivered post: connect to answer read
    uint64_t resumedSessions = 0;      // handshakes that resumed a session (none expected)
    std::string tls;                   // the first connection's protocol and key exchange
    bool fleetFailed = false;          // a report could not be written: the run stopped
    uint64_t idleOpened = 0;           // idle connections that posted and stayed open
    uint64_t idleFailed = 0;           // idle connections that could not be opened
    uint64_t idleClosedByServer = 0;   // opened, then closed by the server during the run
    uint64_t slowOpened = 0;           // slow clients open when the measured posts started
    uint64_t slowFailed = 0;           // slow clients whose connection or handshake failed
    uint64_t slowReopened = 0;         // slow clients closed by the server and opened again

    uint64_t Failed() const;
};

// Runs the posts against `target`; `idleReady` (may be empty) is called once the idle
// connections and slow clients are open, before the measured posts start. False (with a message on
// stderr) when the run could not start: an address does not resolve or the CA file cannot be read.
bool RunLoad(const LoadTarget& target, const LoadLimits& limits, CReportFleet& fleet,
             LoadResult& result, const std::function<void()>& idleReady);

}  // namespace collectorload
