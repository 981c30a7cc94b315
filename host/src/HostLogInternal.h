// Framework-internal logging helpers: every failure the framework sees is logged once, on
// the line that saw it, with the unqualified function name and this file's source name.
// A source file defines `kLogSource` before using the macros.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "AppLog.h"

namespace pwhost {

// Text of an errno value (thread-safe).
inline std::string ErrnoText(int errnum) {
    char buffer[128];
    return std::string(strerror_r(errnum, buffer, sizeof buffer));
}

}  // namespace pwhost

#define PWHOST_LOG(importance, ...) \
    CAppLog::LogDebugMessage(__func__, kLogSource, __LINE__, importance, __VA_ARGS__)

// A failed system or library call: its name, the result code handed to our caller, and
// the errno text of the failure.
#define PWHOST_LOG_ERRNO(call, code, errnum)                                                 \
    CAppLog::LogReturnCode(__func__, kLogSource, __LINE__, CAppLog::Error, call, code, "%s", \
                           ::pwhost::ErrnoText(errnum).c_str())
