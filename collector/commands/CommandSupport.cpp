#include "commands/CommandSupport.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "store/StoreLog.h"

namespace collector {

bool ReadOptions(const std::vector<std::string>& args, const std::vector<std::string>& allowed,
                 const char* usage, std::map<std::string, std::string>& options) {
    for (size_t i = 0; i < args.size(); i += 2) {
        const std::string& name = args[i];
        if (name.compare(0, 2, "--") != 0 ||
            std::find(allowed.begin(), allowed.end(), name.substr(2)) == allowed.end() ||
            i + 1 >= args.size() || options.count(name.substr(2)) != 0) {
            fprintf(stderr, "usage: pathweave-collector %s\n", usage);
            return false;
        }
        options[name.substr(2)] = args[i + 1];
    }
    return true;
}

std::unique_ptr<Store> OpenForCommand(const std::string& database) {
    std::string error;
    std::unique_ptr<Store> store = Store::Open(database, error);
    if (!store) {
        CommandFailed("cannot open the store: " + error);
    }
    return store;
}

bool FinishBulkLoad(Store& store, bool deferred, const std::string& command) {
    // The read indexes are built while the load still runs as one: its log copied into the
    // database on a thread of its own and its commits not waiting for the disk, so that
    // the one sync at its end covers them too. What was stored is made durable even when
    // they could not be built.
    const auto start = std::chrono::steady_clock::now();
    const StoreResult built = store.BuildReadIndexes();
    if (built == StoreResult::Ok && deferred) {
        STORE_LOG(CAppLog::Information, "%s: the read indexes built in %.1f s", command.c_str(),
                  std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    if (store.EndBulkLoad() != StoreResult::Ok) {
        CommandFailed(command + ": what was stored could not be made durable");
        return false;
    }
    if (built != StoreResult::Ok) {
        CommandFailed(command +
                      ": the store's read indexes could not be built (the next import, purge "
                      "or day of serve builds them)");
        return false;
    }
    return true;
}

void CommandFailed(const std::string& message) {
    fprintf(stderr, "pathweave-collector: %s\n", message.c_str());
    STORE_LOG(CAppLog::Error, "%s", message.c_str());
}

}  // namespace collector
