#include "server/Serve.h"

#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <thread>
#include <vector>

#include "HostClock.h"
#include "server/ApiRunner.h"
#include "server/DashboardSession.h"
#include "server/Listener.h"
#include "server/ReceiveSession.h"
#include "server/ServerLog.h"
#include "store/Store.h"

namespace collector {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

constexpr const char kLogSource[] = "Serve";
constexpr double kDaySeconds = 86400;

// The directory of a SQLite database, whose free space is watched; empty for PostgreSQL.
std::string DatabaseDirectory(const std::string& database) {
    if (database.rfind("postgresql://", 0) == 0 || database.rfind("postgres://", 0) == 0)
        return "";
    const size_t slash = database.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : database.substr(0, slash);
}

// Everything `serve` runs, wired together; lives on RunServe's stack.
class Service {
public:
    explicit Service(const CollectorSettings& settings)
        : settings_(settings),
          tls_(settings.certFile, settings.keyFile),
          committer_(
              [&settings](std::string& error) { return Store::Open(settings.database, error); },
              metrics_),
          connections_(settings.maxConnections, settings.maxConnectionsPerAddress),
          quotas_({settings.postsPerMinutePerAddress, settings.bytesPerHourPerAddress,
                   settings.damagedBytesPerDayPerAddress}),
          budget_(settings.bodyBudgetBytes),
          freeSpace_(DatabaseDirectory(settings.database), settings.minFreeBytes),
          slowClients_(settings.slowClientStrikes),
          api_(settings.database),
          receive_{settings,   metrics_,    committer_,   tls_,     connections_, quotas_,  budget_,
                   freeSpace_, damagedLog_, slowClients_, slowLog_, validators_,  sessions_},
          dashboard_{settings, metrics_, access_, api_, sessions_, receive_.draining, nullptr},
          signals_(io_, SIGTERM, SIGINT, SIGHUP),
          purgeTimer_(io_),
          trimTimer_(io_),
          drainTimer_(io_) {}

    int Run();

private:
    bool Prepare();
    void OnSignal(int signal);
    void BeginDrain();
    void WatchDrain(std::chrono::steady_clock::time_point deadline);
    void SchedulePurge(std::chrono::milliseconds after);
    void ScheduleTrim();
    void OpenReceiving(tcp::socket socket);

    const CollectorSettings& settings_;
    Metrics metrics_;
    TlsContext tls_;
    Committer committer_;
    ConnectionLimiter connections_;
    AddressQuotas quotas_;
    BodyBudget budget_;
    FreeSpaceWatch freeSpace_;
    LogThrottle damagedLog_{10};
    SlowClientGuard slowClients_;
    LogThrottle slowLog_{10};
    asio::thread_pool validators_{std::max(2u, std::thread::hardware_concurrency())};
    SessionRegistry sessions_;
    DashboardAccess access_;
    ApiRunner api_;
    ReceiveContext receive_;
    DashboardContext dashboard_;

    asio::io_context io_;
    asio::signal_set signals_;
    asio::steady_timer purgeTimer_;
    asio::steady_timer trimTimer_;
    asio::steady_timer drainTimer_;
    std::vector<std::shared_ptr<Listener>> listeners_;
};

bool Service::Prepare() {
    std::string error;
    if (settings_.listen.empty()) {
        COLLECTOR_LOG(CAppLog::Error, "no listen address in the settings");
        return false;
    }
    if (settings_.certFile.empty() || settings_.keyFile.empty() || !tls_.Reload(error)) {
        COLLECTOR_LOG(CAppLog::Error, "cannot serve HTTPS: %s",
                      error.empty() ? "cert_file and key_file must be set" : error.c_str());
        return false;
    }
    const bool loopback = IsLoopbackListen(settings_.dashboardListen);
    if (!access_.Load(settings_, loopback, error)) {
        COLLECTOR_LOG(CAppLog::Error, "%s", error.c_str());
        return false;
    }
    if (!loopback)
        dashboard_.tls = &tls_;

    for (const std::string& text : settings_.listen) {
        tcp::endpoint endpoint;
        auto listener =
            std::make_shared<Listener>(io_, [this](tcp::socket s) { OpenReceiving(std::move(s)); });
        if (!ParseListenAddress(text, endpoint) || !listener->Bind(endpoint, error)) {
            COLLECTOR_LOG(CAppLog::Error, "listen %s: %s", text.c_str(),
                          error.empty() ? "not ADDR:PORT or [IPv6]:PORT" : error.c_str());
            return false;
        }
        listeners_.push_back(listener);
    }
    if (!settings_.dashboardListen.empty()) {
        tcp::endpoint endpoint;
        auto listener = std::make_shared<Listener>(
            io_, [this](tcp::socket s) { StartDashboardSession(std::move(s), dashboard_); });
        if (!ParseListenAddress(settings_.dashboardListen, endpoint) ||
            !listener->Bind(endpoint, error)) {
            COLLECTOR_LOG(CAppLog::Error, "dashboard_listen %s: %s",
                          settings_.dashboardListen.c_str(),
                          error.empty() ? "not ADDR:PORT or [IPv6]:PORT" : error.c_str());
            return false;
        }
        listeners_.push_back(listener);
    }
    return true;
}

void Service::OpenReceiving(tcp::socket socket) {
    boost::system::error_code error;
    const tcp::endpoint peer = socket.remote_endpoint(error);
    if (error || receive_.draining)
        return;  // the socket closes as it goes out of scope
    socket.set_option(tcp::no_delay(true), error);
    const std::string address = ClientAddressText(peer.address());
    ConnectionLimiter::Slot slot;
    if (!settings_.proxyProtocol) {
        // The guard and the cap are checked at once: the connection is closed before any
        // TLS work.
        if (slowClients_.Refused(address, MonotonicSeconds())) {
            metrics_.CountRefusedConnection();
            return;
        }
        slot = connections_.TryAcquire(address);
        if (!slot) {
            metrics_.CountRefusedConnection();
            return;
        }
    }
    std::make_shared<ReceiveSession>(std::move(socket), receive_, address, std::move(slot))
        ->Start();
}

void Service::OnSignal(int signal) {
    if (signal == SIGHUP) {
        CAppLog::ReopenLogFile();
        std::string error;
        if (tls_.Reload(error)) {
            COLLECTOR_LOG(CAppLog::Information, "log reopened and certificate reloaded");
        } else {
            COLLECTOR_LOG(CAppLog::Error, "certificate not reloaded, the previous one stays: %s",
                          error.c_str());
        }
        signals_.async_wait([this](boost::system::error_code e, int s) {
            if (!e)
                OnSignal(s);
        });
        return;
    }
    COLLECTOR_LOG(CAppLog::Information,
                  "signal %d: draining (no new connections; requests in "
                  "progress finish)",
                  signal);
    BeginDrain();
}

void Service::BeginDrain() {
    receive_.draining = true;
    boost::system::error_code ignored;
    signals_.cancel(ignored);
    purgeTimer_.cancel();
    trimTimer_.cancel();
    for (auto& listener : listeners_)
        listener->Close();
    sessions_.DrainAll();
    WatchDrain(std::chrono::steady_clock::now() +
               std::chrono::seconds(settings_.drainTimeoutSeconds));
}

void Service::WatchDrain(std::chrono::steady_clock::time_point deadline) {
    // Connections leave the registry when their last handler is done, which for a post is
    // after its batch was committed and its answer written.
    if (sessions_.Size() == 0)
        return io_.stop();
    if (std::chrono::steady_clock::now() >= deadline) {
        COLLECTOR_LOG(CAppLog::Warning,
                      "%zu connections still busy after the drain timeout, "
                      "closing them",
                      sessions_.Size());
        return io_.stop();
    }
    drainTimer_.expires_after(std::chrono::milliseconds(50));
    drainTimer_.async_wait([this, deadline](boost::system::error_code error) {
        if (!error)
            WatchDrain(deadline);
    });
}

// After a burst (large posts, a crowd of connections) the freed memory lies between blocks
// still in use, where the allocator keeps it: every few seconds its free pages are given
// back, so that the resident size follows what is in use.
void Service::ScheduleTrim() {
    trimTimer_.expires_after(std::chrono::seconds(10));
    trimTimer_.async_wait([this](boost::system::error_code error) {
        if (error)
            return;
        malloc_trim(0);
        ScheduleTrim();
    });
}

void Service::SchedulePurge(std::chrono::milliseconds after) {
    purgeTimer_.expires_after(after);
    purgeTimer_.async_wait([this](boost::system::error_code error) {
        if (error)
            return;
        api_.Purge(settings_.retentionDays, static_cast<int64_t>(GetCurrentTimeSeconds()));
        // Once a day on the collector's clock (which a demonstration may run faster).
        const double scale = pwhost::ClockScale() > 0 ? pwhost::ClockScale() : 1;
        SchedulePurge(std::chrono::milliseconds(static_cast<int64_t>(kDaySeconds * 1000 / scale)));
    });
}

int Service::Run() {
    // OpenSSL writes the receiving sockets itself: a client gone mid-answer must give
    // EPIPE there, not end the process.
    ::signal(SIGPIPE, SIG_IGN);
    // A descriptor per connection: max_connections may need more than the usual soft limit.
    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    // Bodies of up to 16 MiB are mapped and unmapped on their own rather than carved from
    // the heap: after a burst of large posts the memory goes back to the system at once.
    // (Left to itself the allocator raises this threshold to the largest block freed.)
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    if (!Prepare())
        return 1;
    committer_.Start();
    for (auto& listener : listeners_)
        listener->Start();
    signals_.async_wait([this](boost::system::error_code e, int s) {
        if (!e)
            OnSignal(s);
    });
    SchedulePurge(std::chrono::seconds(60));
    ScheduleTrim();
    COLLECTOR_LOG(CAppLog::Information, "serving: %zu receiving listener(s), dashboard on %s",
                  settings_.listen.size(), settings_.dashboardListen.c_str());

    std::vector<std::thread> threads;
    const unsigned int count = std::max(2u, std::thread::hardware_concurrency());
    for (unsigned int i = 1; i < count; ++i)
        threads.emplace_back([this] { io_.run(); });
    io_.run();
    for (auto& thread : threads)
        thread.join();
    // Nothing may hand a result to the network threads' handlers after this point but
    // into the stopped io_context, which drops them with their connections.
    api_.Stop();
    validators_.join();
    committer_.Stop();
    COLLECTOR_LOG(CAppLog::Information, "stopped");
    return 0;
}

}  // namespace

int RunServe(const CollectorSettings& settings) {
    Service service(settings);
    return service.Run();
}

}  // namespace collector
