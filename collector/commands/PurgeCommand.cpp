// purge: reports older than some days, or every report of one machine (a client's data on
// request), with their dumps and their share of the figures; the space is given back.
#include <cstdio>

#include "Commands.h"
#include "HostClock.h"
#include "api/ApiParams.h"
#include "commands/CommandSupport.h"

namespace collector {

int RunPurge(const CollectorSettings& settings, const std::vector<std::string>& args) {
    const char usage[] = "purge --older-than DAYS | purge --machine ID";
    std::map<std::string, std::string> options;
    if (!ReadOptions(args, {"older-than", "machine"}, usage, options) || options.size() != 1) {
        if (options.size() > 1 || args.empty()) {
            fprintf(stderr, "usage: pathweave-collector %s\n", usage);
        }
        return 2;
    }
    int64_t days = -1;
    if (options.count("older-than") != 0) {
        ApiTarget values;
        values.query = options;
        if (!ReadInteger(values, "older-than", 0, 100000, days)) {
            fprintf(stderr, "pathweave-collector: --older-than takes a number of days\n");
            return 2;
        }
    } else if (!ReadMachineId(options["machine"])) {
        fprintf(stderr, "pathweave-collector: a machine id is 40 lower-case hex digits\n");
        return 2;
    }
    std::unique_ptr<Store> store = OpenForCommand(settings.database);
    if (!store) {
        return 1;
    }
    int64_t removed = 0;
    StoreResult result =
        days >= 0 ? store->PurgeOlderThan(
                        static_cast<int64_t>(GetCurrentTimeSeconds()) - days * 86400, removed)
                  : store->PurgeMachine(options["machine"], removed);
    if (result != StoreResult::Ok) {
        CommandFailed("purge failed; nothing was removed");
        return 1;
    }
    printf("purged %lld reports\n", static_cast<long long>(removed));
    return 0;
}

}  // namespace collector
