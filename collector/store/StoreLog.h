// Log records of the store, the API and the commands, through the host framework's log.
#pragma once

#include "AppLog.h"

#define STORE_LOG(importance, ...) \
    CAppLog::LogDebugMessage(__func__, __FILE__, __LINE__, (importance), __VA_ARGS__)
