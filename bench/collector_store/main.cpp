// collector_store_fixture: writes the reports of a simulated fleet as files that
// `pathweave-collector import` reads, one directory per day of reception, so that a store
// of any size (a million reports over a year, say) can be built and rebuilt the same way.
//
//   collector_store_fixture --out DIR [--reports N] [--machines N] [--days N]
//                           [--last-day DAY] [--seed N]
//
// DIR/DAY/NNNNNNN holds one body as posted ("data=" and the report), DAY being the UNIX
// day (seconds / 86400) it is to be imported as received on; the reports are spread evenly
// over the days up to and including --last-day (default: today). The mix is the fleet's
// (about 95% feedback, 4% crash reports with a 64 KiB dump, 1% threat reports). A summary
// line goes to stdout: reports, bytes and count per kind.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "../collector_load/ReportFleet.h"

namespace {

struct Options {
    std::string out;
    long long reports = 1000000;
    long long machines = 100000;
    long long days = 365;
    long long lastDay = static_cast<long long>(time(nullptr) / 86400);
    unsigned long long seed = 1;
};

int Usage() {
    fprintf(stderr,
            "usage: collector_store_fixture --out DIR [--reports N] [--machines N] [--days N] "
            "[--last-day DAY] [--seed N]\n");
    return 2;
}

bool ParseNumber(const char* text, long long minimum, long long& value) {
    char* end = nullptr;
    errno = 0;
    const long long parsed = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || parsed < minimum) {
        return false;
    }
    value = parsed;
    return true;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = write(fd, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            close(fd);
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return close(fd) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 == argc) {
            return Usage();
        }
        const char* value = argv[++i];
        long long seed = 0;
        bool ok = true;
        if (arg == "--out") {
            options.out = value;
        } else if (arg == "--reports") {
            ok = ParseNumber(value, 1, options.reports);
        } else if (arg == "--machines") {
            ok = ParseNumber(value, 1, options.machines) && options.machines <= 100000000;
        } else if (arg == "--days") {
            ok = ParseNumber(value, 1, options.days);
        } else if (arg == "--last-day") {
            ok = ParseNumber(value, 0, options.lastDay);
        } else if (arg == "--seed") {
            ok = ParseNumber(value, 0, seed);
            options.seed = static_cast<unsigned long long>(seed);
        } else {
            ok = false;
        }
        if (!ok) {
            return Usage();
        }
    }
    if (options.out.empty() || options.days > options.lastDay + 1) {
        return Usage();
    }
    if (mkdir(options.out.c_str(), 0755) != 0 && errno != EEXIST) {
        fprintf(stderr, "collector_store_fixture: %s: %s\n", options.out.c_str(), strerror(errno));
        return 1;
    }

    const long long firstDay = options.lastDay - options.days + 1;
    // The machines' collection periods start in the month before the first day.
    collectorload::CReportFleet fleet(static_cast<unsigned int>(options.machines),
                                      collectorload::ReportMix::kFleet, options.seed,
                                      firstDay * 86400);
    long long perKind[collectorload::kReportKinds] = {0, 0, 0};
    unsigned long long bytes = 0;
    long long currentDay = -1;
    std::string directory, body;
    for (long long n = 0; n < options.reports; ++n) {
        const long long day = firstDay + n * options.days / options.reports;
        if (day != currentDay) {
            currentDay = day;
            directory = options.out + "/" + std::to_string(day);
            if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
                fprintf(stderr, "collector_store_fixture: %s: %s\n", directory.c_str(),
                        strerror(errno));
                return 1;
            }
        }
        collectorload::ReportKind kind;
        if (!fleet.Next(body, kind)) {
            return 1;
        }
        char name[32];
        snprintf(name, sizeof name, "/%09lld", n);
        if (!WriteFile(directory + name, body)) {
            fprintf(stderr, "collector_store_fixture: %s%s: %s\n", directory.c_str(), name,
                    strerror(errno));
            return 1;
        }
        ++perKind[static_cast<int>(kind)];
        bytes += body.size();
    }
    printf(
        "reports=%lld bytes=%llu feedback=%lld crash=%lld threat=%lld days=%lld first_day=%lld\n",
        options.reports, bytes, perKind[0], perKind[1], perKind[2], options.days, firstDay);
    return 0;
}
