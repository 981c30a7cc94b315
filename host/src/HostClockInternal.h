// Framework-internal view of the host clock, for the event list's waits.
#pragma once

#include <cstdint>

namespace pwhost {
// Real milliseconds to wait so that `hostMs` host milliseconds pass; 0xFFFFFFFF when the
// clock is manual (waits then end only through events or ClockChangeFd()).
uint64_t RealMsForHostMs(uint64_t hostMs);
// An eventfd that becomes readable whenever a test moves the manual clock. Never consumed
// by waiters: each waiter compares the clock's generation instead.
int ClockChangeFd();
uint64_t ClockGeneration();
}  // namespace pwhost
