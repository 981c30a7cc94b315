// The posting loop on Boost.Asio and Boost.Beast over OpenSSL, on one thread: the generator
// is pinned to one core, and one event loop keeps every post in flight without a thread
// (and its switches) each.
#include "LoadRun.h"

#include <netinet/in.h>
#include <openssl/ssl.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <chrono>
#include <cstdio>
#include <memory>

namespace collectorload {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
typedef std::chrono::steady_clock Clock;

uint64_t LoadResult::Failed() const {
    uint64_t failed = connectFailures + tlsFailures + httpFailures + timeouts;
    for (const auto& status : statuses) {
        if (status.first < 200 || status.first > 299) {
            failed += status.second;
        }
    }
    return failed;
}

namespace {

enum class Outcome { kAnswered, kConnectFailed, kTlsFailed, kExchangeFailed, kTimedOut };

class CLoad;

// One post, from connecting to reading the answer. It owns its connection; the callbacks
// hold it alive until it ends. A kept post (an idle connection) stays open after its answer
// and watches for the server closing it, until Close().
class CPost : public std::enable_shared_from_this<CPost> {
public:
    CPost(CLoad& load, std::string body, ReportKind kind, bool keep);
    void Start(const asio::ip::address& source);
    // Whether the server has closed the kept connection.
    bool ClosedByServer() const { return m_closedByServer; }
    void Close();

private:
    void OnConnected(beast::error_code error);
    void OnHandshake(beast::error_code error);
    void OnWritten(beast::error_code error);
    void OnAnswer(beast::error_code error);
    void End(beast::error_code error, Outcome failure);
    void Watch();

    CLoad& m_load;
    beast::ssl_stream<beast::tcp_stream> m_stream;
    std::string m_wire;  // the request as sent: head and body in one buffer
    size_t m_bodyBytes;
    beast::flat_buffer m_buffer;
    http::response<http::string_body> m_answer;
    ReportKind m_kind;
    bool m_keep;
    bool m_closedByServer = false;
    char m_watched = 0;
    Clock::time_point m_started;
};

// A slowloris client: connects, shakes hands, then sends a request's first line and
// headers a byte at a time, a byte every interval, never ending them. When the server
// closes it (its header deadline) it connects again at once, until Stop().
class CSlow : public std::enable_shared_from_this<CSlow> {
public:
    CSlow(CLoad& load, std::string head) : m_load(load), m_head(std::move(head)) {}
    void Start();
    void Stop();

private:
    void Connect();
    void OnHandshake(beast::error_code error);
    void SendByte();
    void Ended();

    CLoad& m_load;
    std::string m_head;  // the bytes dribbled, over and over
    std::unique_ptr<beast::ssl_stream<beast::tcp_stream>> m_stream;
    std::unique_ptr<asio::steady_timer> m_timer;
    size_t m_sent = 0;
    bool m_opened = false;  // has been open once: told the load
    bool m_stopped = false;
    char m_watched = 0;
    unsigned m_generation = 0;  // of the connection; a stale handler sees another one
};

class CLoad {
public:
    CLoad(const LoadTarget& target, const LoadLimits& limits, CReportFleet& fleet,
          LoadResult& result, const std::function<void()>& idleReady)
        : m_target(target),
          m_limits(limits),
          m_fleet(fleet),
          m_result(result),
          m_tls(ssl::context::tls_client),
          m_slowTls(ssl::context::tls_client),
          m_idleReady(idleReady) {}

    bool Prepare();
    void Run();

    asio::io_context& Io() { return m_io; }
    ssl::context& Tls() { return m_tls; }
    // The slow clients' context: as the posts' but without checking the certificate
    // chain, so that their reconnections cost the generator's one core little.
    ssl::context& SlowTls() { return m_slowTls; }
    const LoadTarget& Target() const { return m_target; }
    // The next connection's endpoint: the target's addresses in turn.
    const tcp::endpoint& NextEndpoint() {
        return m_endpoints[m_nextEndpoint++ % m_endpoints.size()];
    }
    std::chrono::milliseconds Timeout() const {
        return std::chrono::milliseconds(static_cast<long>(m_limits.timeoutSeconds * 1000));
    }

    void Ended(ReportKind kind, size_t bodyBytes, Clock::time_point started, Outcome outcome,
               int status, SSL* connection);
    // An idle connection's post has ended: `kept` is the open connection, null on failure.
    void IdleEnded(const std::shared_ptr<CPost>& kept);
    // A slow client is open for the first time (or could not open); or was reopened.
    void SlowOpened(bool open);
    void SlowReopened() { ++m_result.slowReopened; }
    std::chrono::milliseconds SlowInterval() const {
        return std::chrono::milliseconds(static_cast<long>(m_limits.slowIntervalSeconds * 1000));
    }
    asio::ip::address NextSource();
    // Slow clients come from addresses of their own (127.2.0.1 on), as a crowd of
    // misbehaving hosts would, apart from the measured posts' clients.
    asio::ip::address NextSlowSource();

private:
    void Launch();
    void LaunchIdle();
    void StartMeasured();
    void Finish();
    void LaunchSlow();
    void AfterSlow();

    const LoadTarget& m_target;
    const LoadLimits& m_limits;
    CReportFleet& m_fleet;
    LoadResult& m_result;
    asio::io_context m_io{1};
    ssl::context m_tls;
    ssl::context m_slowTls;
    std::vector<tcp::endpoint> m_endpoints;
    size_t m_nextEndpoint = 0;
    std::function<void()> m_idleReady;
    std::vector<std::shared_ptr<CPost>> m_idle;
    unsigned int m_idleLaunched = 0;
    unsigned int m_idleEnded = 0;
    std::vector<std::shared_ptr<CSlow>> m_slow;
    unsigned int m_slowLaunched = 0;
    unsigned int m_slowEnded = 0;
    uint64_t m_launched = 0;
    unsigned int m_inFlight = 0;
    uint32_t m_nextSource = 0;
    uint32_t m_nextSlowSource = 0;
    Clock::time_point m_begin;
    Clock::time_point m_deadline;
    Clock::time_point m_lastEnd;
    bool m_describedTls = false;
};

CPost::CPost(CLoad& load, std::string body, ReportKind kind, bool keep)
    : m_load(load),
      m_stream(load.Io(), load.Tls()),
      m_bodyBytes(body.size()),
      m_kind(kind),
      m_keep(keep) {
    // The client's headers, in the client's order; Content-Length comes from the body.
    http::request<http::string_body> request(http::verb::post, "/cef/upload", 11);
    request.set(http::field::host, load.Target().serverName);
    request.set(http::field::user_agent, "Pathweave");
    request.set(http::field::accept, "*/*");
    request.set(http::field::content_type, "application/x-www-form-urlencoded");
    request.body() = std::move(body);
    request.prepare_payload();
    // Serialised into one buffer, so that a small report leaves in one TLS record and one
    // segment with its headers, as the client sends it (a buffer sequence would be written
    // one TLS record per buffer).
    m_wire.reserve(m_bodyBytes + 256);
    http::request_serializer<http::string_body> serializer(request);
    beast::error_code error;
    while (!error && !serializer.is_done()) {
        serializer.next(error, [&](beast::error_code&, const auto& buffers) {
            for (const auto buffer : beast::buffers_range_ref(buffers)) {
                m_wire.append(static_cast<const char*>(buffer.data()), buffer.size());
            }
            serializer.consume(beast::buffer_bytes(buffers));
        });
    }
}

void CPost::Start(const asio::ip::address& source) {
    m_started = Clock::now();
    const LoadTarget& target = m_load.Target();
    SSL_set_tlsext_host_name(m_stream.native_handle(), target.serverName.c_str());
    if (target.verify) {
        m_stream.set_verify_callback(ssl::host_name_verification(target.serverName));
    }
    if (!source.is_unspecified()) {
        // The port is chosen at connect time, so that every source address has the whole
        // range of ports towards the server.
        tcp::socket& socket = beast::get_lowest_layer(m_stream).socket();
        beast::error_code error;
        socket.open(source.is_v4() ? tcp::v4() : tcp::v6(), error);
        const int on = 1;
        if (!error) {
            setsockopt(socket.native_handle(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
            socket.bind(tcp::endpoint(source, 0), error);
        }
        if (error) {
            // Ended later, from the event loop: the next post is not started from inside
            // this one's start.
            asio::post(m_stream.get_executor(), [self = shared_from_this(), error]() {
                self->End(error, Outcome::kConnectFailed);
            });
            return;
        }
    }
    beast::get_lowest_layer(m_stream).expires_after(m_load.Timeout());
    beast::get_lowest_layer(m_stream).async_connect(
        m_load.NextEndpoint(),
        [self = shared_from_this()](beast::error_code error) { self->OnConnected(error); });
}

void CPost::OnConnected(beast::error_code error) {
    if (error) {
        return End(error, Outcome::kConnectFailed);
    }
    // As the client (libcurl's default): the request's headers and body go out at once,
    // not held back for the acknowledgement of the handshake's last segment.
    beast::error_code ignored;
    beast::get_lowest_layer(m_stream).socket().set_option(tcp::no_delay(true), ignored);
    beast::get_lowest_layer(m_stream).expires_after(m_load.Timeout());
    m_stream.async_handshake(
        ssl::stream_base::client,
        [self = shared_from_this()](beast::error_code error) { self->OnHandshake(error); });
}

void CPost::OnHandshake(beast::error_code error) {
    if (error) {
        return End(error, Outcome::kTlsFailed);
    }
    beast::get_lowest_layer(m_stream).expires_after(m_load.Timeout());
    asio::async_write(
        m_stream, asio::buffer(m_wire),
        [self = shared_from_this()](beast::error_code error, size_t) { self->OnWritten(error); });
}

void CPost::OnWritten(beast::error_code error) {
    if (error) {
        return End(error, Outcome::kExchangeFailed);
    }
    beast::get_lowest_layer(m_stream).expires_after(m_load.Timeout());
    http::async_read(
        m_stream, m_buffer, m_answer,
        [self = shared_from_this()](beast::error_code error, size_t) { self->OnAnswer(error); });
}

void CPost::OnAnswer(beast::error_code error) {
    End(error, error ? Outcome::kExchangeFailed : Outcome::kAnswered);
}

// The connection is closed without a TLS close_notify: the answer is in, and waiting for
// the server's own close_notify would hold the slot for another round trip.
void CPost::End(beast::error_code error, Outcome failure) {
    const Outcome outcome = error == beast::error::timeout ? Outcome::kTimedOut : failure;
    const int status = outcome == Outcome::kAnswered ? static_cast<int>(m_answer.result_int()) : 0;
    if (m_keep) {
        const bool kept = status >= 200 && status <= 299 && m_answer.keep_alive();
        if (kept) {
            Watch();
        } else {
            Close();
        }
        return m_load.IdleEnded(kept ? shared_from_this() : nullptr);
    }
    m_load.Ended(m_kind, m_bodyBytes, m_started, outcome, status, m_stream.native_handle());
    Close();
}

// An idle connection is read without a deadline: the read ends only when the server
// closes the connection (or sends something it should not), or when Close() aborts it.
void CPost::Watch() {
    beast::get_lowest_layer(m_stream).expires_never();
    m_stream.async_read_some(asio::buffer(&m_watched, 1),
                             [self = shared_from_this()](beast::error_code error, size_t) {
                                 if (error != asio::error::operation_aborted) {
                                     self->m_closedByServer = true;
                                 }
                             });
}

void CPost::Close() {
    beast::error_code ignored;
    beast::get_lowest_layer(m_stream).socket().close(ignored);
}

void CSlow::Start() {
    m_timer = std::make_unique<asio::steady_timer>(m_load.Io());
    Connect();
}

void CSlow::Connect() {
    ++m_generation;
    m_sent = 0;
    m_stream =
        std::make_unique<beast::ssl_stream<beast::tcp_stream>>(m_load.Io(), m_load.SlowTls());
    SSL_set_tlsext_host_name(m_stream->native_handle(), m_load.Target().serverName.c_str());
    const asio::ip::address source = m_load.NextSlowSource();
    tcp::socket& socket = beast::get_lowest_layer(*m_stream).socket();
    beast::error_code error;
    if (!source.is_unspecified()) {
        socket.open(source.is_v4() ? tcp::v4() : tcp::v6(), error);
        const int on = 1;
        if (!error) {
            setsockopt(socket.native_handle(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
            socket.bind(tcp::endpoint(source, 0), error);
        }
    }
    const unsigned generation = m_generation;
    if (error) {
        asio::post(m_load.Io(), [self = shared_from_this(), generation] {
            if (generation == self->m_generation)
                self->OnHandshake(asio::error::address_in_use);
        });
        return;
    }
    beast::get_lowest_layer(*m_stream).expires_after(m_load.Timeout());
    beast::get_lowest_layer(*m_stream).async_connect(
        m_load.NextEndpoint(), [self = shared_from_this(), generation](beast::error_code error) {
            if (generation != self->m_generation)
                return;
            if (error)
                return self->OnHandshake(error);
            self->m_stream->async_handshake(ssl::stream_base::client,
                                            [self, generation](beast::error_code error) {
                                                if (generation == self->m_generation)
                                                    self->OnHandshake(error);
                                            });
        });
}

void CSlow::OnHandshake(beast::error_code error) {
    if (m_stopped)
        return;
    if (error) {
        if (!m_opened) {
            m_opened = true;  // counted as failed; not tried again
            m_load.SlowOpened(false);
            return;
        }
        // Opened before: tried again after a pause.
        const unsigned generation = m_generation;
        m_timer->expires_after(m_load.SlowInterval());
        m_timer->async_wait([self = shared_from_this(), generation](beast::error_code error) {
            if (!error && generation == self->m_generation && !self->m_stopped)
                self->Connect();
        });
        return;
    }
    if (!m_opened) {
        m_opened = true;
        m_load.SlowOpened(true);
    }
    // The server ends the connection at its deadline: the watch sees it and opens again.
    beast::get_lowest_layer(*m_stream).expires_never();
    const unsigned generation = m_generation;
    m_stream->async_read_some(asio::buffer(&m_watched, 1),
                              [self = shared_from_this(), generation](beast::error_code, size_t) {
                                  if (generation == self->m_generation)
                                      self->Ended();
                              });
    SendByte();
}

void CSlow::SendByte() {
    const unsigned generation = m_generation;
    asio::async_write(*m_stream, asio::buffer(&m_head[m_sent % m_head.size()], 1),
                      [self = shared_from_this(), generation](beast::error_code error, size_t) {
                          if (generation != self->m_generation || self->m_stopped)
                              return;
                          if (error)
                              return self->Ended();
                          ++self->m_sent;
                          self->m_timer->expires_after(self->m_load.SlowInterval());
                          self->m_timer->async_wait([self, generation](beast::error_code error) {
                              if (!error && generation == self->m_generation && !self->m_stopped)
                                  self->SendByte();
                          });
                      });
}

void CSlow::Ended() {
    if (m_stopped)
        return;
    m_timer->cancel();
    beast::error_code ignored;
    beast::get_lowest_layer(*m_stream).socket().close(ignored);
    m_load.SlowReopened();
    Connect();
}

void CSlow::Stop() {
    m_stopped = true;
    ++m_generation;
    if (m_timer)
        m_timer->cancel();
    if (m_stream) {
        beast::error_code ignored;
        beast::get_lowest_layer(*m_stream).socket().close(ignored);
    }
}

bool CLoad::Prepare() {
    beast::error_code error;
    for (const LoadAddress& address : m_target.addresses) {
        auto endpoints = tcp::resolver(m_io).resolve(address.host, address.port, error);
        if (error || endpoints.empty()) {
            fprintf(stderr, "collector_load: cannot resolve %s:%s: %s\n", address.host.c_str(),
                    address.port.c_str(), error.message().c_str());
            return false;
        }
        m_endpoints.push_back(endpoints.begin()->endpoint());
    }
    if (m_endpoints.empty()) {
        fprintf(stderr, "collector_load: no address to post to\n");
        return false;
    }

    SSL_CTX* slow = m_slowTls.native_handle();
    SSL_CTX_set_min_proto_version(slow, TLS1_2_VERSION);
    SSL_CTX_set_session_cache_mode(slow, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(slow, SSL_OP_NO_TICKET);
    m_slowTls.set_verify_mode(ssl::verify_none);

    SSL_CTX* context = m_tls.native_handle();
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // As the client: a new session for every post, never a resumed one.
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    if (m_target.verify) {
        if (m_target.caFile.empty()) {
            m_tls.set_default_verify_paths(error);
        } else {
            m_tls.load_verify_file(m_target.caFile, error);
        }
        if (error) {
            fprintf(stderr, "collector_load: cannot load the trust anchors %s: %s\n",
                    m_target.caFile.c_str(), error.message().c_str());
            return false;
        }
        m_tls.set_verify_mode(ssl::verify_peer);
    } else {
        m_tls.set_verify_mode(ssl::verify_none);
    }
    return true;
}

asio::ip::address CLoad::NextSource() {
    if (m_limits.sourceAddresses == 0) {
        return asio::ip::address();
    }
    const uint32_t index = m_nextSource++ % m_limits.sourceAddresses;
    return asio::ip::address_v4(asio::ip::address_v4::loopback().to_uint() + index);
}

asio::ip::address CLoad::NextSlowSource() {
    if (m_limits.sourceAddresses == 0) {
        return asio::ip::address();
    }
    const uint32_t index = m_nextSlowSource++ % m_limits.sourceAddresses;
    return asio::ip::address_v4(asio::ip::make_address_v4("127.2.0.1").to_uint() + index);
}

void CLoad::Launch() {
    if (m_result.fleetFailed ||
        (m_limits.count > 0 ? m_launched >= m_limits.count : Clock::now() >= m_deadline)) {
        return;
    }
    std::string body;
    ReportKind kind = ReportKind::kFeedback;
    if (!m_fleet.Next(body, kind)) {
        m_result.fleetFailed = true;
        return;
    }
    ++m_launched;
    ++m_inFlight;
    std::make_shared<CPost>(*this, std::move(body), kind, false)->Start(NextSource());
}

void CLoad::LaunchIdle() {
    std::string body;
    if (m_result.fleetFailed || m_idleLaunched >= m_limits.idleConnections) {
        return;
    }
    if (!m_fleet.NextFeedback(body)) {
        m_result.fleetFailed = true;
        return;
    }
    ++m_idleLaunched;
    std::make_shared<CPost>(*this, std::move(body), ReportKind::kFeedback, true)
        ->Start(NextSource());
}

void CLoad::IdleEnded(const std::shared_ptr<CPost>& kept) {
    ++m_idleEnded;
    if (kept) {
        m_idle.push_back(kept);
    } else {
        ++m_result.idleFailed;
    }
    LaunchIdle();
    if (m_idleEnded == m_idleLaunched) {
        StartMeasured();
    }
}

// Slow clients open a few at a time, as the idle connections do; the rest of the run
// starts once they all are (or failed).
void CLoad::LaunchSlow() {
    if (m_slowLaunched >= m_limits.slowConnections)
        return;
    ++m_slowLaunched;
    const std::string head = "POST /cef/upload HTTP/1.1\r\nHost: " + m_target.serverName +
                             "\r\nUser-Agent: Pathweave\r\nAccept: */*\r\n";
    m_slow.push_back(std::make_shared<CSlow>(*this, head));
    m_slow.back()->Start();
}

void CLoad::SlowOpened(bool open) {
    ++m_slowEnded;
    if (open) {
        ++m_result.slowOpened;
    } else {
        ++m_result.slowFailed;
    }
    LaunchSlow();
    if (m_slowEnded == m_slowLaunched) {
        AfterSlow();
    }
}

void CLoad::AfterSlow() {
    if (m_limits.idleConnections == 0) {
        return StartMeasured();
    }
    for (unsigned int slot = 0; slot < m_limits.concurrency; ++slot) {
        LaunchIdle();
    }
}

void CLoad::StartMeasured() {
    m_result.idleOpened = m_idle.size();
    if ((m_limits.idleConnections > 0 || m_limits.slowConnections > 0) && m_idleReady) {
        m_idleReady();
    }
    m_begin = Clock::now();
    m_lastEnd = m_begin;
    m_deadline =
        m_begin + std::chrono::milliseconds(static_cast<long>(m_limits.durationSeconds * 1000));
    for (unsigned int slot = 0; slot < m_limits.concurrency; ++slot) {
        Launch();
    }
    if (m_inFlight == 0) {
        Finish();
    }
}

// Ends the run: the idle connections that are still open are closed, which ends their
// watches, and with nothing left to wait for the event loop returns.
void CLoad::Finish() {
    for (const std::shared_ptr<CPost>& idle : m_idle) {
        if (idle->ClosedByServer()) {
            ++m_result.idleClosedByServer;
        }
        idle->Close();
    }
    m_idle.clear();
    for (const std::shared_ptr<CSlow>& slow : m_slow) {
        slow->Stop();
    }
    m_slow.clear();
}

void CLoad::Ended(ReportKind kind, size_t bodyBytes, Clock::time_point started, Outcome outcome,
                  int status, SSL* connection) {
    --m_inFlight;
    m_lastEnd = Clock::now();
    switch (outcome) {
        case Outcome::kConnectFailed:
            ++m_result.connectFailures;
            break;
        case Outcome::kTlsFailed:
            ++m_result.tlsFailures;
            break;
        case Outcome::kExchangeFailed:
            ++m_result.httpFailures;
            break;
        case Outcome::kTimedOut:
            ++m_result.timeouts;
            break;
        case Outcome::kAnswered:
            ++m_result.statuses[status];
            if (status >= 200 && status <= 299) {
                ++m_result.delivered;
                ++m_result.deliveredKinds[static_cast<int>(kind)];
                m_result.bodyBytes += bodyBytes;
                m_result.latencyMs.push_back(
                    std::chrono::duration<float, std::milli>(m_lastEnd - started).count());
            }
            break;
    }
    if (outcome != Outcome::kConnectFailed && outcome != Outcome::kTlsFailed) {
        if (SSL_session_reused(connection)) {
            ++m_result.resumedSessions;
        }
        if (!m_describedTls) {
            m_describedTls = true;
            const char* group = SSL_group_to_name(connection, SSL_get_negotiated_group(connection));
            m_result.tls = std::string(SSL_get_version(connection)) + "/" +
                           (group != nullptr ? group : "unknown");
        }
    }
    Launch();
    if (m_inFlight == 0) {
        Finish();
    }
}

void CLoad::Run() {
    if (m_limits.slowConnections == 0) {
        AfterSlow();
    } else {
        for (unsigned int slot = 0; slot < 4 * m_limits.concurrency; ++slot) {
            LaunchSlow();
        }
    }
    m_io.run();
    m_result.seconds = std::chrono::duration<double>(m_lastEnd - m_begin).count();
}

}  // namespace

bool RunLoad(const LoadTarget& target, const LoadLimits& limits, CReportFleet& fleet,
             LoadResult& result, const std::function<void()>& idleReady) {
    CLoad load(target, limits, fleet, result, idleReady);
    if (!load.Prepare()) {
        return false;
    }
    load.Run();
    return true;
}

}  // namespace collectorload
