// Heap accounting for the benchmarks: this program's replacement of the global operator
// new and delete counts every allocation of the process (libraries included) by the size
// that malloc really reserved, and keeps the high-water mark since the last reset.
#pragma once

namespace bencodebench {

long long HeapInUse();
long long HeapPeak();
// Starts a new high-water mark at the current use.
void ResetHeapPeak();

}  // namespace bencodebench
