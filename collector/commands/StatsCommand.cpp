// stats: what the store holds, from the daily figures.
#include <cstdio>

#include "Commands.h"
#include "api/ApiParams.h"
#include "commands/CommandSupport.h"

namespace collector {

int RunStats(const CollectorSettings& settings, const std::vector<std::string>& args) {
    if (!args.empty()) {
        fprintf(stderr, "usage: pathweave-collector stats\n");
        return 2;
    }
    std::unique_ptr<Store> store = OpenForCommand(settings.database);
    if (!store) {
        return 1;
    }
    StoreTotals totals;
    std::vector<DailyFigures> days;
    if (store->Totals(totals) != StoreResult::Ok ||
        (totals.lastDay >= totals.firstDay &&
         store->Daily(totals.firstDay, totals.lastDay, days) != StoreResult::Ok)) {
        CommandFailed("stats: the store could not be read");
        return 1;
    }
    printf("reports %lld (feedback %lld, crash %lld, threat %lld, damaged %lld)\n",
           static_cast<long long>(totals.reports), static_cast<long long>(totals.perKind[0]),
           static_cast<long long>(totals.perKind[1]), static_cast<long long>(totals.perKind[2]),
           static_cast<long long>(totals.perKind[3]));
    printf("duplicates %lld\ndamaged %lld\nmachines %lld\nbytes %lld\n",
           static_cast<long long>(totals.duplicates), static_cast<long long>(totals.damaged),
           static_cast<long long>(totals.machines), static_cast<long long>(totals.bytes));
    printf("%-10s %9s %9s %9s %9s %10s %9s %12s\n", "day", "feedback", "crash", "threat", "damaged",
           "duplicates", "machines", "bytes");
    for (const DailyFigures& d : days) {
        if (d.perKind[0] + d.perKind[1] + d.perKind[2] + d.perKind[3] + d.duplicates == 0) {
            continue;
        }
        printf("%-10s %9lld %9lld %9lld %9lld %10lld %9lld %12lld\n", IsoDay(d.day).c_str(),
               static_cast<long long>(d.perKind[0]), static_cast<long long>(d.perKind[1]),
               static_cast<long long>(d.perKind[2]), static_cast<long long>(d.perKind[3]),
               static_cast<long long>(d.duplicates), static_cast<long long>(d.machines),
               static_cast<long long>(d.bytes));
    }
    return fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace collector
