#include "server/TlsContext.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace collector {

namespace ssl = boost::asio::ssl;

namespace {

std::string OpenSslError(const char* what, const std::string& file) {
    char text[256] = "";
    unsigned long code = ERR_get_error();
    if (code != 0)
        ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return std::string(what) + " " + file + ": " + text;
}

}  // namespace

bool TlsContext::Reload(std::string& error) {
    auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
    SSL_CTX* native = context->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_options(native, SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION |
                                    SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_num_tickets(native, 0);
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    // TLS 1.2 with forward-secret AEAD suites only (TLS 1.3's are all such). Each
    // connection copies the context's lists of suites, so a short list is also less
    // memory per connection.
    if (SSL_CTX_set_cipher_list(native, "ECDHE+AESGCM:ECDHE+CHACHA20") != 1) {
        error = OpenSslError("cannot set the TLS 1.2 cipher suites for", certFile_);
        return false;
    }
    // Idle connections give their read and write buffers back: thousands of keep-alive
    // clients then cost little memory each.
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    if (SSL_CTX_use_certificate_chain_file(native, certFile_.c_str()) != 1) {
        error = OpenSslError("cannot load the certificate", certFile_);
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(native, keyFile_.c_str(), SSL_FILETYPE_PEM) != 1) {
        error = OpenSslError("cannot load the key", keyFile_);
        return false;
    }
    if (SSL_CTX_check_private_key(native) != 1) {
        error = OpenSslError("the key does not match the certificate", certFile_);
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    current_ = std::move(context);
    return true;
}

std::shared_ptr<ssl::context> TlsContext::Current() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return current_;
}

}  // namespace collector
