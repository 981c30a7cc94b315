#include "HostStatus.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "XmlParser.h"

namespace {

// The service refuses a history larger than this; status reads no more either.
constexpr size_t kMaxHistoryBytes = 1024 * 1024;

std::string UtcTime(time_t seconds) {
    struct tm parts {};
    char text[32];
    if (gmtime_r(&seconds, &parts) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return std::to_string(static_cast<long long>(seconds));
    }
    return text;
}

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) {
            close(fd);
        }
    }
};

// Opens `path` for reading as a regular file, without blocking on a FIFO or a device.
// Returns the descriptor, or -1 with `reason` set (and `missing` when nothing is there).
int OpenRegular(const std::string& path, struct stat& info, std::string& reason, bool& missing) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        missing = errno == ENOENT;
        reason = strerror(errno);
        return -1;
    }
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        reason = "not a regular file";
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

std::string DescribeProfile(const std::string& profilePath) {
    struct IgnoreElements : XmlMgr {
        void addElement(const std::string&) override {}
        void endElement(const std::string&) override {}
        void setElementValue(const std::string&) override {}
        void addAttribute(const std::string&, const std::string&) override {}
    } ignore;
    if (access(profilePath.c_str(), F_OK) != 0) {
        return profilePath + " (missing: the defaults apply)";
    }
    XmlParser parser(&ignore);
    if (parser.parseFile(profilePath, false) != 0) {
        std::string reason = parser.lastError();
        if (reason.compare(0, profilePath.size() + 2, profilePath + ": ") == 0) {
            reason.erase(0, profilePath.size() + 2);  // the reason without the path named above
        }
        return profilePath + " (does not parse: " + reason + "; the defaults apply)";
    }
    return profilePath;
}

std::string DescribeOutbound(const std::string& outboundDir) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(outboundDir.c_str()), closedir);
    if (!dir) {
        return std::string("cannot be listed: ") + strerror(errno);
    }
    unsigned long count = 0;
    bool haveOldest = false;
    time_t oldest = 0;
    while (const dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        // The service posts every entry, whatever its name or kind, so every entry counts.
        ++count;
        struct stat info {};
        if (fstatat(dirfd(dir.get()), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            (!haveOldest || info.st_mtime < oldest)) {
            oldest = info.st_mtime;
            haveOldest = true;
        }
    }
    if (count == 0) {
        return "none waiting";
    }
    std::string text = std::to_string(count) + (count == 1 ? " report" : " reports") + " waiting";
    return haveOldest ? text + ", oldest " + UtcTime(oldest) : text;
}

std::string DescribeHistoryTime(const std::string& historyPath, const std::string& key) {
    struct stat info {};
    std::string reason;
    bool missing = false;
    FdCloser file{OpenRegular(historyPath, info, reason, missing)};
    if (file.fd < 0) {
        return missing ? "never (no history yet)" : "history unreadable: " + reason;
    }
    if (static_cast<unsigned long long>(info.st_size) > kMaxHistoryBytes) {
        return "history unreadable: larger than 1 MiB";
    }
    std::string content(static_cast<size_t>(info.st_size), '\0');
    size_t filled = 0;
    while (filled < content.size()) {
        ssize_t got = read(file.fd, &content[filled], content.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return std::string("history unreadable: ") + strerror(errno);
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    content.resize(filled);
    // key:value lines, the key before the first colon, matched without regard to case as
    // the service does; a later line wins.
    std::string value;
    bool found = false;
    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        end = end == std::string::npos ? content.size() : end;
        std::string line = content.substr(start, end - start);
        start = end + 1;
        size_t colon = line.find(':');
        if (!line.empty() && line[0] != '#' && colon == key.size() &&
            strncasecmp(line.c_str(), key.c_str(), key.size()) == 0) {
            value = line.substr(colon + 1);
            found = true;
        }
    }
    if (!value.empty() && value.back() == '\r') {
        value.pop_back();
    }
    if (!found || value.empty()) {
        return "never";
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long seconds = strtoull(value.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value[0] < '0' || value[0] > '9') {
        return "not a time: \"" + value + "\"";
    }
    return UtcTime(static_cast<time_t>(seconds));
}

std::string UnreadableReason(const std::string& path) {
    struct stat info {};
    std::string reason;
    bool missing = false;
    FdCloser file{OpenRegular(path, info, reason, missing)};
    return file.fd < 0 ? reason : std::string();
}
