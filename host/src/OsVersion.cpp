// Operating-system description from uname.
#include "OsVersion.h"

#include <sys/utsname.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "HostInternal.h"
#include "HostLogInternal.h"
#include "ResultCodes.h"
#include "SafeString.h"
#include "TestControlInternal.h"

namespace {
const char kLogSource[] = "host/src/OsVersion";
}

namespace pwhost {

void ParseKernelRelease(const char* release, unsigned int& major, unsigned int& minor,
                        unsigned int& build) {
    unsigned int* parts[] = {&major, &minor, &build};
    for (unsigned int* part : parts) {
        *part = 0;
    }
    const char* cursor = release != nullptr ? release : "";
    for (unsigned int* part : parts) {
        if (*cursor < '0' || *cursor > '9') {
            return;
        }
        unsigned int value = 0;
        for (; *cursor >= '0' && *cursor <= '9'; ++cursor) {
            unsigned int digit = static_cast<unsigned int>(*cursor - '0');
            value = value > (UINT_MAX - digit) / 10 ? UINT_MAX : value * 10 + digit;
        }
        *part = value;
        if (*cursor != '.') {
            return;
        }
        ++cursor;
    }
}

}  // namespace pwhost

OS_VERSION_INFO GetOsVersion() {
    OS_VERSION_INFO record;
    memset(&record, 0, sizeof record);
    if (PWHOST_OS_VERSION_OVERRIDE(record)) {
        return record;
    }
    record.dwOSVersionInfoSize = sizeof record;
    struct utsname names;
    if (uname(&names) != 0) {
        PWHOST_LOG_ERRNO("uname", pwresult::kFailure, errno);
        return record;
    }
    pwhost::ParseKernelRelease(names.release, record.dwMajorVersion, record.dwMinorVersion,
                               record.dwBuildNumber);
    safe_strlcpyA(record.szOSType, names.sysname, sizeof record.szOSType);
    safe_strlcpyA(record.szVersionDetails, names.release, sizeof record.szVersionDetails);
    return record;
}

bool IsOs_LINUX() {
#ifdef __linux__
    return true;
#else
    return false;
#endif
}

// The family answers for the systems the client also runs on; this host is never one.
bool IsOs_MAC() {
    return false;
}
bool IsOs_WINNT_XP_Only() {
    return false;
}
bool IsOs_WIN_VISTA_Only() {
    return false;
}
bool IsOs_WIN_7_Only() {
    return false;
}
bool IsOs_WIN_8_Only() {
    return false;
}
