// One connection of a receiving listener: the PROXY header (when the listener expects
// one), the TLS handshake, then requests one after another (keep-alive, pipelining) until
// the client closes, a limit closes it, or the collector drains.
//
// A request's limits are checked as soon as its header is read, before any of its body:
// the path and method, Content-Length (present, not over the largest report),
// Transfer-Encoding (refused outright), draining, free space, the client address's
// allowance and the body budget. The header must arrive within header_timeout of the
// request's first byte and the body at min_body_rate after that; an idle connection is
// closed after idle_timeout. A body that arrives whole is validated on the validators'
// pool, handed to the committer and answered when its batch is durable (200) or could
// not be stored (503 with Retry-After); a body cut short stores nothing.
//
// Between requests the connection holds no read buffer, parser or answer: it waits for the
// socket to become readable, so that thousands of idle kept-alive clients cost little.
//
// Threads: everything runs on the connection's strand; the validators and the committer
// hand their results back to it.
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "server/Limits.h"
#include "server/ProxyHeader.h"
#include "server/ReceiveContext.h"
#include "server/SessionRegistry.h"
#include "server/TlsStream.h"

namespace collector {

class ReceiveSession : public Drainable, public std::enable_shared_from_this<ReceiveSession> {
public:
    // `slot` is empty when the listener expects a PROXY header: the slot is taken for the
    // address that the header names.
    ReceiveSession(boost::asio::ip::tcp::socket socket, ReceiveContext& context,
                   std::string peerAddress, ConnectionLimiter::Slot slot);
    ~ReceiveSession() override;

    void Start();
    void Drain() override;

private:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;
    enum class State { Opening, Idle, Header, Body, Working, Writing, Closing };

    void ReadProxyHeader();
    void OnProxyBytes(boost::beast::error_code error, size_t bytes);
    void Handshake();
    void ReadRequest();
    void StartHeader();
    void OnHeader(boost::beast::error_code error);
    // Checks a POST /cef/upload header and starts reading its body; false when it was
    // answered instead.
    bool AdmitUpload(const Request& request);
    void OnBody(boost::beast::error_code error);
    // `announced`: the committer was told of it (Committer::Expect).
    void Validate(std::string body, bool zipped, bool announced);
    void OnStored(StoreResult result, const InsertOutcome& outcome);
    // Answers `status` with a short text; `close` ends the connection after it.
    void Answer(unsigned int status, const std::string& text, bool close,
                unsigned int retryAfter = 0);
    void OnWritten(boost::beast::error_code error, unsigned int status);
    void Close();
    // After our close_notify: our side of the socket is shut and what the client still
    // sends is read and dropped until it closes too (or the deadline), so that closing
    // with unread bytes does not reset the connection before the client read our answer.
    void Linger();
    void ReleaseBudget();
    // The current step's deadline; past it the pending operation ends with a timeout.
    void SetDeadline(std::chrono::steady_clock::time_point when);
    // A deadline ended the current step: a slow client's counts against its address.
    void NoteOverrun();
    void SetDeadline(std::chrono::steady_clock::duration after) {
        SetDeadline(std::chrono::steady_clock::now() + after);
    }

    boost::asio::ip::tcp::socket& Socket() { return stream_.Socket(); }

    ReceiveContext& context_;
    TlsStream stream_;
    boost::asio::steady_timer deadline_;
    std::string address_;
    bool addressKnown_;  // address_ is the client's (not a proxy's still to be read past)
    ConnectionLimiter::Slot slot_;
    uint64_t registryId_ = 0;

    State state_ = State::Opening;
    std::string proxyBytes_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    Response response_;
    std::chrono::steady_clock::time_point requestStart_;
    bool keepAlive_ = true;
    bool head_ = false;        // the request is a HEAD: its answer has no body
    bool uploadPath_ = false;  // the request is for the upload path (405's Allow)
    uint64_t reserved_ = 0;    // body bytes taken from the budget
    BodyBudget::Pool pool_ = BodyBudget::Pool::None;  // where reserved_ came from
};

}  // namespace collector
