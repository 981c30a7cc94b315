// The receiving listener's TLS settings: TLS 1.2 and later, the certificate chain and key
// from files, no session tickets (each connection stands alone, as each client post
// does). Reload() builds a new context from the files again (SIGHUP); connections already
// open keep the context they started with.
//
// Threads: Current() and Reload() from any thread.
#pragma once

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <mutex>
#include <string>

namespace collector {

class TlsContext {
public:
    TlsContext(std::string certFile, std::string keyFile)
        : certFile_(std::move(certFile)), keyFile_(std::move(keyFile)) {}

    // Loads the files; false with `error` set (the previous context stays in use).
    bool Reload(std::string& error);
    std::shared_ptr<boost::asio::ssl::context> Current() const;

private:
    const std::string certFile_;
    const std::string keyFile_;
    mutable std::mutex mutex_;
    std::shared_ptr<boost::asio::ssl::context> current_;
};

}  // namespace collector
