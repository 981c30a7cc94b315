#include "RegularFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace {

// `fd` (an open result) when it is a regular file, with its status in `status`; otherwise
// closes it and returns -1 with errno set (EINVAL for anything that is not a regular file).
int KeepIfRegular(int fd, struct stat& status) {
    if (fd < 0) {
        return -1;
    }
    int error = 0;
    if (fstat(fd, &status) != 0) {
        error = errno;
    } else if (!S_ISREG(status.st_mode)) {
        error = EINVAL;
    }
    if (error != 0) {
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

}  // namespace

int OpenRegularFileForReading(const std::string& path, ELinkPolicy links, struct stat& status) {
    int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    if (links == ELinkPolicy::NoFollow) {
        flags |= O_NOFOLLOW;
    }
    return KeepIfRegular(open(path.c_str(), flags), status);
}

int OpenRegularFileForWriting(const std::string& path, bool createNew, mode_t mode) {
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    if (createNew) {
        flags |= O_EXCL;
    }
    struct stat status;
    return KeepIfRegular(open(path.c_str(), flags, mode), status);
}

int RestrictToOwner(const std::string& path, mode_t mode, mode_t& previous) {
    CFileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!file.Valid() || fstat(file.Get(), &status) != 0 ||
        !(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) ||
        (status.st_mode & (S_IRWXG | S_IRWXO)) == 0) {
        return 0;
    }
    previous = status.st_mode & 07777;
    return fchmod(file.Get(), mode) == 0 ? 1 : -1;
}

bool WriteAll(int fd, const char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t count = write(fd, data + done, size - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        done += static_cast<size_t>(count);
    }
    return true;
}

void CFileDescriptor::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

int CreateRegularFileExclusively(const std::string& path, mode_t mode) {
    return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK,
                mode);
}

ssize_t ReadExactly(int fd, char* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t count = read(fd, buffer + done, size - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

bool IsRegularFile(const std::string& path, ELinkPolicy links) {
    struct stat status;
    int rc =
        links == ELinkPolicy::Follow ? stat(path.c_str(), &status) : lstat(path.c_str(), &status);
    return rc == 0 && S_ISREG(status.st_mode);
}

CRegularFile::~CRegularFile() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool CRegularFile::Open(const std::string& path, ELinkPolicy links) {
    if (m_fd >= 0) {
        close(m_fd);
    }
    m_fd = OpenRegularFileForReading(path, links, m_status);
    return m_fd >= 0;
}

bool CRegularFile::ReadAll(std::string& content) {
    if (Size() > content.max_size()) {
        errno = EFBIG;
        return false;
    }
    try {
        content.resize(Size());
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
    ssize_t count = ReadExactly(m_fd, &content[0], content.size());
    if (count < 0) {
        return false;
    }
    content.resize(static_cast<size_t>(count));
    return true;
}
