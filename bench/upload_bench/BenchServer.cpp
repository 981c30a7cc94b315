#include "BenchServer.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "HostSettings.h"

namespace uploadbench {

namespace {

const char kServerName[] = "feedback.pathweave.example";

pid_t Spawn(const std::vector<std::string>& args, int* out) {
    int fds[2] = {-1, -1};
    if (out != nullptr && pipe2(fds, O_CLOEXEC) != 0) {
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
        int devnull = open("/dev/null", O_WRONLY);
        if (devnull >= 0) {
            dup2(devnull, STDERR_FILENO);
            if (out == nullptr) {
                dup2(devnull, STDOUT_FILENO);
            }
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    if (out != nullptr) {
        close(fds[1]);
        if (pid > 0) {
            *out = fds[0];
        } else {
            close(fds[0]);
        }
    }
    return pid;
}

int WaitExit(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

long StatusKiB(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, strlen(key), key) == 0) {
            return strtol(line.c_str() + strlen(key), nullptr, 10);
        }
    }
    return -1;
}

}  // namespace

ScratchDir::ScratchDir() {
    char pattern[] = "/tmp/pwbench-XXXXXX";
    if (mkdtemp(pattern) != nullptr) {
        m_path = pattern;
    }
}

ScratchDir::~ScratchDir() {
    if (!m_path.empty()) {
        RemoveTree(m_path);
    }
}

void RemoveTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        return;
    }
    if (S_ISDIR(st.st_mode)) {
        if (DIR* dir = opendir(path.c_str())) {
            std::vector<std::string> names;
            while (struct dirent* entry = readdir(dir)) {
                if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
                    names.push_back(entry->d_name);
                }
            }
            closedir(dir);
            for (const std::string& name : names) {
                RemoveTree(path + "/" + name);
            }
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

bool WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(out);
}

size_t CountFiles(const std::string& directory, const std::string& suffix) {
    size_t count = 0;
    if (DIR* dir = opendir(directory.c_str())) {
        while (struct dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name.size() > suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                ++count;
            }
        }
        closedir(dir);
    }
    return count;
}

int RunProcess(const std::vector<std::string>& args) {
    pid_t pid = Spawn(args, nullptr);
    return pid > 0 ? WaitExit(pid) : -1;
}

const std::string& CertDir() {
    static ScratchDir dir;
    static std::string path =
        RunProcess({"bash", std::string(PW_SOURCE_DIR) + "/tests/e2e/make_certs.sh", dir.Path()}) ==
                0
            ? dir.Path()
            : std::string();
    return path;
}

BenchServer::BenchServer(const std::string& mode, bool record) : m_pid(-1), m_port(0) {
    if (CertDir().empty()) {
        return;
    }
    mkdir((m_dir / "records").c_str(), 0700);
    const char* python = access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
    std::vector<std::string> args = {
        python,   std::string(PW_SOURCE_DIR) + "/tests/e2e/feedback_server.py",
        "--cert", CertDir() + "/server.pem",
        "--key",  CertDir() + "/server.key",
        "--mode", mode};
    if (record) {
        args.insert(args.end(), {"--record-dir", m_dir / "records", "--no-bodies"});
    }
    int out = -1;
    m_pid = Spawn(args, &out);
    if (m_pid <= 0) {
        return;
    }
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
}

BenchServer::~BenchServer() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        WaitExit(m_pid);
    }
}

std::string BenchServer::ConnectTo() const {
    return std::string(kServerName) + ":443:127.0.0.1:" + std::to_string(m_port);
}

size_t BenchServer::RequestCount() const {
    return CountFiles(m_dir / "records", ".meta");
}

void BenchServer::Route() const {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile = CertDir() + "/ca.pem";
    settings.connectTo = ConnectTo();
    pwhost::ApplyHostSettings(settings);
}

long ResidentKiB() {
    return StatusKiB("VmRSS:");
}

long PeakResidentKiB() {
    return StatusKiB("VmHWM:");
}

bool ResetPeak() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return static_cast<bool>(clear);
}

}  // namespace uploadbench
