#include "server/ReceiveSession.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/core/string.hpp>
#include <new>

#include "HostClock.h"
#include "report/ReportValidator.h"
#include "server/ServerLog.h"

namespace collector {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

constexpr const char kLogSource[] = "ReceiveSession";
constexpr size_t kHeaderLimit = 16 * 1024;
// Writing an answer and the TLS goodbye get this long; a client that does not read them
// loses its connection.
constexpr auto kWriteTimeout = std::chrono::seconds(30);
constexpr auto kShutdownTimeout = std::chrono::seconds(2);
// While draining, the TLS goodbye is sent but the client's own is hardly waited for (a
// server needs none): an idle keep-alive client must not hold the exit for seconds.
constexpr auto kDrainShutdownTimeout = std::chrono::milliseconds(100);
// What is kept of a damaged body past its address's daily allowance.
constexpr size_t kDamagedKeptBytes = 4096;
// Bodies up to this size are validated on the network thread that read them.
constexpr size_t kInlineValidationBytes = 16 * 1024;
// Retry-After when storage or the body budget cannot take a post now.
constexpr unsigned int kRetryStorage = 60;
constexpr unsigned int kRetryBusy = 5;
constexpr unsigned int kRetryDiskFull = 300;

}  // namespace

ReceiveSession::ReceiveSession(tcp::socket socket, ReceiveContext& context, std::string peerAddress,
                               ConnectionLimiter::Slot slot)
    : context_(context),
      stream_(std::move(socket), context.tls.Current()->native_handle()),
      deadline_(stream_.get_executor()),
      address_(std::move(peerAddress)),
      addressKnown_(!context.settings.proxyProtocol),
      slot_(std::move(slot)) {
    context_.metrics.ConnectionOpened();
}

ReceiveSession::~ReceiveSession() {
    ReleaseBudget();
    context_.metrics.ConnectionClosed();
    if (registryId_ != 0)
        context_.sessions.Remove(registryId_);
}

void ReceiveSession::Start() {
    registryId_ = context_.sessions.Add(shared_from_this());
    asio::dispatch(stream_.get_executor(), [self = shared_from_this()] {
        if (!self->stream_.Valid()) {
            COLLECTOR_LOG(CAppLog::Error, "out of memory for a connection from %s",
                          self->address_.c_str());
            return self->Close();
        }
        if (self->context_.settings.proxyProtocol) {
            self->ReadProxyHeader();
        } else {
            self->Handshake();
        }
    });
}

void ReceiveSession::Drain() {
    asio::post(stream_.get_executor(), [self = shared_from_this()] {
        if (self->state_ == State::Idle || self->state_ == State::Opening) {
            beast::error_code ignored;
            self->Socket().cancel(ignored);
        }
    });
}

// --- Before the first request --------------------------------------------------------

void ReceiveSession::SetDeadline(std::chrono::steady_clock::time_point when) {
    stream_.Rearm();
    deadline_.expires_at(when);
    deadline_.async_wait([weak = weak_from_this()](beast::error_code error) {
        auto self = weak.lock();
        // A wait replaced by a later deadline is cancelled, or has fired just before it was
        // replaced: only the deadline now set may end the step.
        if (!error && self && self->deadline_.expiry() <= std::chrono::steady_clock::now()) {
            self->NoteOverrun();
            self->stream_.Expire();
        }
    });
}

void ReceiveSession::NoteOverrun() {
    // An idle keep-alive connection reaching its idle timeout is no fault; a handshake, a
    // header or a body past its deadline is. Behind a proxy the address is the client's
    // only once the PROXY header is read.
    const bool slow = state_ == State::Header || state_ == State::Body ||
                      (state_ == State::Opening && addressKnown_);
    const double now = MonotonicSeconds();
    const double refusal = slow ? context_.slowClients.NoteOverrun(address_, now) : 0;
    if (refusal == 0)
        return;
    uint64_t suppressed = 0;
    if (context_.slowLog.Allow(now, suppressed)) {
        COLLECTOR_LOG(CAppLog::Warning,
                      "refusing connections from %s for %.0f s: %u of its connections ran past "
                      "their deadlines within a minute (%llu more addresses refused since the "
                      "last one logged)",
                      address_.c_str(), refusal, context_.settings.slowClientStrikes,
                      static_cast<unsigned long long>(suppressed));
    }
}

void ReceiveSession::ReadProxyHeader() {
    SetDeadline(std::chrono::seconds(context_.settings.headerTimeoutSeconds));
    const size_t have = proxyBytes_.size();
    proxyBytes_.resize(kMaxProxyHeader);
    Socket().async_read_some(
        asio::buffer(&proxyBytes_[have], kMaxProxyHeader - have),
        [self = shared_from_this(), have](beast::error_code error, size_t bytes) {
            self->proxyBytes_.resize(have + bytes);
            self->OnProxyBytes(error, bytes);
        });
}

void ReceiveSession::OnProxyBytes(beast::error_code error, size_t) {
    if (error)
        return Close();
    ProxyHeader header;
    switch (ParseProxyHeader(proxyBytes_.data(), proxyBytes_.size(), header)) {
        case ProxyParse::NeedMore:
            return ReadProxyHeader();
        case ProxyParse::Invalid:
            COLLECTOR_LOG(CAppLog::Warning, "connection from %s without a valid PROXY header",
                          address_.c_str());
            return Close();
        case ProxyParse::Done:
            break;
    }
    if (!header.clientAddress.empty())
        address_ = header.clientAddress;
    addressKnown_ = true;
    if (context_.slowClients.Refused(address_, MonotonicSeconds())) {
        context_.metrics.CountRefusedConnection();
        return Close();
    }
    slot_ = context_.connections.TryAcquire(address_);
    if (!slot_) {
        context_.metrics.CountRefusedConnection();
        return Close();
    }
    proxyBytes_.erase(0, header.length);  // the start of the TLS handshake, if any
    Handshake();
}

void ReceiveSession::Handshake() {
    SetDeadline(std::chrono::seconds(context_.settings.headerTimeoutSeconds));
    stream_.AsyncHandshake(std::move(proxyBytes_),
                           [self = shared_from_this()](beast::error_code error) {
                               self->proxyBytes_ = std::string();
                               if (error)
                                   return self->Close();
                               self->state_ = State::Idle;
                               self->ReadRequest();
                           });
}

// --- Reading a request ---------------------------------------------------------------

void ReceiveSession::ReadRequest() {
    if (context_.draining)
        return Close();
    if (buffer_.size() > 0 || stream_.HasPending())
        return StartHeader();  // a pipelined request is waiting
    state_ = State::Idle;
    buffer_ = beast::flat_buffer();
    stream_.ReleaseBuffers();
    SetDeadline(std::chrono::seconds(context_.settings.idleTimeoutSeconds));
    Socket().async_wait(tcp::socket::wait_read,
                        [self = shared_from_this()](beast::error_code error) {
                            if (error)
                                return self->Close();
                            self->StartHeader();
                        });
}

void ReceiveSession::StartHeader() {
    state_ = State::Header;
    requestStart_ = std::chrono::steady_clock::now();
    head_ = false;
    uploadPath_ = true;
    SetDeadline(requestStart_ + std::chrono::seconds(context_.settings.headerTimeoutSeconds));
    parser_.emplace();
    parser_->header_limit(kHeaderLimit);
    parser_->body_limit(kMaxBodyBytes);
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code error, size_t) { self->OnHeader(error); });
}

void ReceiveSession::OnHeader(beast::error_code error) {
    if (error == http::error::header_limit)
        return Answer(431, "header too large\n", true);
    // Content-Length past the parser's body limit: refused from the header alone.
    if (error == http::error::body_limit)
        return Answer(413, "report too large\n", true);
    if (error == beast::error::timeout || error == http::error::end_of_stream ||
        error == asio::error::eof || error == asio::ssl::error::stream_truncated ||
        error == asio::error::operation_aborted || error == asio::error::connection_reset) {
        return Close();
    }
    if (error)
        return Answer(400, "bad request\n", true);

    const Request& request = parser_->get();
    keepAlive_ = request.keep_alive();
    // A body this connection will not read makes the rest of the stream unreadable.
    const bool unreadBody = !parser_->is_done();
    const beast::string_view target = request.target();
    const beast::string_view path = target.substr(0, target.find('?'));
    head_ = request.method() == http::verb::head;
    const bool readOnly = request.method() == http::verb::get || head_;
    uploadPath_ = path == "/cef/upload";

    if (path == "/healthz" || path == "/readyz") {
        if (!readOnly)
            return Answer(405, "method not allowed\n", unreadBody);
        if (path == "/healthz")
            return Answer(200, "alive\n", unreadBody);
        if (context_.committer.Ready())
            return Answer(200, "ready\n", unreadBody);
        return Answer(503, "storage unreachable\n", unreadBody, kRetryStorage);
    }
    if (path != "/cef/upload")
        return Answer(404, "not found\n", unreadBody);
    if (request.method() != http::verb::post)
        return Answer(405, "method not allowed\n", unreadBody);
    if (AdmitUpload(request)) {
        state_ = State::Body;
        if (parser_->is_done())
            return OnBody(beast::error_code());
        http::async_read(
            stream_, buffer_, *parser_,
            [self = shared_from_this()](beast::error_code error, size_t) { self->OnBody(error); });
    }
}

bool ReceiveSession::AdmitUpload(const Request& request) {
    // Any Transfer-Encoding is refused and the connection closed: a proxy in front that
    // reads the framing differently could otherwise smuggle a request behind this one.
    if (request.count(http::field::transfer_encoding) > 0) {
        Answer(400, "Transfer-Encoding is not accepted\n", true);
        return false;
    }
    const auto length = parser_->content_length();
    if (!length) {
        Answer(411, "Content-Length required\n", true);
        return false;
    }
    if (*length > kMaxBodyBytes) {
        Answer(413, "report too large\n", true);
        return false;
    }
    const double now = MonotonicSeconds();
    unsigned int retryAfter = 0;
    if (context_.draining) {
        Answer(503, "shutting down\n", true, kRetryBusy);
    } else if (!context_.freeSpace.Enough(now)) {
        Answer(503, "storage full\n", true, kRetryDiskFull);
    } else if (!context_.quotas.AdmitPost(address_, *length, now, retryAfter)) {
        Answer(429, "too many reports from this address\n", true, retryAfter);
    } else if ((pool_ = context_.budget.TryReserve(address_, *length)) == BodyBudget::Pool::None) {
        Answer(503, "busy\n", true, kRetryBusy);
    } else {
        reserved_ = *length;
        const uint64_t rate = context_.settings.minBodyRate > 0 ? context_.settings.minBodyRate : 1;
        SetDeadline(requestStart_ + std::chrono::seconds(context_.settings.headerTimeoutSeconds) +
                    std::chrono::seconds(*length / rate));
        return true;
    }
    return false;
}

void ReceiveSession::OnBody(beast::error_code error) {
    if (error) {
        // Cut short, too slow or gone: nothing of it is kept.
        ReleaseBudget();
        return Close();
    }
    state_ = State::Working;
    const Request& request = parser_->get();
    const bool zipped = beast::iequals(request["Zip"], "True");
    std::string body = parser_->release().body();
    parser_.reset();
    context_.metrics.CountBytesReceived(body.size());
    // A small plain body (a feedback report, some hundred bytes) is checked here in tens
    // of microseconds, cheaper than two thread hand-overs; a crash report's dump or a
    // zipped body is decoded on the validators so that no network thread stalls on it.
    if (!zipped && body.size() <= kInlineValidationBytes)
        return Validate(std::move(body), zipped, false);
    // The committer may hold a batch briefly for a report that is this close; Validate
    // submits it or forgets it.
    context_.committer.Expect();
    asio::post(context_.validators,
               [self = shared_from_this(), body = std::move(body), zipped]() mutable {
                   self->Validate(std::move(body), zipped, true);
               });
}

// --- Validating and storing (small bodies inline, others on a validator thread) -----

void ReceiveSession::Validate(std::string body, bool zipped, bool announced) {
    ValidatedReport report;
    try {
        report = ValidateBody(std::move(body), zipped);
    } catch (const std::bad_alloc&) {
        COLLECTOR_LOG(CAppLog::Error, "out of memory validating a report from %s",
                      address_.c_str());
        if (announced)
            context_.committer.Forget();
        asio::post(stream_.get_executor(), [self = shared_from_this()] {
            self->OnStored(StoreResult::Unavailable, InsertOutcome());
        });
        return;
    }
    report.received = static_cast<int64_t>(GetCurrentTimeSeconds());
    if (context_.settings.keepClientAddress)
        report.clientAddress = address_;
    if (report.kind == ReportKind::Damaged) {
        const double now = MonotonicSeconds();
        uint64_t suppressed = 0;
        if (context_.damagedLog.Allow(now, suppressed)) {
            COLLECTOR_LOG(CAppLog::Warning,
                          "damaged report from %s (%zu bytes): %s (%llu more since the last "
                          "one logged)",
                          address_.c_str(), report.body.size(), report.damagedReason.c_str(),
                          static_cast<unsigned long long>(suppressed));
        }
        // Past its address's daily allowance, a damaged body is kept only in part (with its
        // hash and size), so that a broken or hostile client cannot fill the disk with it.
        if (report.body.size() > kDamagedKeptBytes &&
            !context_.quotas.AdmitDamaged(address_, report.body.size(), now)) {
            report.damagedReason +=
                "; over the address's daily allowance of damaged bytes, first " +
                std::to_string(kDamagedKeptBytes) + " of " + std::to_string(report.body.size()) +
                " bytes kept";
            report.body.resize(kDamagedKeptBytes);
            report.body.shrink_to_fit();
        }
    }
    // The committer's answer must come back to this connection even while the listeners
    // drain: the work guard keeps the connection's executor running until then.
    auto work = asio::make_work_guard(stream_.get_executor());
    context_.committer.Submit(
        std::move(report),
        [self = shared_from_this(), work](StoreResult result, const InsertOutcome& outcome) {
            asio::post(self->stream_.get_executor(),
                       [self, result, outcome] { self->OnStored(result, outcome); });
        },
        announced);
}

void ReceiveSession::OnStored(StoreResult result, const InsertOutcome& outcome) {
    ReleaseBudget();
    if (result == StoreResult::Ok) {
        return Answer(200, outcome.duplicate ? "already stored\n" : "stored\n", false);
    }
    Answer(503, "could not store the report, try again later\n", false, kRetryStorage);
}

// --- Answering -------------------------------------------------------------------------

void ReceiveSession::Answer(unsigned int status, const std::string& text, bool close,
                            unsigned int retryAfter) {
    state_ = State::Writing;
    if (close)
        keepAlive_ = false;
    response_ = Response(static_cast<http::status>(status), 11);
    response_.set(http::field::server, "pathweave-collector");
    response_.set(http::field::content_type, "text/plain; charset=utf-8");
    if (retryAfter > 0)
        response_.set(http::field::retry_after, std::to_string(retryAfter));
    if (status == 405)
        response_.set(http::field::allow, uploadPath_ ? "POST" : "GET, HEAD");
    response_.keep_alive(keepAlive_ && !context_.draining);
    // A HEAD is answered with the header a GET gets, its Content-Length included, and no
    // body.
    if (head_) {
        response_.content_length(text.size());
    } else {
        response_.body() = text;
        response_.prepare_payload();
    }
    SetDeadline(kWriteTimeout);
    http::async_write(stream_, response_,
                      [self = shared_from_this(), status](beast::error_code error, size_t) {
                          self->OnWritten(error, status);
                      });
}

void ReceiveSession::OnWritten(beast::error_code error, unsigned int status) {
    context_.metrics.CountRequest(status);
    const bool keepAlive = response_.keep_alive();
    response_ = Response();
    parser_.reset();
    if (error || !keepAlive)
        return Close();
    ReadRequest();
}

void ReceiveSession::Close() {
    if (state_ == State::Closing)
        return;
    const bool secured = state_ != State::Opening;
    state_ = State::Closing;
    ReleaseBudget();
    beast::error_code ignored;
    if (!secured)
        return void(Socket().close(ignored));  // no TLS session to end
    parser_.reset();
    buffer_ = beast::flat_buffer();
    SetDeadline(context_.draining ? kDrainShutdownTimeout : kShutdownTimeout);
    stream_.AsyncShutdown([self = shared_from_this()](beast::error_code error) {
        beast::error_code ignored;
        if (error)
            return void(self->Socket().close(ignored));
        self->Socket().shutdown(tcp::socket::shutdown_send, ignored);
        self->Linger();
    });
}

void ReceiveSession::Linger() {
    Socket().async_wait(
        tcp::socket::wait_read, [self = shared_from_this()](beast::error_code error) {
            if (!error) {
                char scrap[4096];
                const size_t bytes = self->Socket().read_some(asio::buffer(scrap), error);
                if ((!error && bytes > 0) || error == asio::error::would_block ||
                    error == asio::error::try_again)
                    return self->Linger();
            }
            beast::error_code ignored;
            self->Socket().close(ignored);
        });
}

void ReceiveSession::ReleaseBudget() {
    if (reserved_ > 0)
        context_.budget.Release(address_, reserved_, pool_);
    reserved_ = 0;
    pool_ = BodyBudget::Pool::None;
}

}  // namespace collector
