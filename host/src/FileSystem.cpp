// File-system helpers: mkdir -p and a directory listing.
#include "FileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "HostLogInternal.h"
#include "ResultCodes.h"
#include "UniqueFd.h"
#include "TestControlInternal.h"

namespace {

const char kLogSource[] = "host/src/FileSystem";

bool IsDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Makes one directory whose parent exists: 0 when it exists as a directory afterwards,
// otherwise the errno value that tells why not.
int MakeOne(const std::string& path) {
    if (mkdir(path.c_str(), 0755) == 0) {
        return 0;
    }
    int error = errno;
    if (error == EEXIST) {
        error = IsDirectory(path) ? 0 : ENOTDIR;
    }
    return error;
}

}  // namespace

int MakeSureDirectoryPathExists(const char* path) {
    long code = 0;
    if (PWHOST_TEST_FAULT(MakeDirectory, code)) {
        errno = EIO;
        return 0;
    }
    if (path == nullptr || *path == '\0') {
        (void)PWHOST_REFUSE(0, "no path to create");
        errno = EINVAL;
        return 0;
    }
    std::string full(path);
    if (IsDirectory(full)) {
        return 1;
    }
    // Each prefix ending before a "/" is a parent ("a//b": the empty component adds
    // nothing); the whole path is the last component.
    std::vector<std::string> steps;
    for (size_t slash = full.find('/', 1); slash != std::string::npos;
         slash = full.find('/', slash + 1)) {
        if (full[slash - 1] != '/') {
            steps.push_back(full.substr(0, slash));
        }
    }
    if (full.back() != '/') {
        steps.push_back(full);
    }
    for (const std::string& step : steps) {
        int error = MakeOne(step);
        if (error != 0) {
            PWHOST_LOG_ERRNO_ON("mkdir", pwresult::kFailure, error, step);
            errno = error;  // tells the caller why
            return 0;
        }
    }
    return 1;
}

Directory::Directory(long& result, const std::string& path) : m_pDir(nullptr) {
    pwhost::UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.Valid()) {
        result = pwresult::kDirectoryError;
        PWHOST_LOG_ERRNO_ON("open", result, errno, path);
        return;
    }
    DIR* dir = fdopendir(fd.Get());
    if (dir == nullptr) {
        result = pwresult::kDirectoryError;
        PWHOST_LOG_ERRNO_ON("fdopendir", result, errno, path);
        return;
    }
    fd.Release();  // the stream owns it now
    m_pDir = dir;
    result = pwresult::kSuccess;
}

Directory::~Directory() {
    if (m_pDir != nullptr) {
        closedir(static_cast<DIR*>(m_pDir));
    }
}

long Directory::ReadDir(std::string& name) {
    if (m_pDir == nullptr) {
        return pwresult::kDirectoryError;
    }
    errno = 0;
    struct dirent* entry = readdir(static_cast<DIR*>(m_pDir));
    if (entry == nullptr) {
        if (errno != 0) {
            PWHOST_LOG_ERRNO("readdir", pwresult::kDirectoryError, errno);
            return pwresult::kDirectoryError;
        }
        return pwresult::kDirectoryEnd;
    }
    name = entry->d_name;
    return pwresult::kSuccess;
}
