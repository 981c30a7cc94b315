#include "api/PageHandler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "AppLog.h"
#include "FileDescriptor.h"

#ifndef PW_COLLECTOR_WEB_SOURCE_DIR
#define PW_COLLECTOR_WEB_SOURCE_DIR ""
#endif

namespace collector {
namespace {

constexpr const char kChartPrefix[] = "/vendor/chart.js/";
constexpr const char kChartPackageDir[] = "/usr/share/javascript/chart.js";
constexpr off_t kMaxFileSize = 8 << 20;  // the chart library is the largest file, ~550 KB

// The content type of the file names the pages use; null for any other file, which is
// then not served at all (nothing is sniffed, nothing is offered as a download).
const char* ContentTypeOf(const std::string& path) {
    static const struct {
        const char* suffix;
        const char* type;
    } kTypes[] = {
        {".html", "text/html; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
    };
    for (const auto& entry : kTypes) {
        const size_t length = strlen(entry.suffix);
        if (path.size() > length && path.compare(path.size() - length, length, entry.suffix) == 0) {
            return entry.type;
        }
    }
    return nullptr;
}

// A relative path made of plain names: letters, digits, '-', '_' and inner dots, each
// segment starting with a letter, digit or '_'. That excludes "", ".", "..", hidden
// files, percent escapes (nothing is decoded), backslashes and NUL bytes.
bool IsPlainRelativePath(const std::string& path) {
    if (path.empty() || path.size() > 200)
        return false;
    bool segmentStart = true;
    for (const char c : path) {
        const bool word = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '_' || c == '-';
        if (c == '/') {
            if (segmentStart)
                return false;
            segmentStart = true;
        } else if (segmentStart) {
            if (!word || c == '-')
                return false;
            segmentStart = false;
        } else if (!word && c != '.') {
            return false;
        }
    }
    return !segmentStart;
}

ApiAnswer Plain(int status, const char* text) {
    ApiAnswer answer;
    answer.status = status;
    answer.contentType = "text/plain; charset=utf-8";
    answer.headers = PageSecurityHeaders();
    answer.body = text;
    return answer;
}

// Reads the regular file `root`/`relative`; false when it is missing, not a regular file,
// a symbolic link or too large.
bool ReadRegularFile(const std::string& root, const std::string& relative, std::string& bytes) {
    if (root.empty())
        return false;
    const std::string path = root + "/" + relative;
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY));
    if (file.Get() < 0)
        return false;
    struct stat status {};
    if (fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > kMaxFileSize) {
        return false;
    }
    bytes.resize(static_cast<size_t>(status.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = read(file.Get(), &bytes[done], bytes.size() - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            CAppLog::LogReturnCode(__func__, "collector/api/PageHandler", __LINE__, CAppLog::Error,
                                   "read", got < 0 ? errno : 0, "%s", path.c_str());
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

const std::vector<std::pair<std::string, std::string>>& PageSecurityHeaders() {
    static const std::vector<std::pair<std::string, std::string>> kHeaders = {
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
         "connect-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},
        {"X-Frame-Options", "DENY"},
        {"Cross-Origin-Opener-Policy", "same-origin"},
        {"Cache-Control", "no-cache"},
    };
    return kHeaders;
}

PageRoots DefaultPageRoots() {
    PageRoots roots;
    roots.chartJs = kChartPackageDir;
    roots.web = PW_COLLECTOR_WEB_SOURCE_DIR;
    char exe[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (length > 0) {
        std::string installed(exe, static_cast<size_t>(length));
        installed = installed.substr(0, installed.rfind('/')) + "/../share/pathweave-collector/web";
        struct stat status {};
        if (stat((installed + "/index.html").c_str(), &status) == 0)
            roots.web = installed;
    }
    return roots;
}

ApiAnswer HandlePageRequest(const ApiRequest& request, const PageRoots& roots) {
    if (request.method != "GET") {
        ApiAnswer answer = Plain(405, "method not allowed\n");
        answer.headers.emplace_back("Allow", "GET");
        return answer;
    }
    std::string path = request.target.substr(0, request.target.find_first_of("?#"));
    if (path == "/")
        path = "/index.html";
    if (path.empty() || path[0] != '/')
        return Plain(404, "not found\n");

    const char* type = ContentTypeOf(path);
    std::string root = roots.web;
    std::string relative = path.substr(1);
    const size_t chartPrefixLength = strlen(kChartPrefix);
    if (path.compare(0, chartPrefixLength, kChartPrefix) == 0) {
        root = roots.chartJs;
        relative = path.substr(chartPrefixLength);
    } else if (relative.compare(0, 7, "vendor/") == 0) {
        return Plain(404, "not found\n");
    }
    ApiAnswer answer;
    if (type == nullptr || !IsPlainRelativePath(relative) ||
        !ReadRegularFile(root, relative, answer.body)) {
        return Plain(404, "not found\n");
    }
    answer.contentType = type;
    answer.headers = PageSecurityHeaders();
    return answer;
}

}  // namespace collector
