// Framework-internal owner of one file descriptor: closes it when it goes out of scope.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>

namespace pwhost {

class UniqueFd {
public:
    UniqueFd() : m_fd(-1) {}
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { Reset(); }

    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    int Release() {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    // Closes the current descriptor (keeping errno: a close error after use tells nothing
    // the caller could act on) and takes `fd`.
    void Reset(int fd = -1) {
        if (m_fd >= 0) {
            int saved = errno;
            close(m_fd);
            errno = saved;
        }
        m_fd = fd;
    }

private:
    int m_fd;
};

// Reads the whole of `fd` into `content`, at most `limit` bytes. Returns 0 on success,
// 1 when the data exceed `limit` (content then holds the first `limit` + 1 bytes), -1 on a
// read error (errno set).
inline int ReadAll(int fd, std::string& content, size_t limit) {
    content.clear();
    char buffer[65536];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            return 0;
        }
        content.append(buffer, static_cast<size_t>(n));
        if (content.size() > limit) {
            content.resize(limit + 1);
            return 1;
        }
    }
}

}  // namespace pwhost
