#include "server/Listener.h"

#include <boost/asio/post.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/strand.hpp>

#include "server/Limits.h"
#include "server/ServerLog.h"

namespace collector {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {
constexpr const char kLogSource[] = "Listener";
// Accept queue length: a crowd of clients connecting at once waits in the kernel.
constexpr int kBacklog = 4096;
}  // namespace

bool ParseListenAddress(const std::string& text, tcp::endpoint& endpoint) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 >= text.size())
        return false;
    std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long number = std::stoul(port);
    if (number > 65535)
        return false;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        if (host.find(':') == std::string::npos)
            return false;
    } else if (host.find(':') != std::string::npos) {
        return false;  // an IPv6 address needs its brackets
    }
    if (host == "*")
        host = "0.0.0.0";
    boost::system::error_code error;
    const asio::ip::address address = asio::ip::make_address(host, error);
    if (error)
        return false;
    endpoint = tcp::endpoint(address, static_cast<unsigned short>(number));
    return true;
}

std::string ClientAddressText(const asio::ip::address& address) {
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
    }
    return address.to_string();
}

bool Listener::Bind(const tcp::endpoint& endpoint, std::string& error) {
    boost::system::error_code code;
    acceptor_.open(endpoint.protocol(), code);
    if (!code)
        acceptor_.set_option(tcp::acceptor::reuse_address(true), code);
    if (!code && endpoint.address().is_v6())
        acceptor_.set_option(asio::ip::v6_only(true), code);
    if (!code)
        acceptor_.bind(endpoint, code);
    if (!code)
        acceptor_.listen(kBacklog, code);
    if (code) {
        error = "cannot listen on " + endpoint.address().to_string() + " port " +
                std::to_string(endpoint.port()) + ": " + code.message();
        return false;
    }
    return true;
}

void Listener::Start() {
    Accept();
}

void Listener::Close() {
    asio::post(io_, [self = shared_from_this()] {
        boost::system::error_code ignored;
        self->retry_.cancel();
        self->acceptor_.close(ignored);
    });
}

void Listener::Accept() {
    acceptor_.async_accept(
        asio::make_strand(io_),
        [self = shared_from_this()](boost::system::error_code error, tcp::socket socket) {
            if (error == asio::error::operation_aborted || !self->acceptor_.is_open())
                return;
            if (error) {
                // Out of descriptors or memory: let connections close before trying again,
                // rather than spinning on the same failure.
                static LogThrottle throttle(60);
                uint64_t suppressed = 0;
                if (throttle.Allow(MonotonicSeconds(), suppressed)) {
                    COLLECTOR_LOG(CAppLog::Error, "accept failed: %s", error.message().c_str());
                }
                self->retry_.expires_after(std::chrono::milliseconds(100));
                self->retry_.async_wait([self](boost::system::error_code waited) {
                    if (!waited)
                        self->Accept();
                });
                return;
            }
            self->open_(std::move(socket));
            self->AcceptWaiting();
            self->Accept();
        });
}

// Under a crowd of new connections the accept handler waits its turn behind every other
// connection's work: each turn takes all the connections the kernel holds ready (up to a
// bound), so that its queue does not overflow and drop connection attempts, which the
// clients would then retry only seconds later.
void Listener::AcceptWaiting() {
    constexpr int kAcceptsPerTurn = 256;
    boost::system::error_code error;
    acceptor_.non_blocking(true, error);
    for (int i = 0; !error && i < kAcceptsPerTurn; ++i) {
        tcp::socket socket(asio::make_strand(io_));
        acceptor_.accept(socket, error);
        if (!error)
            open_(std::move(socket));
    }
}

}  // namespace collector
