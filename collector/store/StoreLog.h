// Log records of the store, the API and the commands, through the host framework's log.
#pragma once

#include "AppLog.h"

// A fixed source name rather than __FILE__, which would carry the build machine's paths
// into every record.
#define STORE_LOG(importance, ...) \
    CAppLog::LogDebugMessage(__func__, "collector/store", __LINE__, (importance), __VA_ARGS__)
