// Logging helpers of the plug-in. Each source file defines PH_LOG_SOURCE (the source name
// that its records carry) before including this header. Records carry the unqualified
// name of the operation that logs them.
#pragma once

#include "AppLog.h"
#include "ResultCodes.h"

#define PH_ERROR CAppLog::Error
#define PH_WARNING CAppLog::Warning
#define PH_INFO CAppLog::Information

#define PH_LOG(importance, ...) \
    CAppLog::LogDebugMessage(__func__, PH_LOG_SOURCE, __LINE__, importance, __VA_ARGS__)

#define PH_LOG_RC(importance, failedCall, result, ...)                                        \
    CAppLog::LogReturnCode(__func__, PH_LOG_SOURCE, __LINE__, importance, failedCall, result, \
                           ##__VA_ARGS__)
