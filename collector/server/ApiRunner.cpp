#include "server/ApiRunner.h"

#include <boost/asio/post.hpp>

#include "server/ServerLog.h"
#include "store/Store.h"

namespace collector {

namespace {
constexpr const char kLogSource[] = "ApiRunner";
}

ApiRunner::ApiRunner(std::string database) : database_(std::move(database)) {}

ApiRunner::~ApiRunner() {
    Stop();
}

void ApiRunner::Stop() {
    thread_.stop();
    thread_.join();
}

Store* ApiRunner::OpenStore() {
    if (!store_) {
        std::string error;
        store_ = Store::Open(database_, error);
        if (!store_)
            COLLECTOR_LOG(CAppLog::Error, "cannot open the store for reading: %s", error.c_str());
    }
    return store_.get();
}

void ApiRunner::Run(ApiRequest request, std::function<void(ApiAnswer)> done) {
    boost::asio::post(thread_, [this, request = std::move(request), done = std::move(done)] {
        ApiAnswer answer;
        if (Store* store = OpenStore()) {
            answer = HandleApiRequest(*store, request);
            // A failing connection is opened afresh for the next request.
            if (answer.status >= 500)
                store_.reset();
        } else {
            answer.status = 503;
            answer.body = "{\"error\": \"storage unavailable\"}";
        }
        done(std::move(answer));
    });
}

void ApiRunner::Purge(unsigned int days, int64_t now) {
    boost::asio::post(thread_, [this, days, now] {
        Store* store = OpenStore();
        if (store == nullptr)
            return;
        // With reports kept for ever there is nothing to purge, but the read indexes that a
        // killed bulk load left unbuilt are built all the same (a purge builds them first).
        if (days == 0) {
            if (store->BuildReadIndexes() != StoreResult::Ok)
                store_.reset();
            return;
        }
        int64_t removed = 0;
        const StoreResult result =
            store->PurgeOlderThan(now - static_cast<int64_t>(days) * 86400, removed);
        if (result != StoreResult::Ok) {
            store_.reset();  // logged by the store; tried again the next day
        } else if (removed > 0) {
            COLLECTOR_LOG(CAppLog::Information,
                          "retention: %lld reports received more than %u days ago purged",
                          static_cast<long long>(removed), days);
        }
    });
}

}  // namespace collector
