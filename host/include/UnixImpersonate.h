// Process and user identity.
#pragma once

#include <string>

#include "ResultCodes.h"

namespace pwresult {
constexpr long kNoSuchProcess = PwResult(0xFE4A0001);  // /proc has no such process
constexpr long kUnknownUser = PwResult(0xFE4A0002);    // the uid has no passwd entry
}  // namespace pwresult

class CUnixImpersonate {
public:
    // The login name of the real user that owns process `pid` (from /proc/<pid>/status and
    // the passwd database). Returns 0 with `userName` set, or kNoSuchProcess / kUnknownUser
    // with `userName` untouched. Safe from any thread.
    static long GetUsernameOwningProcess(unsigned int pid, std::string& userName);

    CUnixImpersonate() = delete;
};
