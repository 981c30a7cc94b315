// import [--received TIME] PATH... [--received TIME PATH...]...: report files (as a client
// keeps them in its outbound directory) or bodies as posted ("data=" and the report) from
// disk, through the same validation, duplicate check and daily figures as reports that
// arrive over the network. A directory stands for the regular files in it, in name order.
// Each --received gives the time received of the paths after it (and of those before the
// first), so that a recorded set spanning many days loads in one run. Reports go to the
// store in batches; the store lets this run beside a running service on the same database.
#include <dirent.h>
#include <sys/stat.h>

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
#include "HostSettings.h"
#include "commands/ImportReader.h"
#include "store/Store.h"

namespace collector {

namespace {

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
// Batches read ahead of the one being stored. With one (the next read while one was
// stored), the store waited 17 of 31 s for reading on the first 100 days of the fleet's
// files, as reading shared the cores with it; with two, 2 to 3 s (the first batch).
const size_t kReadAhead = 2;

const char kImportUsage[] =
    "usage: pathweave-collector import [--received TIME] PATH... [--received TIME PATH...]...\n";

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
    // Each entry is looked up in the open directory: a million files cost one path
    // component's lookup each, rather than the whole path's.
    const int directoryFd = dirfd(directory.get());
    std::vector<ImportFile> listed;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && fstatat(directoryFd, name.c_str(), &status, 0) == 0 &&
            S_ISREG(status.st_mode)) {
            listed.push_back(
                {path + "/" + name, static_cast<uint64_t>(status.st_size), named.timeIndex});
        }
    }
    std::sort(listed.begin(), listed.end(),
              [](const ImportFile& a, const ImportFile& b) { return a.path < b.path; });
    files.insert(files.end(), listed.begin(), listed.end());
    return true;
}

// Lists the files that `paths` stand for, cuts them into batches of kBatchReports or
// kBatchBytes, and hands each batch to `reader` as soon as it is cut, so that the first
// batches are read while the rest is listed. A few thousand files are cut into several
// batches all the same, so that reading overlaps storing: until that many are listed, the
// size of a batch is not known, and nothing is cut. Returns the paths that could not be
// listed.
size_t ListInBatches(const std::vector<ImportFile>& paths, BatchReader& reader) {
    size_t unlisted = 0, listed = 0;
    std::vector<ImportFile> pending;
    // Cuts `pending` from its front in batches of `perBatch` files; the files after the
    // last whole batch stay unless `all`.
    auto cut = [&pending, &reader](size_t perBatch, bool all) {
        size_t begin = 0;
        for (size_t bytes = 0, i = 0; i < pending.size(); ++i) {
            bytes += pending[i].size;
            if ((all && i + 1 == pending.size()) || i + 1 - begin == perBatch ||
                bytes >= kBatchBytes) {
                if (!reader.Add({pending.begin() + begin, pending.begin() + i + 1})) {
                    return false;
                }
                begin = i + 1;
                bytes = 0;
            }
        }
        pending.erase(pending.begin(), pending.begin() + begin);
        return true;
    };
    for (const ImportFile& path : paths) {
        const size_t before = pending.size();
        std::string error;
        if (!ExpandPath(path, pending, error)) {
            fprintf(stderr, "pathweave-collector: import: %s: %s\n", path.path.c_str(),
                    error.c_str());
            ++unlisted;
        }
        listed += pending.size() - before;
        if (listed >= 4 * kBatchReports && !cut(kBatchReports, false)) {
            return unlisted;
        }
    }
    if (cut(std::min(kBatchReports, std::max(kFewestPerBatch, (listed + 3) / 4)), true)) {
        reader.Close();
    }
    return unlisted;
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
            path.timeIndex = kImportedNow;
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
    // Batch i is stored on store i % lanes, while the batches after it are read.
    std::vector<std::future<bool>> storing(stores.size());
    std::vector<Totals> laneTotals(stores.size());
    auto finished = [&storing](size_t lane) {
        return !storing[lane].valid() || storing[lane].get();
    };
    Totals totals;
    bool failed = false;
    {
        // Reading runs kReadAhead batches ahead of the batch being stored, on every core,
        // so that the cores the store leaves idle (its syncs, its last statements) read on.
        BatchReader reader(times, threads, kReadAhead);
        std::future<size_t> listing = std::async(
            std::launch::async, [&paths, &reader] { return ListInBatches(paths, reader); });
        ImportChunk chunk;
        for (size_t index = 0; !failed && reader.Next(chunk); ++index) {
            for (const std::string& message : chunk.errors) {
                fprintf(stderr, "pathweave-collector: import: %s\n", message.c_str());
                ++totals.unreadable;
            }
            // The lane's batch before is stored first, so that no more batches are held
            // than there are lanes and those read ahead.
            const size_t lane = index % stores.size();
            if (!finished(lane)) {
                failed = true;
                break;
            }
            storing[lane] = std::async(
                std::launch::async,
                [&stores, &laneTotals, lane](std::vector<ValidatedReport> reports) {
                    return StoreBatch(*stores[lane], reports, laneTotals[lane]);
                },
                std::move(chunk.reports));
        }
        reader.Stop();
        totals.unreadable += listing.get();
    }
    for (size_t lane = 0; lane < stores.size(); ++lane) {
        failed = !finished(lane) || failed;
        for (int kind = 0; kind < 4; ++kind) {
            totals.perKind[kind] += laneTotals[lane].perKind[kind];
        }
        totals.duplicates += laneTotals[lane].duplicates;
    }
    // The other lanes' batches are made durable too; the indexes are built after a failure
    // too, so that what was stored stays listed at full speed.
    for (size_t lane = 1; lane < stores.size(); ++lane) {
        if (stores[lane]->EndBulkLoad() != StoreResult::Ok) {
            CommandFailed("import: what was stored could not be made durable");
            failed = true;
        }
    }
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
