// The local HTTPS feedback server (tools/feedback-server/feedback_server.py) as a child process on
// 127.0.0.1, and its certificates (tools/feedback-server/make_certs.sh).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace pwsupport {

// The production host name that the server's certificates are made for.
extern const char* const kFeedbackServerName;  // "feedback.pathweave.example"

// Makes the test certificates in `dir`: ca.pem, and <name>.pem/<name>.key for server,
// wrongname, expired, untrusted, selfsigned. The script's exit status (-1 if it did not
// run); `quiet` sends its output to /dev/null.
int MakeTestCerts(const std::string& dir, bool quiet);

class FeedbackServerProcess {
public:
    FeedbackServerProcess() = default;
    ~FeedbackServerProcess() { Stop(); }

    // Starts the server with `options` (see feedback_server.py) and waits, at most 20 s, for
    // its "PORT <n>" line. On failure the child is stopped, false is returned and `*error`
    // (when not null) says why. `quiet` sends the server's stderr to /dev/null.
    bool Start(const std::vector<std::string>& options, bool quiet, std::string* error);
    void Stop();

    int Port() const { return m_port; }
    // "feedback.pathweave.example:443:127.0.0.1:<port>"
    std::string ConnectTo() const;
    // Applies host settings that route the production host name's port 443 to this server
    // and trust `caFile` (the other host settings are kept).
    void Route(const std::string& caFile) const;

    FeedbackServerProcess(const FeedbackServerProcess&) = delete;
    FeedbackServerProcess& operator=(const FeedbackServerProcess&) = delete;

private:
    pid_t m_pid = -1;
    int m_port = 0;
};

}  // namespace pwsupport
