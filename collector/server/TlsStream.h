// A TLS connection run by OpenSSL directly on the socket's descriptor, as an asynchronous
// stream that Beast reads requests from and writes answers to.
//
// Why not the TLS stream that comes with the networking library: that one keeps two record
// buffers of 17 KiB for its whole life and passes every byte through a pair of in-memory
// BIOs of 17 KiB more, about 70 KiB a connection whether it is busy or idle. Here OpenSSL
// reads and writes the non-blocking socket itself and, with SSL_MODE_RELEASE_BUFFERS, gives
// its record buffers back whenever nothing is pending, so an idle kept-alive connection
// holds little more than its SSL object.
//
// Each operation tries the OpenSSL call at once and, when it wants the socket readable or
// writable, waits for that and tries again. Expire() ends the pending or next wait with
// beast::error::timeout (the owner runs the deadline timer). A completion is never called
// from inside the call that started the operation.
//
// Threads: one connection's operations run on its socket's executor (a strand), one read
// and one write at a time at most, as for any stream.
#pragma once

#include <openssl/ssl.h>

#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/error.hpp>
#include <cstddef>
#include <memory>
#include <string>

namespace collector {

class TlsStream {
public:
    using executor_type = boost::asio::ip::tcp::socket::executor_type;
    using error_code = boost::system::error_code;

    // `context` must have its certificate and key.
    TlsStream(boost::asio::ip::tcp::socket socket, SSL_CTX* context);

    // False when OpenSSL could not make the connection's SSL object (out of memory).
    bool Valid() const { return ssl_ != nullptr; }
    executor_type get_executor() { return socket_.get_executor(); }
    boost::asio::ip::tcp::socket& Socket() { return socket_; }

    // The pending wait (and any later one until Rearm) ends with beast::error::timeout.
    void Expire();
    void Rearm() { expired_ = false; }
    // Bytes OpenSSL has decrypted or received but not yet handed out.
    bool HasPending() const;
    // Gives OpenSSL's record buffers back while the connection waits (OpenSSL keeps its
    // read buffer between records even with SSL_MODE_RELEASE_BUFFERS); it makes them
    // again on the next read or write. Nothing is freed while bytes are pending.
    void ReleaseBuffers();

    // `prefix`: bytes already read from the socket that belong to the handshake (those
    // after a PROXY header); OpenSSL reads them first.
    template <class Handler>
    void AsyncHandshake(std::string prefix, Handler&& handler);
    // Sends close_notify (without waiting for the peer's).
    template <class Handler>
    void AsyncShutdown(Handler&& handler);

    template <class MutableBuffers, class Handler>
    BOOST_ASIO_INITFN_RESULT_TYPE(Handler, void(error_code, std::size_t))
    async_read_some(const MutableBuffers& buffers, Handler&& handler);

    template <class ConstBuffers, class Handler>
    BOOST_ASIO_INITFN_RESULT_TYPE(Handler, void(error_code, std::size_t))
    async_write_some(const ConstBuffers& buffers, Handler&& handler);

private:
    enum class Want { Nothing, Read, Write };
    struct Step {
        Want want = Want::Nothing;
        std::size_t bytes = 0;
        error_code error;
    };
    struct FreeSsl {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };

    // Interprets a failed OpenSSL call's result (SSL_get_error and the error queue).
    Step Failure(int result);
    Step TryHandshake();
    Step TryRead(void* data, std::size_t size);
    Step TryWrite(const void* data, std::size_t size);
    Step TryShutdown();

    // Runs `attempt` until it neither wants to read nor to write, then completes `handler`
    // with its error and byte count; `initiating` posts that completion.
    template <class Attempt, class Handler>
    void Drive(Attempt attempt, Handler handler, bool initiating);

    boost::asio::ip::tcp::socket socket_;
    std::unique_ptr<SSL, FreeSsl> ssl_;
    bool expired_ = false;
    bool failed_ = false;      // a fatal error: no close_notify may follow
    bool prefixRead_ = false;  // the read side is still a memory BIO with the prefix
};

// --- Templates -------------------------------------------------------------------------

template <class Attempt, class Handler>
void TlsStream::Drive(Attempt attempt, Handler handler, bool initiating) {
    Step step;
    if (expired_) {
        step.error = boost::beast::error::timeout;
    } else {
        step = attempt();
    }
    if (step.want == Want::Nothing) {
        if (initiating) {
            boost::asio::post(
                socket_.get_executor(),
                boost::beast::bind_front_handler(std::move(handler), step.error, step.bytes));
        } else {
            handler(step.error, step.bytes);
        }
        return;
    }
    socket_.async_wait(step.want == Want::Read ? boost::asio::socket_base::wait_read
                                               : boost::asio::socket_base::wait_write,
                       [this, attempt = std::move(attempt),
                        handler = std::move(handler)](error_code error) mutable {
                           if (error) {
                               if (expired_)
                                   error = boost::beast::error::timeout;
                               return handler(error, std::size_t(0));
                           }
                           Drive(std::move(attempt), std::move(handler), false);
                       });
}

template <class Handler>
void TlsStream::AsyncHandshake(std::string prefix, Handler&& handler) {
    if (!prefix.empty()) {
        BIO* copy = BIO_new(BIO_s_mem());
        if (copy != nullptr && BIO_write(copy, prefix.data(), static_cast<int>(prefix.size())) ==
                                   static_cast<int>(prefix.size())) {
            BIO_set_mem_eof_return(copy, -1);  // empty means "more later", not the end
            SSL_set0_rbio(ssl_.get(), copy);
            prefixRead_ = true;
        } else {
            BIO_free(copy);
            boost::asio::post(socket_.get_executor(),
                              [handler = std::forward<Handler>(handler)]() mutable {
                                  handler(make_error_code(boost::system::errc::not_enough_memory));
                              });
            return;
        }
    }
    Drive([this] { return TryHandshake(); },
          [handler = std::forward<Handler>(handler)](error_code error, std::size_t) mutable {
              handler(error);
          },
          true);
}

template <class Handler>
void TlsStream::AsyncShutdown(Handler&& handler) {
    Drive([this] { return TryShutdown(); },
          [handler = std::forward<Handler>(handler)](error_code error, std::size_t) mutable {
              handler(error);
          },
          true);
}

template <class MutableBuffers, class Handler>
BOOST_ASIO_INITFN_RESULT_TYPE(Handler, void(boost::system::error_code, std::size_t))
TlsStream::async_read_some(const MutableBuffers& buffers, Handler&& handler) {
    return boost::asio::async_initiate<Handler, void(error_code, std::size_t)>(
        [this](auto completion, const MutableBuffers& into) {
            boost::asio::mutable_buffer first;
            for (auto it = boost::asio::buffer_sequence_begin(into);
                 it != boost::asio::buffer_sequence_end(into); ++it) {
                first = *it;
                if (first.size() > 0)
                    break;
            }
            Drive([this, first] { return TryRead(first.data(), first.size()); },
                  std::move(completion), true);
        },
        handler, buffers);
}

template <class ConstBuffers, class Handler>
BOOST_ASIO_INITFN_RESULT_TYPE(Handler, void(boost::system::error_code, std::size_t))
TlsStream::async_write_some(const ConstBuffers& buffers, Handler&& handler) {
    return boost::asio::async_initiate<Handler, void(error_code, std::size_t)>(
        [this](auto completion, const ConstBuffers& from) {
            // An answer's header and body go out as one record: gathered up to a record's
            // size (the caller writes the rest next time).
            constexpr std::size_t kRecord = 16 * 1024;
            std::string gathered;
            for (auto it = boost::asio::buffer_sequence_begin(from);
                 it != boost::asio::buffer_sequence_end(from) && gathered.size() < kRecord; ++it) {
                const boost::asio::const_buffer piece = *it;
                gathered.append(static_cast<const char*>(piece.data()),
                                std::min(piece.size(), kRecord - gathered.size()));
            }
            Drive([this, gathered = std::move(
                             gathered)] { return TryWrite(gathered.data(), gathered.size()); },
                  std::move(completion), true);
        },
        handler, buffers);
}

}  // namespace collector
