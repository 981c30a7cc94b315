#include "server/DashboardAccess.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "server/Listener.h"
#include "server/ServerLog.h"

namespace collector {

namespace {

constexpr const char kLogSource[] = "DashboardAccess";
constexpr const char kTokenFile[] = "dashboard-token";

std::string Sha256(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
    return std::string(reinterpret_cast<char*>(digest), length);
}

std::string Hex(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
    }
    return out;
}

bool EqualDigests(const std::string& a, const std::string& b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string Trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// Reads the kept token, or makes one (32 random bytes as hex) and keeps it, 0600.
bool StateToken(const std::string& directory, std::string& token, std::string& error) {
    const std::string path = directory + "/" + kTokenFile;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0) {
        char buffer[256];
        const ssize_t got = read(fd, buffer, sizeof buffer);
        close(fd);
        token = got > 0 ? Trimmed(std::string(buffer, static_cast<size_t>(got))) : std::string();
        if (!token.empty())
            return true;
        error = "the dashboard token file " + path + " is empty";
        return false;
    }
    if (errno != ENOENT) {
        error = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "cannot make " + directory + ": " + std::strerror(errno);
        return false;
    }
    unsigned char random[32];
    if (RAND_bytes(random, sizeof random) != 1) {
        error = "no random bytes for a dashboard token";
        return false;
    }
    token = Hex(std::string(reinterpret_cast<char*>(random), sizeof random));
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    const std::string line = token + "\n";
    const bool written = fd >= 0 &&
                         write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
                         fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    if (!written) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        unlink(path.c_str());
        return false;
    }
    COLLECTOR_LOG(CAppLog::Information, "dashboard token made at first start, kept in %s",
                  path.c_str());
    return true;
}

}  // namespace

bool DashboardAccess::Load(const CollectorSettings& settings, bool loopback, std::string& error) {
    if (settings.dashboardToken == "off") {
        if (!loopback) {
            error = "dashboard_token=off is only allowed on a loopback dashboard_listen";
            return false;
        }
        open_ = true;
        return true;
    }
    std::string token = settings.dashboardToken;
    if (token.empty() && !StateToken(settings.stateDirectory, token, error))
        return false;
    if (token.empty()) {
        error = "the dashboard token is empty";
        return false;
    }
    if (settings.dashboardToken.empty()) {
        COLLECTOR_LOG(CAppLog::Information, "dashboard token from %s/%s",
                      settings.stateDirectory.c_str(), kTokenFile);
    }
    tokenDigest_ = Sha256(token);
    cookieValue_ = Hex(Sha256("dashboard session\n" + token));
    return true;
}

bool DashboardAccess::IsToken(const std::string& candidate) const {
    return open_ || EqualDigests(Sha256(candidate), tokenDigest_);
}

bool DashboardAccess::Allows(const std::string& authorization, const std::string& cookie) const {
    if (open_)
        return true;
    static const std::string kBearer = "Bearer ";
    if (authorization.compare(0, kBearer.size(), kBearer) == 0 &&
        IsToken(authorization.substr(kBearer.size()))) {
        return true;
    }
    const std::string session = CookieFrom(cookie, kCookieName);
    return !session.empty() && EqualDigests(Sha256(session), Sha256(cookieValue_));
}

bool IsLoopbackListen(const std::string& listen) {
    boost::asio::ip::tcp::endpoint endpoint;
    return ParseListenAddress(listen, endpoint) && endpoint.address().is_loopback();
}

std::string CookieFrom(const std::string& header, const std::string& name) {
    size_t at = 0;
    while (at < header.size()) {
        size_t end = header.find(';', at);
        if (end == std::string::npos)
            end = header.size();
        size_t start = header.find_first_not_of(' ', at);
        if (start < end) {
            const std::string pair = header.substr(start, end - start);
            const size_t equals = pair.find('=');
            if (equals != std::string::npos && pair.compare(0, equals, name) == 0 &&
                equals == name.size()) {
                return pair.substr(equals + 1);
            }
        }
        at = end + 1;
    }
    return std::string();
}

}  // namespace collector
