#include "FeedbackServer.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "HostSettings.h"

namespace pwtest {

const char* const kFeedbackServerName = "feedback.pathweave.example";

namespace {

// Runs `argv` with stdout into a pipe (when `out` is not null); returns the child's pid.
pid_t Spawn(const std::vector<std::string>& args, int* out) {
    int fds[2] = {-1, -1};
    if (out != nullptr && pipe2(fds, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << strerror(errno);
        return -1;
    }
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (out != nullptr) {
            dup2(fds[1], STDOUT_FILENO);
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    if (out != nullptr) {
        close(fds[1]);
        if (pid < 0) {
            close(fds[0]);
        } else {
            *out = fds[0];
        }
    }
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
    }
    return pid;
}

int WaitExit(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class CertDir {
public:
    CertDir() {
        int rc = WaitExit(
            Spawn({"bash", std::string(PW_SOURCE_DIR) + "/tests/e2e/make_certs.sh", m_dir.path()},
                  nullptr));
        if (rc != 0) {
            ADD_FAILURE() << "make_certs.sh failed with " << rc;
        } else {
            m_ready = true;
        }
    }
    std::string Path() const { return m_ready ? m_dir.path() : std::string(); }

private:
    TempDir m_dir;
    bool m_ready = false;
};

std::vector<std::string> MetaFiles(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return names;
    }
    while (struct dirent* entry = readdir(d)) {
        std::string name = entry->d_name;
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".meta") == 0) {
            names.push_back(name.substr(0, name.size() - 5));
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::string Lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace

const std::string& TestCertDir() {
    static CertDir certs;  // made once, removed at exit
    static std::string path = certs.Path();
    return path;
}

std::string TestCertPath(const std::string& file) {
    return TestCertDir() + "/" + file;
}

std::string RecordedRequest::Header(const std::string& name) const {
    for (const auto& header : headers) {
        if (Lower(header.first) == Lower(name)) {
            return header.second;
        }
    }
    return std::string();
}

bool RecordedRequest::HasHeader(const std::string& name) const {
    for (const auto& header : headers) {
        if (Lower(header.first) == Lower(name)) {
            return true;
        }
    }
    return false;
}

FeedbackServer::FeedbackServer(const std::string& certName, const std::string& mode,
                               bool recordBodies)
    : m_pid(-1), m_port(0) {
    if (TestCertDir().empty()) {
        return;
    }
    mkdir((m_dir / "records").c_str(), 0700);
    // The distribution's interpreter when there is one: it starts fastest.
    const char* python = access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
    std::vector<std::string> args = {
        python,         std::string(PW_SOURCE_DIR) + "/tests/e2e/feedback_server.py",
        "--cert",       TestCertPath(certName + ".pem"),
        "--key",        TestCertPath(certName + ".key"),
        "--record-dir", m_dir / "records",
        "--control",    m_dir / "control",
        "--mode",       mode};
    if (!recordBodies) {
        args.push_back("--no-bodies");
    }
    int out = -1;
    m_pid = Spawn(args, &out);
    if (m_pid < 0) {
        return;
    }
    // "PORT <n>\n" once the server listens; bounded wait.
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        struct pollfd p = {out, POLLIN, 0};
        if (poll(&p, 1, 100) > 0) {
            char buffer[64];
            ssize_t n = read(out, buffer, sizeof buffer);
            if (n <= 0) {
                break;
            }
            line.append(buffer, static_cast<size_t>(n));
        }
    }
    close(out);
    if (line.compare(0, 5, "PORT ") == 0) {
        m_port = atoi(line.c_str() + 5);
    }
    if (m_port <= 0) {
        ADD_FAILURE() << "feedback server did not start: \"" << line << "\"";
        Stop();
    }
}

FeedbackServer::~FeedbackServer() {
    Stop();
}

void FeedbackServer::Stop() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        WaitExit(m_pid);
        m_pid = -1;
    }
    m_port = 0;
}

void FeedbackServer::SetControl(const std::string& lines) {
    const std::string temp = m_dir / "control.tmp";
    WriteFile(temp, lines);
    rename(temp.c_str(), (m_dir / "control").c_str());
}

std::vector<RecordedRequest> FeedbackServer::Requests() const {
    std::vector<RecordedRequest> requests;
    const std::string records = m_dir / "records";
    for (const std::string& base : MetaFiles(records)) {
        RecordedRequest request;
        std::istringstream meta(ReadFileOrEmpty(records + "/" + base + ".meta"));
        std::string line;
        while (std::getline(meta, line)) {
            size_t space = line.find(' ');
            std::string key = line.substr(0, space);
            std::string value = space == std::string::npos ? "" : line.substr(space + 1);
            if (key == "method") {
                request.method = value;
            } else if (key == "path") {
                request.path = value;
            } else if (key == "version") {
                request.version = value;
            } else if (key == "partial") {
                request.partial = value == "1";
            } else if (key == "length") {
                request.length = static_cast<size_t>(strtoul(value.c_str(), nullptr, 10));
            } else if (key == "peer") {
                request.peer = value;
            } else if (key == "header") {
                size_t colon = value.find(": ");
                request.headers.emplace_back(value.substr(0, colon), colon == std::string::npos
                                                                         ? std::string()
                                                                         : value.substr(colon + 2));
            }
        }
        request.body = ReadFileOrEmpty(records + "/" + base + ".body");
        requests.push_back(request);
    }
    return requests;
}

size_t FeedbackServer::RequestCount() const {
    return MetaFiles(m_dir / "records").size();
}

bool FeedbackServer::WaitForRequests(size_t count, unsigned int timeoutMs) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (RequestCount() < count) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string FeedbackServer::ConnectTo() const {
    return std::string(kFeedbackServerName) + ":443:127.0.0.1:" + std::to_string(m_port);
}

void FeedbackServer::Route() const {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile = TestCertPath("ca.pem");
    settings.connectTo = ConnectTo();
    pwhost::ApplyHostSettings(settings);
}

void ClearRoute() {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile.clear();
    settings.connectTo.clear();
    pwhost::ApplyHostSettings(settings);
}

}  // namespace pwtest
