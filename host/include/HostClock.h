// The host clock.
//
// One clock serves GetCurrentTimeSeconds() and every timer deadline. It is real by default;
// a host may scale it (the wall-clock seconds and every timer run `scale` times faster, so
// a 600 s timer fires after 0.6 s at scale 1000); unit tests make it manual and advance it
// explicitly (HostTestControl.h). Safe from any thread.
#pragma once

#include <cstdint>

// Current UNIX time in seconds, as the host clock sees it.
unsigned int GetCurrentTimeSeconds();

namespace pwhost {
// Milliseconds on the host's monotonic time line (scaled or manual as configured).
uint64_t HostNowMs();
// Switches to a scaled clock: the host time runs `scale` times faster than real time,
// starting from the current real time, or from `startSeconds` (UNIX time) when that is not
// negative, so that a simulated schedule can go on across restarts. A scale of 1 without a
// start is the real clock.
void UseScaledClock(double scale, int64_t startSeconds = -1);
void UseRealClock();
double ClockScale();
bool ClockIsManual();
}  // namespace pwhost
