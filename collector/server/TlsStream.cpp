#include "server/TlsStream.h"

#include <openssl/err.h>

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <cerrno>
#include <climits>

namespace collector {

namespace asio = boost::asio;

TlsStream::TlsStream(asio::ip::tcp::socket socket, SSL_CTX* context)
    : socket_(std::move(socket)), ssl_(SSL_new(context)) {
    // Non-blocking for OpenSSL's own reads and writes and for the owner's direct ones.
    error_code ignored;
    socket_.non_blocking(true, ignored);
    if (!ssl_)
        return;
    if (SSL_set_fd(ssl_.get(), socket_.native_handle()) != 1) {
        ssl_.reset();
        return;
    }
    // A write that the socket takes only in part is reported in part, and its retry may
    // come from another copy of the same bytes.
    SSL_set_mode(ssl_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                 SSL_MODE_RELEASE_BUFFERS);
    SSL_set_accept_state(ssl_.get());
}

void TlsStream::Expire() {
    expired_ = true;
    error_code ignored;
    socket_.cancel(ignored);
}

bool TlsStream::HasPending() const {
    return ssl_ && (SSL_pending(ssl_.get()) > 0 || SSL_has_pending(ssl_.get()) == 1);
}

void TlsStream::ReleaseBuffers() {
    if (ssl_)
        SSL_free_buffers(ssl_.get());  // refuses (and keeps them) while bytes are pending
}

TlsStream::Step TlsStream::Failure(int result) {
    const int saved = errno;
    Step step;
    switch (SSL_get_error(ssl_.get(), result)) {
        case SSL_ERROR_WANT_READ:
            step.want = Want::Read;
            break;
        case SSL_ERROR_WANT_WRITE:
            step.want = Want::Write;
            break;
        case SSL_ERROR_ZERO_RETURN:
            step.error = asio::error::eof;  // the peer's close_notify
            break;
        case SSL_ERROR_SYSCALL:
            step.error = saved != 0 ? error_code(saved, boost::system::system_category())
                                    : error_code(asio::ssl::error::stream_truncated);
            break;
        default: {
            const unsigned long code = ERR_peek_last_error();
            if (ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
                step.error = asio::ssl::error::stream_truncated;
            } else {
                step.error = error_code(static_cast<int>(code), asio::error::get_ssl_category());
            }
            break;
        }
    }
    ERR_clear_error();
    if (step.error && step.error != asio::error::eof)
        failed_ = true;
    return step;
}

TlsStream::Step TlsStream::TryHandshake() {
    for (;;) {
        ERR_clear_error();
        errno = 0;
        const int result = SSL_do_handshake(ssl_.get());
        if (result == 1)
            return Step();
        Step step = Failure(result);
        // The bytes read with the PROXY header are used up: read the socket from now on.
        if (step.want == Want::Read && prefixRead_ &&
            BIO_ctrl_pending(SSL_get_rbio(ssl_.get())) == 0) {
            BIO* socketBio = BIO_new_socket(socket_.native_handle(), BIO_NOCLOSE);
            if (socketBio == nullptr) {
                step.want = Want::Nothing;
                step.error = make_error_code(boost::system::errc::not_enough_memory);
                return step;
            }
            SSL_set0_rbio(ssl_.get(), socketBio);
            prefixRead_ = false;
            continue;
        }
        return step;
    }
}

TlsStream::Step TlsStream::TryRead(void* data, std::size_t size) {
    if (size == 0)
        return Step();
    ERR_clear_error();
    errno = 0;
    std::size_t read = 0;
    if (SSL_read_ex(ssl_.get(), data, size, &read) == 1) {
        Step step;
        step.bytes = read;
        return step;
    }
    return Failure(0);
}

TlsStream::Step TlsStream::TryWrite(const void* data, std::size_t size) {
    if (size == 0)
        return Step();
    ERR_clear_error();
    errno = 0;
    std::size_t written = 0;
    if (SSL_write_ex(ssl_.get(), data, size, &written) == 1) {
        Step step;
        step.bytes = written;
        return step;
    }
    return Failure(0);
}

TlsStream::Step TlsStream::TryShutdown() {
    if (failed_ || SSL_in_init(ssl_.get()))
        return Step();  // nothing to end politely
    ERR_clear_error();
    errno = 0;
    const int result = SSL_shutdown(ssl_.get());
    if (result >= 0)
        return Step();  // ours sent; the peer's is not waited for
    return Failure(result);
}

}  // namespace collector
