// Helpers of the upload benchmark: the local feedback server as a child process, the test
// certificates, child processes, and the process's memory figures.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace uploadbench {

// A temporary directory, removed with its content by the destructor.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

private:
    std::string m_path;
};

void RemoveTree(const std::string& path);
bool WriteFile(const std::string& path, const std::string& content);
size_t CountFiles(const std::string& directory, const std::string& suffix);

// Runs `args` (argv[0] looked up in PATH) and waits; the exit status, -1 if it did not run.
int RunProcess(const std::vector<std::string>& args);

// The test certificates (tests/e2e/make_certs.sh), made once in a scratch directory.
const std::string& CertDir();

// tests/e2e/feedback_server.py on 127.0.0.1. Records requests only when `record` is set.
class BenchServer {
public:
    BenchServer(const std::string& mode, bool record);
    ~BenchServer();
    bool Running() const { return m_port > 0; }
    int Port() const { return m_port; }
    std::string ConnectTo() const;  // production host name:443 to this server
    size_t RequestCount() const;
    // Routes the production host name here and trusts the test CA (host settings).
    void Route() const;

    BenchServer(const BenchServer&) = delete;
    BenchServer& operator=(const BenchServer&) = delete;

private:
    ScratchDir m_dir;
    pid_t m_pid;
    int m_port;
};

// VmRSS and VmHWM of this process in KiB; ResetPeak() restarts VmHWM from VmRSS.
long ResidentKiB();
long PeakResidentKiB();
bool ResetPeak();

}  // namespace uploadbench
