// collector_load: posts reports from a simulated fleet to a feedback server as the
// clients do, and prints one line of figures: reports per second, latency p50/p99, and,
// given the server's pids, its CPU time per report and its peak resident memory (and, with
// idle connections held open, its resident memory once they are open).
//
// Exit status: 0 every post was delivered, 1 some were not (or the run could not start),
// 2 a usage error.
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "LoadRun.h"
#include "ProcessUsage.h"
#include "ReportFleet.h"

using namespace collectorload;

namespace {

const char kUsage[] =
    "usage: collector_load --target HOST:PORT [options]\n"
    "  --target HOST:PORT    the feedback server (an IPv6 address in brackets); given more\n"
    "                        than once, the connections go to each in turn (several nodes)\n"
    "  --server-name NAME    TLS server name and Host header (feedback.pathweave.example)\n"
    "  --ca-file FILE        trust anchors for the server's certificate (default: the system's)\n"
    "  --no-verify           do not check the server's certificate\n"
    "  --concurrency N       posts in flight (16)\n"
    "  --duration SECONDS    how long to post (10)\n"
    "  --count N             how many posts (instead of a duration)\n"
    "  --mix feedback|fleet|largest\n"
    "                        feedback reports only, the fleet's mix, or only crash reports\n"
    "                        of 16 MiB (fleet)\n"
    "  --machines N          simulated machines (10000)\n"
    "  --seed N              seed of the fleet (1)\n"
    "  --cpu N               the core the generator is pinned to (0); -1 leaves it unpinned\n"
    "  --server-pid PID      the server: its CPU time per report and peak memory; given\n"
    "                        more than once, summed over the processes (several nodes)\n"
    "  --label TEXT          names the run in the figures line\n"
    "  --timeout SECONDS     limit for each step of a post (30)\n"
    "  --idle N              first open N connections that post once and stay open, idle,\n"
    "                        through the run\n"
    "  --slow N              first open N slowloris clients (a header byte every interval,\n"
    "                        never ending the header; opened again when closed), held\n"
    "                        through the run\n"
    "  --slow-interval SECS  the slow clients' pause between two bytes (2)\n"
    "  --source-addresses N  connect from N loopback addresses (127.0.0.1 and up), as from\n"
    "                        N clients, and the slow clients from N others (127.2.0.1 and\n"
    "                        up) (default: the system's choice)\n";

struct Options {
    LoadTarget target;
    LoadLimits limits;
    ReportMix mix = ReportMix::kFleet;
    unsigned long machines = 10000;
    unsigned long long seed = 1;
    long cpu = 0;
    std::vector<pid_t> serverPids;
    std::string label = "run";
};

int Usage(const std::string& problem) {
    fprintf(stderr, "collector_load: %s\n%s", problem.c_str(), kUsage);
    return 2;
}

bool ParseNumber(const char* text, double low, double& out) {
    char* end = nullptr;
    errno = 0;
    out = strtod(text, &end);
    return errno == 0 && end != text && *end == '\0' && std::isfinite(out) && out >= low;
}

// HOST:PORT, or [IPv6]:PORT.
bool SplitTarget(const std::string& text, LoadAddress& address) {
    size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        return false;
    }
    std::string host = text.substr(0, colon);
    if (host.front() == '[') {
        if (host.back() != ']' || host.size() < 3) {
            return false;
        }
        host = host.substr(1, host.size() - 2);
    }
    address.host = host;
    address.port = text.substr(colon + 1);
    return true;
}

// 0 parsed, otherwise the process's exit status.
int ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--no-verify") {
            options.target.verify = false;
            continue;
        }
        if (name == "--help") {
            fputs(kUsage, stdout);
            return -1;
        }
        if (i + 1 >= argc) {
            return Usage(name.compare(0, 2, "--") == 0 ? name + " needs a value"
                                                       : "unknown argument " + name);
        }
        const char* value = argv[++i];
        double number = 0;
        if (name == "--target") {
            LoadAddress address;
            if (!SplitTarget(value, address)) {
                return Usage("--target wants HOST:PORT, not " + std::string(value));
            }
            options.target.addresses.push_back(address);
        } else if (name == "--server-name") {
            options.target.serverName = value;
        } else if (name == "--ca-file") {
            options.target.caFile = value;
        } else if (name == "--label") {
            options.label = value;
        } else if (name == "--mix") {
            if (strcmp(value, "feedback") == 0) {
                options.mix = ReportMix::kFeedbackOnly;
            } else if (strcmp(value, "fleet") == 0) {
                options.mix = ReportMix::kFleet;
            } else if (strcmp(value, "largest") == 0) {
                options.mix = ReportMix::kLargest;
            } else {
                return Usage("--mix is feedback, fleet or largest");
            }
        } else if (!ParseNumber(value, name == "--cpu" ? -1 : 0, number)) {
            return Usage(name + " wants a number, not " + value);
        } else if (name == "--concurrency" && number >= 1) {
            options.limits.concurrency = static_cast<unsigned int>(number);
        } else if (name == "--duration" && number > 0) {
            options.limits.durationSeconds = number;
        } else if (name == "--count" && number >= 1) {
            options.limits.count = static_cast<uint64_t>(number);
        } else if (name == "--timeout" && number > 0) {
            options.limits.timeoutSeconds = number;
        } else if (name == "--machines" && number >= 1) {
            options.machines = static_cast<unsigned long>(number);
        } else if (name == "--seed") {
            options.seed = static_cast<unsigned long long>(number);
        } else if (name == "--cpu") {
            options.cpu = static_cast<long>(number);
        } else if (name == "--idle") {
            options.limits.idleConnections = static_cast<unsigned int>(number);
        } else if (name == "--slow") {
            options.limits.slowConnections = static_cast<unsigned int>(number);
        } else if (name == "--slow-interval" && number > 0) {
            options.limits.slowIntervalSeconds = number;
        } else if (name == "--source-addresses" && number <= 65536) {
            options.limits.sourceAddresses = static_cast<unsigned int>(number);
        } else if (name == "--server-pid" && number >= 1) {
            options.serverPids.push_back(static_cast<pid_t>(number));
        } else {
            return Usage("unknown option or value out of range: " + name + " " + value);
        }
    }
    if (options.target.addresses.empty()) {
        return Usage("--target is required");
    }
    if (options.target.serverName.empty()) {
        options.target.serverName = "feedback.pathweave.example";
    }
    return 0;
}

bool PinTo(long cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<int>(cpu), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        fprintf(stderr, "collector_load: cannot pin to core %ld: %s\n", cpu, strerror(errno));
        return false;
    }
    return true;
}

// Every connection is a descriptor: 10,000 idle ones need more than the usual soft limit.
void RaiseDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

const char* MixName(ReportMix mix) {
    switch (mix) {
        case ReportMix::kFleet:
            return "fleet";
        case ReportMix::kLargest:
            return "largest";
        case ReportMix::kFeedbackOnly:
            break;
    }
    return "feedback";
}

double CpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// The nearest-rank percentile `p` (0..1) of `values`, which it reorders.
double Percentile(std::vector<float>& values, double p) {
    if (values.empty()) {
        return 0;
    }
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(values.size())));
    rank = std::min(std::max<size_t>(rank, 1), values.size()) - 1;
    std::nth_element(values.begin(), values.begin() + static_cast<long>(rank), values.end());
    return values[rank];
}

void PrintFigures(const Options& options, LoadResult& result, double generatorCpu,
                  const ProcessUsage& before, const ProcessUsage& idle, const ProcessUsage& after) {
    const double seconds = std::max(result.seconds, 1e-9);
    std::string statuses;
    for (const auto& status : result.statuses) {
        statuses += (statuses.empty() ? "" : ",") + std::to_string(status.first) + ":" +
                    std::to_string(status.second);
    }
    printf(
        "label=%s mix=%s concurrency=%u delivered=%llu failed=%llu seconds=%.2f "
        "rate=%.1f p50_ms=%.2f p99_ms=%.2f",
        options.label.c_str(), MixName(options.mix), options.limits.concurrency,
        static_cast<unsigned long long>(result.delivered),
        static_cast<unsigned long long>(result.Failed()), result.seconds,
        static_cast<double>(result.delivered) / seconds, Percentile(result.latencyMs, 0.5),
        Percentile(result.latencyMs, 0.99));
    printf(" body_bytes=%.0f kinds=feedback:%llu,crash:%llu,threat:%llu statuses=%s",
           result.delivered
               ? static_cast<double>(result.bodyBytes) / static_cast<double>(result.delivered)
               : 0.0,
           static_cast<unsigned long long>(result.deliveredKinds[0]),
           static_cast<unsigned long long>(result.deliveredKinds[1]),
           static_cast<unsigned long long>(result.deliveredKinds[2]),
           statuses.empty() ? "none" : statuses.c_str());
    printf(
        " failures=connect:%llu,tls:%llu,exchange:%llu,timeout:%llu tls=%s resumed=%llu"
        " generator_cpu=%.2f",
        static_cast<unsigned long long>(result.connectFailures),
        static_cast<unsigned long long>(result.tlsFailures),
        static_cast<unsigned long long>(result.httpFailures),
        static_cast<unsigned long long>(result.timeouts),
        result.tls.empty() ? "none" : result.tls.c_str(),
        static_cast<unsigned long long>(result.resumedSessions), generatorCpu / seconds);
    if (after.found && before.found && result.delivered > 0) {
        printf(
            " server_cpu_ms=%.3f server_peak_rss_mib=%.1f",
            (after.cpuSeconds - before.cpuSeconds) * 1000.0 / static_cast<double>(result.delivered),
            static_cast<double>(after.peakRssKiB) / 1024.0);
    } else {
        printf(" server_cpu_ms=- server_peak_rss_mib=-");
    }
    if (options.limits.idleConnections > 0) {
        printf(" idle_open=%llu idle_failed=%llu idle_closed_by_server=%llu",
               static_cast<unsigned long long>(result.idleOpened),
               static_cast<unsigned long long>(result.idleFailed),
               static_cast<unsigned long long>(result.idleClosedByServer));
        if (idle.found) {
            printf(" idle_rss_mib=%.1f", static_cast<double>(idle.rssKiB) / 1024.0);
        }
    }
    if (options.limits.slowConnections > 0) {
        printf(" slow_open=%llu slow_failed=%llu slow_reopened=%llu",
               static_cast<unsigned long long>(result.slowOpened),
               static_cast<unsigned long long>(result.slowFailed),
               static_cast<unsigned long long>(result.slowReopened));
    }
    printf("\n");
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int parsed = ParseOptions(argc, argv, options);
    if (parsed != 0) {
        return parsed < 0 ? 0 : parsed;
    }
    if (options.cpu >= 0 && !PinTo(options.cpu)) {
        return 1;
    }
    RaiseDescriptorLimit();
    CReportFleet fleet(static_cast<unsigned int>(options.machines), options.mix, options.seed,
                       static_cast<int64_t>(time(nullptr)));

    const std::vector<pid_t>& servers = options.serverPids;
    ProcessUsage before = servers.empty() ? ProcessUsage() : ReadProcessUsage(servers);
    if (!servers.empty() && !before.found) {
        fprintf(stderr, "collector_load: a --server-pid process does not exist\n");
        return 1;
    }
    double cpuBefore = CpuSeconds();
    LoadResult result;
    // The figures count from the measured posts on: what opening the idle connections
    // cost is left out, and the server's memory with them open is noted.
    ProcessUsage idle;
    const auto idleReady = [&]() {
        if (!servers.empty()) {
            idle = ReadProcessUsage(servers);
            before = idle;
        }
        cpuBefore = CpuSeconds();
    };
    if (!RunLoad(options.target, options.limits, fleet, result, idleReady)) {
        return 1;
    }
    const double generatorCpu = CpuSeconds() - cpuBefore;
    const ProcessUsage after = servers.empty() ? ProcessUsage() : ReadProcessUsage(servers);
    PrintFigures(options, result, generatorCpu, before, idle, after);
    return result.delivered > 0 && result.Failed() == 0 && !result.fleetFailed ? 0 : 1;
}
