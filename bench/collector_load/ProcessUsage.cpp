// /proc/PID/stat gives the CPU time (utime, stime: fields 14 and 15) and the parent
// (field 4); /proc/PID/status gives VmHWM and VmRSS. Fields are counted after the command name's
// closing parenthesis, since the name itself may hold spaces and parentheses.
#include "ProcessUsage.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace collectorload {

namespace {

struct StatLine {
    pid_t parent = 0;
    unsigned long long ticks = 0;  // utime + stime
};

bool ReadStat(pid_t pid, StatLine& stat) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(file, line)) {
        return false;
    }
    const size_t close = line.rfind(')');
    if (close == std::string::npos) {
        return false;
    }
    // After ") ": state (3), ppid (4), ... utime (14), stime (15).
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number == 4) {
            stat.parent = static_cast<pid_t>(std::strtol(field.c_str(), nullptr, 10));
        } else if (number == 14 || number == 15) {
            stat.ticks += std::strtoull(field.c_str(), nullptr, 10);
        }
    }
    return static_cast<bool>(fields);
}

// Adds the process's VmHWM and VmRSS (kB) to the usage.
void AddMemory(pid_t pid, ProcessUsage& usage) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, 6, "VmHWM:") == 0) {
            usage.peakRssKiB += std::strtoull(line.c_str() + 6, nullptr, 10);
        } else if (line.compare(0, 6, "VmRSS:") == 0) {
            usage.rssKiB += std::strtoull(line.c_str() + 6, nullptr, 10);
        }
    }
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

ProcessUsage ReadProcessUsage(const std::vector<pid_t>& pids) {
    ProcessUsage usage;
    std::map<pid_t, StatLine> all;
    std::unique_ptr<DIR, DirCloser> proc(opendir("/proc"));
    if (!proc || pids.empty()) {
        return usage;
    }
    while (dirent* entry = readdir(proc.get())) {
        char* end = nullptr;
        const long number = std::strtol(entry->d_name, &end, 10);
        StatLine stat;
        if (*end == '\0' && number > 0 && ReadStat(static_cast<pid_t>(number), stat)) {
            all[static_cast<pid_t>(number)] = stat;
        }
    }
    // The trees below `pids`, breadth first; a process named twice (or below another one
    // named) counts once.
    std::vector<pid_t> tree;
    std::set<pid_t> seen;
    for (pid_t pid : pids) {
        if (all.count(pid) == 0) {
            return usage;
        }
        if (seen.insert(pid).second) {
            tree.push_back(pid);
        }
    }
    usage.found = true;
    for (size_t i = 0; i < tree.size(); ++i) {
        for (const auto& process : all) {
            if (process.second.parent == tree[i] && seen.insert(process.first).second) {
                tree.push_back(process.first);
            }
        }
    }
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    for (pid_t member : tree) {
        usage.cpuSeconds += static_cast<double>(all[member].ticks) / tick;
        AddMemory(member, usage);
    }
    usage.processes = static_cast<int>(tree.size());
    return usage;
}

}  // namespace collectorload
