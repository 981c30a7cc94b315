// The `serve` command: the receiving listener(s), the dashboard listener and the
// committer, until SIGTERM or SIGINT drains them. Returns the process's exit status.
#pragma once

#include "CollectorSettings.h"

namespace collector {

int RunServe(const CollectorSettings& settings);

}  // namespace collector
