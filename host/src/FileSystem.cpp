// File-system helpers: mkdir -p and a directory listing.
#include "FileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "HostLogInternal.h"
#include "HostTestControl.h"
#include "ResultCodes.h"

namespace {

const char kLogSource[] = "host/src/FileSystem";

bool IsDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Makes one directory whose parent exists. true when it exists as a directory afterwards.
bool MakeOne(const std::string& path) {
    if (mkdir(path.c_str(), 0755) == 0) {
        return true;
    }
    int error = errno;
    if (error == EEXIST) {
        if (IsDirectory(path)) {
            return true;
        }
        error = ENOTDIR;
    }
    CAppLog::LogReturnCode("MakeSureDirectoryPathExists", kLogSource, __LINE__, CAppLog::Error,
                           "mkdir", pwresult::kFailure, "%s: %s", path.c_str(),
                           pwhost::ErrnoText(error).c_str());
    errno = error;  // tells the caller why
    return false;
}

}  // namespace

int MakeSureDirectoryPathExists(const char* path) {
    long code = 0;
    if (pwtest::TakeFault(pwtest::Fault::MakeDirectory, code)) {
        errno = EIO;
        return 0;
    }
    if (path == nullptr || *path == '\0') {
        errno = EINVAL;
        return 0;
    }
    std::string full(path);
    if (IsDirectory(full)) {
        return 1;
    }
    // Each prefix ending before a "/" is a parent; the whole path is the last component.
    for (size_t slash = full.find('/', 1); slash != std::string::npos;
         slash = full.find('/', slash + 1)) {
        if (full[slash - 1] == '/') {
            continue;  // "a//b": the empty component adds nothing
        }
        if (!MakeOne(full.substr(0, slash))) {
            return 0;
        }
    }
    if (full.back() != '/' && !MakeOne(full)) {
        return 0;
    }
    return 1;
}

Directory::Directory(long& result, const std::string& path) : m_pDir(nullptr) {
    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        result = pwresult::kDirectoryError;
        PWHOST_LOG_ERRNO("open", result, errno);
        return;
    }
    DIR* dir = fdopendir(fd);  // owns fd from here on
    if (dir == nullptr) {
        int error = errno;
        close(fd);
        result = pwresult::kDirectoryError;
        PWHOST_LOG_ERRNO("fdopendir", result, error);
        return;
    }
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
