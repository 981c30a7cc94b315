#include "FeedbackServerProcess.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "ChildProcess.h"
#include "HostSettings.h"

namespace pwsupport {

const char* const kFeedbackServerName = "feedback.pathweave.example";

int MakeTestCerts(const std::string& dir, bool quiet) {
    return RunProcess(
        {"bash", std::string(PW_SOURCE_DIR) + "/tools/feedback-server/make_certs.sh", dir}, quiet);
}

bool FeedbackServerProcess::Start(const std::vector<std::string>& options, bool quiet,
                                  std::string* error) {
    Stop();
    // The distribution's interpreter when there is one: it starts fastest.
    const char* python = access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
    std::vector<std::string> args = {
        python, std::string(PW_SOURCE_DIR) + "/tools/feedback-server/feedback_server.py"};
    args.insert(args.end(), options.begin(), options.end());
    int out = -1;
    m_pid = Spawn(args, &out, quiet, error);
    if (m_pid < 0) {
        return false;
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
        if (error != nullptr) {
            *error = "feedback server did not start: \"" + line + "\"";
        }
        Stop();
        return false;
    }
    return true;
}

void FeedbackServerProcess::Stop() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        WaitExit(m_pid);
        m_pid = -1;
    }
    m_port = 0;
}

std::string FeedbackServerProcess::ConnectTo() const {
    return std::string(kFeedbackServerName) + ":443:127.0.0.1:" + std::to_string(m_port);
}

void FeedbackServerProcess::Route(const std::string& caFile) const {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile = caFile;
    settings.connectTo = ConnectTo();
    pwhost::ApplyHostSettings(settings);
}

}  // namespace pwsupport
