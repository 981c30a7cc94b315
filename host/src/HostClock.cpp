// The host clock: real, scaled or manual; one time line for seconds and timer deadlines.
#include "HostClock.h"

#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <mutex>

#include "HostClockInternal.h"
#include "TestControlInternal.h"

namespace {

enum class Mode { Real, Scaled, Manual };

struct ClockState {
    std::mutex mutex;
    Mode mode = Mode::Real;
    double scale = 1.0;
    // Scaled: host time = base + (real - realBase) * scale.
    uint64_t realMonoBaseMs = 0;
    uint64_t hostMonoBaseMs = 0;
    uint64_t realWallBaseMs = 0;
    uint64_t hostWallBaseMs = 0;
    // Manual.
    uint64_t manualMonoMs = 0;
    uint64_t manualWallMs = 0;
    uint64_t generation = 0;
    int changeFd = -1;
};

// Never destroyed: timers and waiters may read the clock while the process exits.
ClockState& State() {
    static ClockState* state = new ClockState;
    return *state;
}

// The change descriptor is closed when the library is unloaded: a process that loads the
// framework only through a plug-in and unloads it again keeps its descriptor count flat.
struct ChangeFdCloser {
    ~ChangeFdCloser() {
        ClockState& s = State();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.changeFd >= 0) {
            close(s.changeFd);
            s.changeFd = -1;
        }
    }
} g_changeFdCloser;

uint64_t ReadClockMs(clockid_t id) {
    struct timespec ts;
    clock_gettime(id, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

uint64_t ScaledFrom(uint64_t hostBase, uint64_t realBase, uint64_t realNow, double scale) {
    uint64_t elapsed = realNow >= realBase ? realNow - realBase : 0;
    return hostBase + static_cast<uint64_t>(std::llround(static_cast<double>(elapsed) * scale));
}

// Host milliseconds of both time lines, computed under the lock.
uint64_t MonoLocked(ClockState& s) {
    switch (s.mode) {
        case Mode::Manual:
            return s.manualMonoMs;
        case Mode::Scaled:
            return ScaledFrom(s.hostMonoBaseMs, s.realMonoBaseMs, ReadClockMs(CLOCK_MONOTONIC),
                              s.scale);
        case Mode::Real:
            break;
    }
    return ReadClockMs(CLOCK_MONOTONIC);
}

uint64_t WallLocked(ClockState& s) {
    switch (s.mode) {
        case Mode::Manual:
            return s.manualWallMs;
        case Mode::Scaled:
            return ScaledFrom(s.hostWallBaseMs, s.realWallBaseMs, ReadClockMs(CLOCK_REALTIME),
                              s.scale);
        case Mode::Real:
            break;
    }
    return ReadClockMs(CLOCK_REALTIME);
}

void NotifyChangeLocked(ClockState& s) {
    ++s.generation;
    if (s.changeFd < 0) {
        s.changeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    if (s.changeFd >= 0) {
        uint64_t one = 1;
        ssize_t ignored = write(s.changeFd, &one, sizeof one);
        (void)ignored;
        // Keep the descriptor readable for every waiter; drain it when it gets large.
        if (s.generation % 1024 == 0) {
            uint64_t drain;
            ssize_t r = read(s.changeFd, &drain, sizeof drain);
            (void)r;
            r = write(s.changeFd, &one, sizeof one);
            (void)r;
        }
    }
}

}  // namespace

unsigned int GetCurrentTimeSeconds() {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return static_cast<unsigned int>(WallLocked(s) / 1000u);
}

namespace pwhost {

uint64_t HostNowMs() {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return MonoLocked(s);
}

void UseScaledClock(double scale, int64_t startSeconds) {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    uint64_t hostMono = MonoLocked(s);
    uint64_t hostWall = WallLocked(s);
    if (!(scale > 0.0)) {
        scale = 1.0;
    }
    if (scale == 1.0 && startSeconds < 0) {
        s.mode = Mode::Real;
        s.scale = 1.0;
    } else {
        s.mode = Mode::Scaled;
        s.scale = scale;
        s.realMonoBaseMs = ReadClockMs(CLOCK_MONOTONIC);
        s.realWallBaseMs = ReadClockMs(CLOCK_REALTIME);
        s.hostMonoBaseMs = hostMono;
        s.hostWallBaseMs =
            startSeconds >= 0 ? static_cast<uint64_t>(startSeconds) * 1000u : hostWall;
    }
    NotifyChangeLocked(s);
}

void UseRealClock() {
    UseScaledClock(1.0);
}

double ClockScale() {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.scale;
}

bool ClockIsManual() {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.mode == Mode::Manual;
}

uint64_t RealMsForHostMs(uint64_t hostMs) {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    switch (s.mode) {
        case Mode::Manual:
            return 0xFFFFFFFFu;
        case Mode::Scaled:
            return static_cast<uint64_t>(std::ceil(static_cast<double>(hostMs) / s.scale));
        case Mode::Real:
            break;
    }
    return hostMs;
}

int ClockChangeFd() {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.changeFd < 0) {
        s.changeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    return s.changeFd;
}

uint64_t ClockGeneration() {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.generation;
}

}  // namespace pwhost

#ifdef PW_TEST_HOOKS
namespace pwtest {

void UseManualClock(uint32_t unixSeconds) {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.mode = Mode::Manual;
    s.scale = 1.0;
    s.manualMonoMs = 1000000;  // an arbitrary origin: only differences matter
    s.manualWallMs = static_cast<uint64_t>(unixSeconds) * 1000u;
    NotifyChangeLocked(s);
}

void AdvanceManualClock(uint64_t milliseconds) {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.manualMonoMs += milliseconds;
    s.manualWallMs += milliseconds;
    NotifyChangeLocked(s);
}

void SetManualUnixSeconds(uint32_t unixSeconds) {
    ClockState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.manualWallMs = static_cast<uint64_t>(unixSeconds) * 1000u;
    NotifyChangeLocked(s);
}

void UseRealClock() {
    pwhost::UseRealClock();
}

}  // namespace pwtest
#endif  // PW_TEST_HOOKS
