// What keeps one client, or all of them together, from holding the receiving listener or
// filling its disk: connection caps (in all and per address), per-address rates and byte
// quotas, the budget of body bytes in memory at once, and the free-space watermark.
//
// Every class here is safe from any thread. Times are passed in (seconds on a monotonic
// line) so that the accounting does not depend on the wall clock.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

namespace collector {

// Connections open, in all and per client address. A slot is held by its connection for
// its lifetime; past either cap the connection is refused.
class ConnectionLimiter {
public:
    class Slot {
    public:
        Slot() = default;
        Slot(ConnectionLimiter* owner, std::string address);
        Slot(Slot&& other) noexcept;
        Slot& operator=(Slot&& other) noexcept;
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;
        ~Slot();
        explicit operator bool() const { return owner_ != nullptr; }

    private:
        void Release();
        ConnectionLimiter* owner_ = nullptr;
        std::string address_;
    };

    ConnectionLimiter(unsigned int maxTotal, unsigned int maxPerAddress)
        : maxTotal_(maxTotal), maxPerAddress_(maxPerAddress) {}

    // An empty slot when `address` or the listener as a whole is at its cap.
    Slot TryAcquire(const std::string& address);
    unsigned int Open() const;

private:
    void Release(const std::string& address);

    const unsigned int maxTotal_;
    const unsigned int maxPerAddress_;
    mutable std::mutex mutex_;
    unsigned int total_ = 0;
    std::unordered_map<std::string, unsigned int> perAddress_;
};

// Per-address allowances: posts per minute (a token bucket, so that a burst of a minute's
// posts is allowed), body bytes per hour, and damaged body bytes per day kept in full.
class AddressQuotas {
public:
    struct Limits {
        unsigned int postsPerMinute;
        uint64_t bytesPerHour;
        uint64_t damagedBytesPerDay;
    };
    explicit AddressQuotas(Limits limits) : limits_(limits) {}

    // Takes one post of `bytes` from `address`'s allowance at time `now`. False, with the
    // seconds after which it would be allowed in `retryAfter`, when it is over either.
    bool AdmitPost(const std::string& address, uint64_t bytes, double now,
                   unsigned int& retryAfter);
    // True when `bytes` more damaged bytes from `address` fit in its day's allowance (and
    // takes them); false when the body should be kept only in part.
    bool AdmitDamaged(const std::string& address, uint64_t bytes, double now);

private:
    struct Allowance {
        double tokens = -1;  // post tokens; negative until first use
        double tokensAt = 0;
        double hourStart = 0;
        uint64_t hourBytes = 0;
        double dayStart = 0;
        uint64_t dayDamaged = 0;
        double lastSeen = 0;
    };
    Allowance& Find(const std::string& address, double now);

    const Limits limits_;
    std::mutex mutex_;
    std::unordered_map<std::string, Allowance> byAddress_;
    double lastPrune_ = 0;
};

// Addresses whose connections keep running past their deadlines (a TLS handshake, a
// request's header or its body too slow): after `strikes` of them within a minute, further
// connections from the address are closed as they arrive, before any TLS work, for a
// minute at first. A slowloris crowd closed at its deadlines that connects again at once would
// otherwise cost a TLS handshake per reconnection; refusing it costs an accept. Zero
// strikes turns the guard off.
class SlowClientGuard {
public:
    static constexpr double kWindowSeconds = 60;
    // A refusal lasts a window; each further one of the same address twice as long as the
    // one before, up to kLongestRefusalSeconds, until the address has behaved for
    // kForgiveSeconds after its last refusal: a crowd that comes back when its minute is
    // over would otherwise cost its handshakes again every minute.
    static constexpr double kLongestRefusalSeconds = 3600;
    static constexpr double kForgiveSeconds = 3600;
    explicit SlowClientGuard(unsigned int strikes) : strikes_(strikes) {}

    // One of `address`'s connections ran past a deadline at `now`. The length in seconds of
    // the refusal this begins (for the caller to log), 0 when it begins none.
    double NoteOverrun(const std::string& address, double now);
    // Connections from `address` are refused at `now`.
    bool Refused(const std::string& address, double now);

private:
    struct Record {
        double windowStart = 0;
        unsigned int overruns = 0;
        double refusedUntil = 0;
        unsigned int refusals = 0;  // begun since the address was last forgiven
    };

    const unsigned int strikes_;
    std::mutex mutex_;
    std::unordered_map<std::string, Record> byAddress_;
    double lastPrune_ = 0;
};

// Body bytes held in memory by requests in progress, in all: a request reserves its
// Content-Length before its body is read, and gives it back when it is answered.
//
// A reservation is held from the header to the answer, so a client that declares a large
// body and sends it at the minimum rate holds its bytes for a long time. Two rules keep such
// clients from starving the others: an eighth of the budget is kept for small bodies
// (feedback reports), which draw on it first and on the rest after; and one address may
// hold at most a quarter of the rest with large bodies.
class BodyBudget {
public:
    static constexpr uint64_t kSmallBody = 64 * 1024;
    enum class Pool { None, Small, Large };

    explicit BodyBudget(uint64_t capacity);
    // Reserves `bytes` for a body from `address`; the pool it came from, or None when it
    // does not fit.
    Pool TryReserve(const std::string& address, uint64_t bytes);
    void Release(const std::string& address, uint64_t bytes, Pool pool);

private:
    bool Take(uint64_t& used, uint64_t capacity, uint64_t bytes);

    const uint64_t smallCapacity_;
    const uint64_t largeCapacity_;
    const uint64_t perAddress_;  // of the large pool
    std::mutex mutex_;
    uint64_t smallUsed_ = 0;
    uint64_t largeUsed_ = 0;
    std::unordered_map<std::string, uint64_t> largeByAddress_;
};

// Free space on the file system of the database, looked at no more than once a second.
class FreeSpaceWatch {
public:
    // `directory` empty: nothing to watch (a remote database), always enough.
    FreeSpaceWatch(std::string directory, uint64_t minFreeBytes)
        : directory_(std::move(directory)), minFree_(minFreeBytes) {}
    bool Enough(double now);

private:
    const std::string directory_;
    const uint64_t minFree_;
    std::mutex mutex_;
    double checkedAt_ = -1;
    bool enough_ = true;
};

// Lets one log line through per interval and counts the ones it held back, so that a flood
// of bad input cannot flood the log.
class LogThrottle {
public:
    explicit LogThrottle(double intervalSeconds) : interval_(intervalSeconds) {}
    // True when a line may be written now; `suppressed` gets the number held back since
    // the last line that was let through.
    bool Allow(double now, uint64_t& suppressed);

private:
    const double interval_;
    std::mutex mutex_;
    double lastAt_ = -1e18;
    uint64_t held_ = 0;
};

// Seconds on the monotonic line the classes above use.
double MonotonicSeconds();

}  // namespace collector
