// Helpers of the upload benchmark: the local feedback server as a child process and the
// test certificates. Files, child processes and memory figures come from the shared
// support library.
#pragma once

#include <cstddef>
#include <string>

#include "ChildProcess.h"
#include "FeedbackServerProcess.h"
#include "ProcessMemory.h"
#include "ScratchFiles.h"

namespace uploadbench {

// A temporary directory under /tmp, removed with its content by the destructor.
class ScratchDir : public pwsupport::ScratchDir {
public:
    ScratchDir() : pwsupport::ScratchDir("/tmp", "pwbench-") {}
};

// The test certificates (tools/feedback-server/make_certs.sh), made once in a scratch directory.
const std::string& CertDir();

// tools/feedback-server/feedback_server.py on 127.0.0.1. Records requests only when `record` is
// set.
class BenchServer {
public:
    BenchServer(const std::string& mode, bool record);
    bool Running() const { return m_server.Port() > 0; }
    int Port() const { return m_server.Port(); }
    // production host name:443 to this server
    std::string ConnectTo() const { return m_server.ConnectTo(); }
    size_t RequestCount() const;
    // Routes the production host name here and trusts the test CA (host settings).
    void Route() const;

    BenchServer(const BenchServer&) = delete;
    BenchServer& operator=(const BenchServer&) = delete;

private:
    ScratchDir m_dir;
    pwsupport::FeedbackServerProcess m_server;  // stopped before m_dir is removed
};

}  // namespace uploadbench
