// The commands of pathweave-collector besides `serve` (server/Serve.h). Each returns the
// process's exit status: 0 done, 1 failed (logged), 2 a usage error (printed on stderr).
// `args` are the command's own arguments, after its name.
#pragma once

#include <string>
#include <vector>

#include "CollectorSettings.h"

namespace collector {

// import [--received TIME] PATH...: report files or posted bodies from disk.
int RunImport(const CollectorSettings& settings, const std::vector<std::string>& args);
// export [--since DATE] [--until DATE] [--kind KIND] [--machine ID]: JSON Lines on stdout.
int RunExport(const CollectorSettings& settings, const std::vector<std::string>& args);
// purge --older-than DAYS | purge --machine ID
int RunPurge(const CollectorSettings& settings, const std::vector<std::string>& args);
// migrate --to DATABASE
int RunMigrate(const CollectorSettings& settings, const std::vector<std::string>& args);
// stats: counts by kind and day, duplicates, damaged, machines, bytes.
int RunStats(const CollectorSettings& settings, const std::vector<std::string>& args);

}  // namespace collector
