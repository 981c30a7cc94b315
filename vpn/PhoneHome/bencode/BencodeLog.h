// Logging of the bencode library: every failure is one error record with the failing
// operation's own name as the function name.
#pragma once

#include "AppLog.h"

#define BENCODE_SOURCE_FILE "vpn/PhoneHome/Bencode"

// One error record with a printf-style text.
#define BENCODE_LOG_ERROR(...) \
    CAppLog::LogDebugMessage(__func__, BENCODE_SOURCE_FILE, __LINE__, CAppLog::Error, __VA_ARGS__)

// The same on behalf of the operation `function` (the walks over a tree log for the
// operation that the caller invoked).
#define BENCODE_LOG_ERROR_IN(function, ...) \
    CAppLog::LogDebugMessage(function, BENCODE_SOURCE_FILE, __LINE__, CAppLog::Error, __VA_ARGS__)

// One error record carrying a result code (an errno or an EBencodeResult) and the name of
// the call that produced it.
#define BENCODE_LOG_CODE(failedCall, code, ...)                                                 \
    CAppLog::LogReturnCode(__func__, BENCODE_SOURCE_FILE, __LINE__, CAppLog::Error, failedCall, \
                           static_cast<long>(code), __VA_ARGS__)
