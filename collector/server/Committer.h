// The committer: group commit of posted reports.
//
// Listeners hand each validated report to Submit() with a function to call when its fate
// is known. One thread takes everything waiting (up to a batch's limits), writes it with
// one Store::InsertBatch (one transaction, one sync), and then calls every post's function:
// a post is answered only after its batch is durable. While a batch is being written the
// next one gathers, so the more clients post at once, the fewer syncs per report. A
// connection announces a post once its body has arrived (Expect), before it is
// validated; while announced posts are on their way, the committer waits for them up to
// the gather window before it writes: posts arriving a few milliseconds apart would
// otherwise each pay for their own sync. With none announced it writes at once, so a lone
// post, or a crowd whose other members are still in their handshakes or sending their
// bodies, never waits for a window.
//
// When the store fails (database gone, disk full) the batch's posts get Unavailable, the
// failure is logged once per episode, and the committer reopens the store before the next
// batch until it works again. While idle it pings the store every few seconds, which is
// what Ready() reports.
//
// Threads: Submit(), Ready() and Stop() from any thread; the completion functions run on
// the committer's thread and must only hand the result on (post it to their connection).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "report/Report.h"
#include "store/Store.h"

namespace collector {

class Metrics;

class Committer {
public:
    using Done = std::function<void(StoreResult, const InsertOutcome&)>;
    // Opens a store; null with `error` set when it cannot (Store::Open, or a test's own).
    using Opener = std::function<std::unique_ptr<Store>(std::string& error)>;

    // `gather`: how long a batch may wait for announced posts. Every answer in the batch
    // may wait that long too: a few milliseconds gather a crowd, where 20 ms halved the
    // rate of 16 clients posting one after another.
    Committer(Opener opener, Metrics& metrics,
              std::chrono::milliseconds gather = std::chrono::milliseconds(4));
    ~Committer();  // Stop()s
    Committer(const Committer&) = delete;
    Committer& operator=(const Committer&) = delete;

    // Opens the store (logging a failure; the committer then keeps trying) and starts the
    // thread.
    void Start();
    // A post is on its way: its body is being validated. Each Expect() is matched by one
    // Submit(..., true) or one Forget().
    void Expect();
    void Forget();
    // `expected`: the post was announced with Expect().
    void Submit(ValidatedReport report, Done done, bool expected = false);
    // Writes everything submitted so far, answers it, and ends the thread.
    void Stop();
    // The store answered the last ping or commit.
    bool Ready() const;

private:
    struct Pending {
        ValidatedReport report;
        Done done;
    };

    void Run();
    void Commit(std::vector<Pending>& batch);
    bool EnsureStore();
    void NoteStorage(StoreResult result, const char* what);

    Opener opener_;
    Metrics& metrics_;
    const std::chrono::milliseconds gather_;
    std::unique_ptr<Store> store_;  // the committer thread's only

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Pending> queue_;
    size_t expected_ = 0;  // posts announced and not yet submitted (or forgotten)
    bool stopping_ = false;
    bool ready_ = false;
    bool failing_ = false;  // in a storage failure episode (logged once)
    std::thread thread_;
};

}  // namespace collector
