#include "server/Committer.h"

#include <chrono>

#include "server/Metrics.h"
#include "server/ServerLog.h"

namespace collector {

namespace {
constexpr const char kLogSource[] = "Committer";
// One batch at most: enough that a crowd shares a sync, little enough that one batch's
// memory and transaction stay bounded.
constexpr size_t kMaxBatchReports = 1024;
constexpr uint64_t kMaxBatchBytes = 64ull << 20;
// A gathering batch is written as soon as this many posts wait.
constexpr size_t kGatherReports = 64;
// While idle, or while the store is away, it is pinged (or reopened) this often.
constexpr auto kPingInterval = std::chrono::seconds(5);
constexpr auto kRetryInterval = std::chrono::milliseconds(500);
}  // namespace

Committer::Committer(Opener opener, Metrics& metrics, std::chrono::milliseconds gather)
    : opener_(std::move(opener)), metrics_(metrics), gather_(gather) {}

Committer::~Committer() {
    Stop();
}

void Committer::Start() {
    EnsureStore();
    thread_ = std::thread([this] { Run(); });
}

void Committer::Expect() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++expected_;
}

void Committer::Forget() {
    bool last = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (expected_ > 0)
            --expected_;
        last = expected_ == 0 && !queue_.empty();
    }
    // A gathering batch waits for nothing more.
    if (last)
        wake_.notify_one();
}

void Committer::Submit(ValidatedReport report, Done done, bool expected) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (expected && expected_ > 0)
            --expected_;
        queue_.push_back(Pending{std::move(report), std::move(done)});
        wake = queue_.size() == 1 || queue_.size() >= kGatherReports || expected_ == 0;
    }
    // The committer waits for the first post, and a gathering batch for the last announced
    // post or for a batch's worth.
    if (wake)
        wake_.notify_one();
}

void Committer::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable())
        thread_.join();
}

bool Committer::Ready() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return ready_;
}

void Committer::Run() {
    std::vector<Pending> batch;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            const auto wait = store_ ? kPingInterval : kRetryInterval;
            if (!wake_.wait_for(lock, wait, [this] { return stopping_ || !queue_.empty(); })) {
                lock.unlock();
                if (EnsureStore())
                    NoteStorage(store_->Ping(), "Ping");
                continue;
            }
            if (queue_.empty())
                return;  // stopping, and nothing left to write
            if (expected_ > 0 && !stopping_) {
                wake_.wait_for(lock, gather_, [this] {
                    return stopping_ || expected_ == 0 || queue_.size() >= kGatherReports;
                });
            }
            uint64_t bytes = 0;
            while (!queue_.empty() && batch.size() < kMaxBatchReports &&
                   (batch.empty() || bytes + queue_.front().report.body.size() <= kMaxBatchBytes)) {
                bytes += queue_.front().report.body.size();
                batch.push_back(std::move(queue_.front()));
                queue_.pop_front();
            }
        }
        Commit(batch);
        batch.clear();
    }
}

void Committer::Commit(std::vector<Pending>& batch) {
    std::vector<InsertOutcome> outcomes;
    StoreResult result = StoreResult::Unavailable;
    if (EnsureStore()) {
        std::vector<ValidatedReport> reports;
        reports.reserve(batch.size());
        for (Pending& pending : batch)
            reports.push_back(std::move(pending.report));
        const auto started = std::chrono::steady_clock::now();
        result = store_->InsertBatch(reports, outcomes);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        if (result == StoreResult::Ok && outcomes.size() != reports.size()) {
            COLLECTOR_LOG(CAppLog::Error, "the store gave %zu outcomes for %zu reports",
                          outcomes.size(), reports.size());
            result = StoreResult::Error;
        }
        metrics_.CountCommit(seconds, result != StoreResult::Ok);
        if (result == StoreResult::Ok) {
            for (size_t i = 0; i < reports.size(); ++i) {
                metrics_.CountReport(reports[i].kind, outcomes[i].duplicate);
            }
        }
        NoteStorage(result, "InsertBatch");
    } else {
        metrics_.CountCommit(0, true);
    }
    static const InsertOutcome kNone;
    for (size_t i = 0; i < batch.size(); ++i) {
        batch[i].done(result, result == StoreResult::Ok ? outcomes[i] : kNone);
    }
}

bool Committer::EnsureStore() {
    if (store_)
        return true;
    std::string error;
    store_ = opener_(error);
    if (!store_) {
        std::lock_guard<std::mutex> lock(mutex_);
        ready_ = false;
        if (!failing_) {
            failing_ = true;
            COLLECTOR_LOG(CAppLog::Error, "storage unavailable, answering 503 until it is back: %s",
                          error.c_str());
        }
        return false;
    }
    return true;
}

void Committer::NoteStorage(StoreResult result, const char* what) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (result == StoreResult::Ok) {
        ready_ = true;
        if (failing_) {
            failing_ = false;
            COLLECTOR_LOG(CAppLog::Information, "storage is back, ingesting again");
        }
        return;
    }
    ready_ = false;
    if (!failing_) {
        failing_ = true;
        COLLECTOR_LOG(CAppLog::Error,
                      "storage unavailable (%s failed), answering 503 until it is back", what);
    }
    // A connection that failed may never recover by itself: open a fresh one next time.
    store_.reset();
}

}  // namespace collector
