// Logging for the collector's network side: the host framework's log (CAppLog), so that
// the collector's lines look like the host's (ISO 8601 UTC time, pid, importance). A
// source file defines `kLogSource` (its name) before using the macro.
#pragma once

#include "AppLog.h"

#define COLLECTOR_LOG(importance, ...) \
    CAppLog::LogDebugMessage(__func__, kLogSource, __LINE__, importance, __VA_ARGS__)
