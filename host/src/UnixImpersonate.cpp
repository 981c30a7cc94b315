// Process owner lookup through /proc and the passwd database.
#include "UnixImpersonate.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "HostLogInternal.h"
#include "UniqueFd.h"

namespace {

const char kLogSource[] = "host/src/UnixImpersonate";

}  // namespace

long CUnixImpersonate::GetUsernameOwningProcess(unsigned int pid, std::string& userName) {
    const std::string path = "/proc/" + std::to_string(pid) + "/status";
    pwhost::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.Valid()) {
        PWHOST_LOG_ERRNO("open", pwresult::kNoSuchProcess, errno);
        return pwresult::kNoSuchProcess;
    }
    std::string status;
    if (pwhost::ReadAll(fd.Get(), status, 1 << 20) != 0) {
        PWHOST_LOG_ERRNO("read", pwresult::kNoSuchProcess, errno);
        return pwresult::kNoSuchProcess;
    }
    // "Uid:\t<real>\t<effective>\t<saved>\t<filesystem>"
    std::istringstream lines(status);
    std::string line;
    long uid = -1;
    while (std::getline(lines, line)) {
        if (line.compare(0, 4, "Uid:") == 0) {
            char* end = nullptr;
            uid = strtol(line.c_str() + 4, &end, 10);
            if (end == line.c_str() + 4) {
                uid = -1;
            }
            break;
        }
    }
    if (uid < 0) {
        PWHOST_LOG(CAppLog::Error, "no Uid line in %s", path.c_str());
        return pwresult::kNoSuchProcess;
    }

    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
    struct passwd entry;
    struct passwd* found = nullptr;
    int rc;
    while ((rc = getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(),
                            &found)) == ERANGE &&
           buffer.size() < (1u << 20)) {
        buffer.resize(buffer.size() * 2);
    }
    if (rc != 0 || found == nullptr) {
        PWHOST_LOG_RESULT(CAppLog::Error, "getpwuid_r", pwresult::kUnknownUser, "uid %ld: %s", uid,
                          rc != 0 ? pwhost::ErrnoText(rc).c_str() : "no passwd entry");
        return pwresult::kUnknownUser;
    }
    userName = found->pw_name;
    return 0;
}
