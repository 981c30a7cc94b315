// Opening files that the plug-in reads or writes, whoever else can write to their
// directories.
//
// A path the plug-in reads (module data, outbound reports, crash and threat files, the
// history, the config file, the profile) or writes (reports and their staging files, the
// history) may name something other than a regular file: a FIFO, whose open would block the
// service thread for good, a device, which reads without end or as empty, or a symbolic
// link placed by another user. These helpers open without blocking, judge the file by fstat
// on the open descriptor (so the answer cannot change between the check and the use) and
// keep it only when it is a regular file. Nothing they refuse is truncated or removed.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

enum class ELinkPolicy {
    Follow,    // the path may be a symbolic link to a regular file
    NoFollow,  // a symbolic link at the path is refused like a file that cannot be opened
};

// Opens `path` read-only (close-on-exec, non-blocking) and returns the descriptor when it is
// a regular file, with its status in `status`. Otherwise returns -1 with errno set: the
// open's own errno, ELOOP for a refused link, EINVAL for something that is not a regular
// file. The caller owns the descriptor.
int OpenRegularFileForReading(const std::string& path, ELinkPolicy links, struct stat& status);

// Creates `path` as a new, empty regular file (never through a symbolic link, never over an
// existing file) and returns its descriptor opened write-only, or -1 with errno set.
int CreateRegularFileExclusively(const std::string& path, mode_t mode);

// Opens `path` write-only (close-on-exec, non-blocking, never through a symbolic link) and
// returns the descriptor when it is a regular file; a missing file is created with `mode`
// (before the umask). With `createNew` an existing path fails with EEXIST. Otherwise -1 with
// errno set: the open's own errno (ELOOP for a link, ENXIO for a FIFO nobody reads), EINVAL
// for something that is not a regular file. The file is not truncated.
int OpenRegularFileForWriting(const std::string& path, bool createNew, mode_t mode);

// Gives the regular file or directory at `path` (never through a symbolic link) exactly the
// permission bits `mode` when its group or others have any. Returns 1 when the bits were
// changed (`previous` holds the old ones), 0 when nothing had to change (or the path does
// not exist or is something else), -1 with errno set when they could not be changed.
int RestrictToOwner(const std::string& path, mode_t mode, mode_t& previous);

// Writes all `size` bytes, retrying short writes and EINTR; false with errno set otherwise.
bool WriteAll(int fd, const char* data, size_t size);

// Reads exactly `size` bytes from `fd` into `buffer`, retrying short reads and EINTR. Returns
// the number read: less than `size` only when the file ended early (a file that grows
// meanwhile is never read past `size`), or -1 with errno set on a read error.
ssize_t ReadExactly(int fd, char* buffer, size_t size);

// Owns one descriptor.
class CFileDescriptor {
public:
    explicit CFileDescriptor(int fd = -1) : m_fd(fd) {}
    ~CFileDescriptor() { Close(); }
    CFileDescriptor(CFileDescriptor const&) = delete;
    CFileDescriptor& operator=(CFileDescriptor const&) = delete;

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    void Reset(int fd) {
        Close();
        m_fd = fd;
    }
    void Close();

private:
    int m_fd;
};

// A regular file open for reading, closed with the object. Its size is the one fstat gave
// on the open descriptor, and ReadAll never reads past it, however the file grows.
class CRegularFile {
public:
    CRegularFile() = default;
    ~CRegularFile();
    // false (errno set as above) when the path is not a regular file that can be opened.
    bool Open(const std::string& path, ELinkPolicy links);
    // Saturated where a size_t is narrower than the file's size (i386): a file of 4 GiB and
    // some bytes is too large, never a few bytes long.
    size_t Size() const {
        return static_cast<unsigned long long>(m_status.st_size) > SIZE_MAX
                   ? SIZE_MAX
                   : static_cast<size_t>(m_status.st_size);
    }
    // The whole file as measured at Open (less if it shrank since); false on a read error or
    // when memory for it is short.
    bool ReadAll(std::string& content);
    int Get() const { return m_fd; }

    CRegularFile(const CRegularFile&) = delete;
    CRegularFile& operator=(const CRegularFile&) = delete;

private:
    int m_fd = -1;
    struct stat m_status = {};
};

// Whether `path` names a regular file (with NoFollow a link is not one). Checked before a
// path is removed, so that nothing but a regular file (or a module's link to one) is ever
// removed.
bool IsRegularFile(const std::string& path, ELinkPolicy links);
