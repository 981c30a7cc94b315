#include "server/Limits.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace collector {

double MonotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// --- ConnectionLimiter -------------------------------------------------------------------

ConnectionLimiter::Slot::Slot(ConnectionLimiter* owner, std::string address)
    : owner_(owner), address_(std::move(address)) {}

ConnectionLimiter::Slot::Slot(Slot&& other) noexcept
    : owner_(other.owner_), address_(std::move(other.address_)) {
    other.owner_ = nullptr;
}

ConnectionLimiter::Slot& ConnectionLimiter::Slot::operator=(Slot&& other) noexcept {
    if (this != &other) {
        Release();
        owner_ = other.owner_;
        address_ = std::move(other.address_);
        other.owner_ = nullptr;
    }
    return *this;
}

ConnectionLimiter::Slot::~Slot() {
    Release();
}

void ConnectionLimiter::Slot::Release() {
    if (owner_ != nullptr)
        owner_->Release(address_);
    owner_ = nullptr;
}

ConnectionLimiter::Slot ConnectionLimiter::TryAcquire(const std::string& address) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (total_ >= maxTotal_)
        return Slot();
    unsigned int& count = perAddress_[address];
    if (count >= maxPerAddress_) {
        if (count == 0)
            perAddress_.erase(address);
        return Slot();
    }
    ++count;
    ++total_;
    return Slot(this, address);
}

unsigned int ConnectionLimiter::Open() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return total_;
}

void ConnectionLimiter::Release(const std::string& address) {
    std::lock_guard<std::mutex> lock(mutex_);
    --total_;
    auto it = perAddress_.find(address);
    if (it != perAddress_.end() && --it->second == 0)
        perAddress_.erase(it);
}

// --- SlowClientGuard ---------------------------------------------------------------------

double SlowClientGuard::NoteOverrun(const std::string& address, double now) {
    if (strikes_ == 0)
        return 0;
    std::lock_guard<std::mutex> lock(mutex_);
    // Forget addresses with nothing in the last window, at most once a window, so that the
    // table holds only the recent offenders.
    if (now - lastPrune_ > kWindowSeconds) {
        lastPrune_ = now;
        for (auto it = byAddress_.begin(); it != byAddress_.end();) {
            const bool stale = now - it->second.windowStart > kWindowSeconds &&
                               now - it->second.refusedUntil > kForgiveSeconds;
            it = stale ? byAddress_.erase(it) : std::next(it);
        }
    }
    Record& record = byAddress_[address];
    if (now - record.windowStart > kWindowSeconds) {
        record.windowStart = now;
        record.overruns = 0;
    }
    if (++record.overruns < strikes_ || now < record.refusedUntil)
        return 0;
    if (record.refusals > 0 && now - record.refusedUntil > kForgiveSeconds)
        record.refusals = 0;
    double length = kWindowSeconds;
    for (unsigned int i = 0; i < record.refusals && length < kLongestRefusalSeconds; ++i)
        length *= 2;
    length = std::min(length, kLongestRefusalSeconds);
    ++record.refusals;
    record.refusedUntil = now + length;
    record.overruns = 0;
    return length;
}

bool SlowClientGuard::Refused(const std::string& address, double now) {
    if (strikes_ == 0)
        return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = byAddress_.find(address);
    return it != byAddress_.end() && now < it->second.refusedUntil;
}

// --- AddressQuotas -----------------------------------------------------------------------

namespace {
constexpr double kHour = 3600;
constexpr double kDay = 86400;
}  // namespace

AddressQuotas::Allowance& AddressQuotas::Find(const std::string& address, double now) {
    // Forget addresses quiet for a day, at most once a minute, so that the table holds only
    // the clients of the last day.
    if (now - lastPrune_ > 60) {
        lastPrune_ = now;
        for (auto it = byAddress_.begin(); it != byAddress_.end();) {
            it = now - it->second.lastSeen > kDay ? byAddress_.erase(it) : std::next(it);
        }
    }
    Allowance& allowance = byAddress_[address];
    if (allowance.tokens < 0) {
        allowance.tokens = limits_.postsPerMinute;
        allowance.tokensAt = allowance.hourStart = allowance.dayStart = now;
    }
    allowance.lastSeen = now;
    return allowance;
}

bool AddressQuotas::AdmitPost(const std::string& address, uint64_t bytes, double now,
                              unsigned int& retryAfter) {
    std::lock_guard<std::mutex> lock(mutex_);
    Allowance& allowance = Find(address, now);
    const double perSecond = limits_.postsPerMinute / 60.0;
    allowance.tokens = std::min<double>(limits_.postsPerMinute,
                                        allowance.tokens + (now - allowance.tokensAt) * perSecond);
    allowance.tokensAt = now;
    if (now - allowance.hourStart >= kHour) {
        allowance.hourStart = now;
        allowance.hourBytes = 0;
    }
    if (allowance.tokens < 1) {
        retryAfter = static_cast<unsigned int>(std::ceil((1 - allowance.tokens) / perSecond));
        return false;
    }
    if (allowance.hourBytes + bytes > limits_.bytesPerHour) {
        retryAfter = static_cast<unsigned int>(std::ceil(allowance.hourStart + kHour - now));
        return false;
    }
    allowance.tokens -= 1;
    allowance.hourBytes += bytes;
    return true;
}

bool AddressQuotas::AdmitDamaged(const std::string& address, uint64_t bytes, double now) {
    std::lock_guard<std::mutex> lock(mutex_);
    Allowance& allowance = Find(address, now);
    if (now - allowance.dayStart >= kDay) {
        allowance.dayStart = now;
        allowance.dayDamaged = 0;
    }
    if (allowance.dayDamaged + bytes > limits_.damagedBytesPerDay)
        return false;
    allowance.dayDamaged += bytes;
    return true;
}

// --- BodyBudget, FreeSpaceWatch, LogThrottle --------------------------------------------

BodyBudget::BodyBudget(uint64_t capacity)
    : smallCapacity_(capacity / 8),
      largeCapacity_(capacity - capacity / 8),
      perAddress_(largeCapacity_ / 4) {}

bool BodyBudget::Take(uint64_t& used, uint64_t capacity, uint64_t bytes) {
    if (bytes > capacity || used > capacity - bytes)
        return false;
    used += bytes;
    return true;
}

BodyBudget::Pool BodyBudget::TryReserve(const std::string& address, uint64_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (bytes <= kSmallBody && Take(smallUsed_, smallCapacity_, bytes))
        return Pool::Small;
    uint64_t& held = largeByAddress_[address];
    // A small body past its own share is not held to the address's share of the rest.
    const uint64_t share = bytes <= kSmallBody ? largeCapacity_ : perAddress_;
    if (held + bytes > share || !Take(largeUsed_, largeCapacity_, bytes)) {
        if (held == 0)
            largeByAddress_.erase(address);
        return Pool::None;
    }
    held += bytes;
    return Pool::Large;
}

void BodyBudget::Release(const std::string& address, uint64_t bytes, Pool pool) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (pool == Pool::Small) {
        smallUsed_ -= bytes;
    } else if (pool == Pool::Large) {
        largeUsed_ -= bytes;
        auto it = largeByAddress_.find(address);
        if (it != largeByAddress_.end() && (it->second -= bytes) == 0)
            largeByAddress_.erase(it);
    }
}

bool FreeSpaceWatch::Enough(double now) {
    if (directory_.empty())
        return true;
    std::lock_guard<std::mutex> lock(mutex_);
    if (checkedAt_ < 0 || now - checkedAt_ >= 1) {
        checkedAt_ = now;
        struct statvfs fs {};
        // A file system that cannot be asked is not taken for a full one: the store's own
        // failure answers 503 if it really is.
        enough_ = statvfs(directory_.c_str(), &fs) != 0 ||
                  static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize >= minFree_;
    }
    return enough_;
}

bool LogThrottle::Allow(double now, uint64_t& suppressed) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (now - lastAt_ < interval_) {
        ++held_;
        return false;
    }
    lastAt_ = now;
    suppressed = held_;
    held_ = 0;
    return true;
}

}  // namespace collector
