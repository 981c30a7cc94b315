// Logging helpers of the plug-in. Each source file defines PH_LOG_SOURCE (the source name
// that its records carry) before including this header. Records carry the unqualified
// name of the operation that logs them.
#pragma once

#include "AppLog.h"
#include "ResultCodes.h"

#define PH_ERROR CAppLog::Error
#define PH_WARNING CAppLog::Warning
#define PH_INFO CAppLog::Information

#define PH_LOG(importance, ...) PH_LOG_AS(__func__, importance, __VA_ARGS__)
#define PH_LOG_RC(importance, failedCall, result, ...) \
    PH_LOG_RC_AS(__func__, importance, failedCall, result, ##__VA_ARGS__)

// For helpers whose records carry the name of the public operation that they serve.
#define PH_LOG_AS(operation, importance, ...) \
    CAppLog::LogDebugMessage(operation, PH_LOG_SOURCE, __LINE__, importance, __VA_ARGS__)
#define PH_LOG_RC_AS(operation, importance, failedCall, result, ...)                           \
    CAppLog::LogReturnCode(operation, PH_LOG_SOURCE, __LINE__, importance, failedCall, result, \
                           ##__VA_ARGS__)
