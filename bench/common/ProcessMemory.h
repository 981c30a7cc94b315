// Resident-memory figures of this process, for the benchmarks.
#pragma once

namespace pwsupport {

// VmRSS and VmHWM of this process in KiB (-1 if unknown); ResetResidentPeak() restarts
// VmHWM from VmRSS.
long ResidentKiB();
long PeakResidentKiB();
bool ResetResidentPeak();

}  // namespace pwsupport
