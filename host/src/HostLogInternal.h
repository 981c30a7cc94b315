// Framework-internal logging: the one set of macros through which every host source logs.
// Each failure is logged once, on the line that saw it, with the unqualified function name
// and the source's name; a source file defines `kLogSource` before using the macros.
//
//   PWHOST_LOG(importance, format, ...)            a message
//   PWHOST_LOG_RESULT(importance, call, code, format, ...)
//                                                  a failed call and the code handed on
//   PWHOST_LOG_ERRNO(call, code, errnum)           a failed system call and its errno text
//   PWHOST_LOG_ERRNO_ON(call, code, errnum, what)  the same, naming the object it failed on
//   PWHOST_REFUSE(code, format, ...)               a refused argument: logged as an error,
//                                                  evaluates to `code` for the caller to return
//   PWHOST_CURL_OK / PWHOST_CURL_CHECK / PWHOST_SSL_OK (CurlSupport.h)
//                                                  checked libcurl and OpenSSL calls
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

#define PWHOST_LOG_RESULT(importance, call, code, ...) \
    CAppLog::LogReturnCode(__func__, kLogSource, __LINE__, importance, call, code, __VA_ARGS__)

#define PWHOST_LOG_ERRNO(call, code, errnum) \
    PWHOST_LOG_RESULT(CAppLog::Error, call, code, "%s", ::pwhost::ErrnoText(errnum).c_str())

#define PWHOST_LOG_ERRNO_ON(call, code, errnum, what)                                  \
    PWHOST_LOG_RESULT(CAppLog::Error, call, code, "%s: %s", std::string(what).c_str(), \
                      ::pwhost::ErrnoText(errnum).c_str())

#define PWHOST_REFUSE(code, ...) (PWHOST_LOG(CAppLog::Error, __VA_ARGS__), (code))
