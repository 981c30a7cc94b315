// Runs the dashboard's reads and the daily retention purge on a thread of their own, with
// a store of their own, so that a slow query never holds the network threads or the
// committer. The store is opened at first use and opened again after a failure.
//
// Threads: Run() and Purge() from any thread; `done` runs on the runner's thread and must
// only hand the answer on.
#pragma once

#include <boost/asio/thread_pool.hpp>
#include <functional>
#include <memory>
#include <string>

#include "api/ApiHandler.h"

namespace collector {

class Store;

class ApiRunner {
public:
    explicit ApiRunner(std::string database);
    ~ApiRunner();  // Stop()s
    // Waits for the request (or purge) in progress; nothing runs afterwards.
    void Stop();

    void Run(ApiRequest request, std::function<void(ApiAnswer)> done);
    // Removes reports received more than `days` days before `now` (UNIX seconds; 0 keeps
    // them), after building any read index that a killed bulk load left unbuilt.
    void Purge(unsigned int days, int64_t now);

private:
    Store* OpenStore();

    const std::string database_;
    boost::asio::thread_pool thread_{1};
    std::unique_ptr<Store> store_;  // the runner thread's only
};

}  // namespace collector
