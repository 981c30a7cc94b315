// The figures of server processes taken from /proc: CPU time and peak resident memory of
// each process and every process below it (nginx's workers are children of its master;
// threads are counted in their process), summed over them all.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace collectorload {

struct ProcessUsage {
    bool found = false;       // every process exists
    double cpuSeconds = 0;    // user + system time so far, of the process and its descendants
    uint64_t peakRssKiB = 0;  // sum of each process's peak resident set (VmHWM)
    uint64_t rssKiB = 0;      // sum of each process's resident set now (VmRSS)
    int processes = 0;
};

// Reads the figures of `pids` and their live descendants now, each process counted once.
ProcessUsage ReadProcessUsage(const std::vector<pid_t>& pids);

}  // namespace collectorload
