// The figures of a server process taken from /proc: CPU time and peak resident memory of
// the process and every process below it (nginx's workers are children of its master;
// threads are counted in their process).
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace collectorload {

struct ProcessUsage {
    bool found = false;       // the process exists
    double cpuSeconds = 0;    // user + system time so far, of the process and its descendants
    uint64_t peakRssKiB = 0;  // sum of each process's peak resident set (VmHWM)
    uint64_t rssKiB = 0;      // sum of each process's resident set now (VmRSS)
    int processes = 0;
};

// Reads the figures of `pid` and its live descendants now.
ProcessUsage ReadProcessUsage(pid_t pid);

}  // namespace collectorload
