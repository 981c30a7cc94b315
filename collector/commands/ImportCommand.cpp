// import [--received TIME] PATH... [--received TIME PATH...]...: report files (as a client
// keeps them in its outbound directory) or bodies as posted ("data=" and the report) from
// disk, through the same validation, duplicate check and daily figures as reports that
// arrive over the network. A directory stands for the regular files in it, in name order.
// Each --received gives the time received of the paths after it (and of those before the
// first), so that a recorded set spanning many days loads in one run. Reports go to the
// store in batches; the store lets this run beside a running service on the same database.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AppLog.h"
#include "Commands.h"
#include "commands/CommandSupport.h"
#include "HostClock.h"
#include "HostSettings.h"
#include "report/ReportReader.h"
#include "report/ReportValidator.h"
#include "store/Store.h"

namespace collector {

namespace {

const char kPrefix[] = "data=";
const size_t kPrefixSize = sizeof kPrefix - 1;
// A batch is stored when it holds this many reports or body bytes. Each batch is one
// transaction: a larger one writes a page that several of its reports change (an index's
// leaf, a daily figure) once, and syncs once. On the first 100 days of the fleet's files
// (274,000 reports, one run) batches of 20,000 imported 5,950 to 6,380 reports a second,
// 10,000 5,450, and 5,000 4,430; 50,000 gained nothing more. A batch of the fleet's mix is
// about 90 MB and holds SQLite's write lock for about three seconds, which a service beside
// the import waits out (its busy timeout is 30 s).
const size_t kBatchReports = 20000;
const size_t kBatchBytes = 128u * 1024 * 1024;
const size_t kFewestPerBatch = 500;

const char kImportUsage[] =
    "usage: pathweave-collector import [--received TIME] PATH... [--received TIME PATH...]...\n";

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return m_fd; }

private:
    int m_fd;
};

// The content of the regular file `path`, at most a posted body's size; false with `error`.
bool ReadBody(const std::string& path, std::string& body, std::string& error) {
    // Non-blocking, so that a FIFO given by mistake is refused instead of waited on.
    Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
        error = strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "not a regular file";
        return false;
    }
    const size_t limit = kMaxReportBytes + kPrefixSize;
    if (static_cast<unsigned long long>(status.st_size) > limit) {
        error = "larger than a report can be (" + std::to_string(limit) + " bytes)";
        return false;
    }
    body.resize(static_cast<size_t>(status.st_size));
    size_t done = 0;
    while (done < body.size()) {
        const ssize_t count = read(file.Get(), &body[done], body.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            error = count < 0 ? strerror(errno) : "the file shrank while it was read";
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return true;
}

// A file to import, or a path as named (its size not known yet).
struct ImportFile {
    std::string path;
    uint64_t size;     // when listed; a batch is cut by it
    size_t timeIndex;  // its --received, or kNow
};

const size_t kNow = static_cast<size_t>(-1);

// The files that `path` stands for: itself, or the regular files of a directory by name.
bool ExpandPath(const ImportFile& named, std::vector<ImportFile>& files, std::string& error) {
    const std::string& path = named.path;
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        error = strerror(errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        files.push_back({path, static_cast<uint64_t>(status.st_size), named.timeIndex});
        return true;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), &closedir);
    if (!directory) {
        error = strerror(errno);
        return false;
    }
    std::vector<ImportFile> listed;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        const std::string full = path + "/" + name;
        if (name != "." && name != ".." && stat(full.c_str(), &status) == 0 &&
            S_ISREG(status.st_mode)) {
            listed.push_back({full, static_cast<uint64_t>(status.st_size), named.timeIndex});
        }
    }
    std::sort(listed.begin(), listed.end(),
              [](const ImportFile& a, const ImportFile& b) { return a.path < b.path; });
    files.insert(files.end(), listed.begin(), listed.end());
    return true;
}

// One batch of files read and validated, with the messages about those that could not be
// read (printed in file order by the thread that stores the batch).
struct Chunk {
    std::vector<ValidatedReport> reports;
    std::vector<std::string> errors;
};

// Reads and validates `files` on up to `threads` threads, each taking a contiguous share,
// so that the reports keep the files' order. A file's time received is times[timeIndex],
// or `now`.
Chunk ReadChunk(const std::vector<ImportFile>& files, size_t threads,
                const std::vector<int64_t>& times, int64_t now) {
    Chunk chunk;
    chunk.reports.resize(files.size());
    std::vector<std::string> errors(files.size());
    // One byte a file: the threads set neighbouring flags (std::vector<bool> packs them into
    // shared words, which two threads would race on).
    std::vector<char> read(files.size(), 0);
    auto work = [&](size_t begin, size_t end) {
        for (size_t i = begin; i < end; ++i) {
            std::string body;
            if (!ReadBody(files[i].path, body, errors[i])) {
                continue;
            }
            // A report file as the client keeps it is posted behind "data=".
            if (body.compare(0, kPrefixSize, kPrefix) != 0) {
                body.insert(0, kPrefix);
            }
            chunk.reports[i] = ValidateBody(std::move(body), false);
            chunk.reports[i].received =
                files[i].timeIndex == kNow ? now : times[files[i].timeIndex];
            read[i] = 1;
        }
    };
    threads = std::max<size_t>(1, std::min(threads, files.size()));
    std::vector<std::thread> workers;
    const size_t share = (files.size() + threads - 1) / threads;
    for (size_t t = 1; t < threads; ++t) {
        workers.emplace_back(work, std::min(files.size(), t * share),
                             std::min(files.size(), (t + 1) * share));
    }
    work(0, std::min(files.size(), share));
    for (std::thread& worker : workers) {
        worker.join();
    }
    size_t kept = 0;
    for (size_t i = 0; i < files.size(); ++i) {
        if (read[i]) {
            if (kept != i) {  // a move onto itself would empty it
                chunk.reports[kept] = std::move(chunk.reports[i]);
            }
            ++kept;
        } else {
            chunk.errors.push_back(files[i].path + ": " + errors[i]);
        }
    }
    chunk.reports.resize(kept);
    return chunk;
}

struct Totals {
    size_t perKind[4] = {0, 0, 0, 0};
    size_t duplicates = 0;
    size_t unreadable = 0;
};

bool StoreBatch(Store& store, std::vector<ValidatedReport>& batch, Totals& totals) {
    if (batch.empty()) {
        return true;
    }
    std::vector<InsertOutcome> outcomes;
    const StoreResult result = store.InsertBatch(batch, outcomes);
    if (result != StoreResult::Ok) {
        fprintf(stderr, "pathweave-collector: import: the store refused a batch of %zu reports%s\n",
                batch.size(),
                result == StoreResult::Unavailable ? " (storage unavailable; try again)" : "");
        return false;
    }
    for (size_t i = 0; i < batch.size(); ++i) {
        ++totals.perKind[static_cast<int>(batch[i].kind)];
        if (i < outcomes.size() && outcomes[i].duplicate) {
            ++totals.duplicates;
        }
    }
    batch.clear();
    return true;
}

}  // namespace

int RunImport(const CollectorSettings& settings, const std::vector<std::string>& args) {
    std::vector<int64_t> times;
    std::vector<ImportFile> paths;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--received") {
            int64_t received = 0;
            if (i + 1 == args.size() || !pwhost::ParseClockStartValue(args[i + 1], received)) {
                fprintf(stderr,
                        "pathweave-collector: import: --received needs a time (UNIX seconds, "
                        "YYYY-MM-DD or YYYY-MM-DDTHH:MM:SSZ)\n%s",
                        kImportUsage);
                return 2;
            }
            times.push_back(received);
            ++i;
        } else if (!args[i].empty() && args[i][0] == '-' && args[i] != "-") {
            fprintf(stderr, "pathweave-collector: import: unknown option %s\n%s", args[i].c_str(),
                    kImportUsage);
            return 2;
        } else {
            paths.push_back({args[i], 0, times.empty() ? 0 : times.size() - 1});
        }
    }
    if (times.empty()) {
        for (ImportFile& path : paths) {
            path.timeIndex = kNow;
        }
    }
    if (paths.empty()) {
        fprintf(stderr, "pathweave-collector: import: no file named\n%s", kImportUsage);
        return 2;
    }

    const size_t threads = std::max(1u, std::thread::hardware_concurrency());
    // Batches are stored one after the other on SQLite (one writer at a time). PostgreSQL
    // does a batch's work in a server process of the connection's own, so batches go to
    // it on several connections at once, one per core (at least two, so that a batch is
    // sent while the server works on another).
    std::vector<std::unique_ptr<Store>> stores;
    std::string error;
    for (size_t lanes = 1; stores.size() < lanes;) {
        std::unique_ptr<Store> store = Store::Open(settings.database, error);
        if (!store) {
            fprintf(stderr, "pathweave-collector: import: cannot open %s: %s\n",
                    settings.database.c_str(), error.c_str());
            return 1;
        }
        if (store->PrepareForBulkLoad() != StoreResult::Ok) {
            fprintf(stderr, "pathweave-collector: import: cannot prepare %s for the import\n",
                    settings.database.c_str());
            return 1;
        }
        if (store->ConcurrentWriters()) {
            lanes = std::min<size_t>(4, std::max<size_t>(2, threads));
        }
        stores.push_back(std::move(store));
    }
    // Into an empty store, the indexes that only reading uses are built once at the end.
    bool deferred = false;
    if (stores[0]->DeferReadIndexes(deferred) != StoreResult::Ok) {
        fprintf(stderr, "pathweave-collector: import: cannot prepare %s for the import\n",
                settings.database.c_str());
        return 1;
    }
    Totals totals;
    std::vector<ImportFile> files;
    for (const ImportFile& path : paths) {
        if (!ExpandPath(path, files, error)) {
            fprintf(stderr, "pathweave-collector: import: %s: %s\n", path.path.c_str(),
                    error.c_str());
            ++totals.unreadable;
        }
    }
    // Files are cut into batches of kBatchReports or kBatchBytes; while one batch is being
    // stored, the next is read and validated on the other cores.
    // A few thousand files are cut into several batches all the same, so that reading
    // overlaps storing.
    const size_t perBatch =
        std::min(kBatchReports, std::max(kFewestPerBatch, (files.size() + 3) / 4));
    std::vector<std::pair<size_t, size_t>> batches;
    for (size_t begin = 0, bytes = 0, i = 0; i < files.size(); ++i) {
        bytes += files[i].size;
        if (i + 1 == files.size() || i + 1 - begin == perBatch || bytes >= kBatchBytes) {
            batches.emplace_back(begin, i + 1);
            begin = i + 1;
            bytes = 0;
        }
    }
    auto readBatch = [&](size_t index) {
        return std::async(std::launch::async, ReadChunk,
                          std::vector<ImportFile>(files.begin() + batches[index].first,
                                                  files.begin() + batches[index].second),
                          threads, std::cref(times), GetCurrentTimeSeconds());
    };
    // Batch i is stored on store i % lanes, while the batches after it are read.
    std::vector<std::future<bool>> storing(stores.size());
    std::vector<Totals> laneTotals(stores.size());
    auto finished = [&storing](size_t lane) {
        return !storing[lane].valid() || storing[lane].get();
    };
    std::future<Chunk> next;
    if (!batches.empty()) {
        next = readBatch(0);
    }
    bool failed = false;
    for (size_t index = 0; index < batches.size() && !failed; ++index) {
        Chunk chunk = next.get();
        for (const std::string& message : chunk.errors) {
            fprintf(stderr, "pathweave-collector: import: %s\n", message.c_str());
            ++totals.unreadable;
        }
        // The lane's batch before is stored first, so that no more batches are held than
        // there are lanes and one being read.
        const size_t lane = index % stores.size();
        if (!finished(lane)) {
            failed = true;
            break;
        }
        if (index + 1 < batches.size()) {
            next = readBatch(index + 1);
        }
        storing[lane] = std::async(
            std::launch::async,
            [&stores, &laneTotals, lane](std::vector<ValidatedReport> reports) {
                return StoreBatch(*stores[lane], reports, laneTotals[lane]);
            },
            std::move(chunk.reports));
    }
    for (size_t lane = 0; lane < stores.size(); ++lane) {
        failed = !finished(lane) || failed;
        for (int kind = 0; kind < 4; ++kind) {
            totals.perKind[kind] += laneTotals[lane].perKind[kind];
        }
        totals.duplicates += laneTotals[lane].duplicates;
    }
    if (next.valid()) {
        next.wait();
    }
    // Built after a failure too: what was stored stays listed at full speed.
    if (!FinishBulkLoad(*stores[0], deferred, "import") || failed) {
        return 1;
    }
    const size_t* kinds = totals.perKind;
    printf(
        "imported %zu reports: %zu feedback, %zu crash, %zu threat, %zu damaged; "
        "%zu duplicates; %zu files not read\n",
        kinds[0] + kinds[1] + kinds[2] + kinds[3], kinds[0], kinds[1], kinds[2], kinds[3],
        totals.duplicates, totals.unreadable);
    CAppLog::LogDebugMessage(
        __func__, "collector/commands/ImportCommand", __LINE__, CAppLog::Information,
        "import: %zu reports stored (%zu damaged, %zu duplicates), %zu files "
        "not read",
        kinds[0] + kinds[1] + kinds[2] + kinds[3], kinds[3], totals.duplicates, totals.unreadable);
    return totals.unreadable == 0 ? 0 : 1;
}

}  // namespace collector
