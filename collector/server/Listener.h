// A listening socket and its accept loop. Each accepted connection gets its own strand and
// is handed to `open`, which makes and starts its session (or closes it at once).
//
// Threads: Start() and Close() from any thread; the accept loop runs on the io_context.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>

namespace collector {

// ADDR:PORT, [IPv6]:PORT or *:PORT (every IPv4 address) into `endpoint`; false when the
// text is not one.
bool ParseListenAddress(const std::string& text, boost::asio::ip::tcp::endpoint& endpoint);
// An address as kept and limited: IPv4-mapped IPv6 addresses in their IPv4 form.
std::string ClientAddressText(const boost::asio::ip::address& address);

class Listener : public std::enable_shared_from_this<Listener> {
public:
    using Open = std::function<void(boost::asio::ip::tcp::socket)>;

    Listener(boost::asio::io_context& io, Open open)
        : io_(io), acceptor_(io), retry_(io), open_(std::move(open)) {}
    // Binds and listens; false with `error` set.
    bool Bind(const boost::asio::ip::tcp::endpoint& endpoint, std::string& error);
    void Start();
    void Close();

private:
    void Accept();
    // Accepts, without waiting, the connections already queued in the kernel.
    void AcceptWaiting();

    boost::asio::io_context& io_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer retry_;  // after a failed accept (out of descriptors)
    Open open_;
};

}  // namespace collector
