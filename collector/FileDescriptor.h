// The collector's owner of one file descriptor: closes it when it goes out of scope.
#pragma once

#include <unistd.h>

namespace collector {

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int Get() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace collector
