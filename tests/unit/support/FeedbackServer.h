// The local HTTPS feedback server (tools/feedback-server/feedback_server.py) driven from a
// test: it runs as a child process on 127.0.0.1, answers as its control file says and
// records each request. Certificates are made once per test program by make_certs.sh.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "FeedbackServerProcess.h"
#include "TestSupport.h"

namespace pwtest {

// The production host name that the server's certificates are made for.
using pwsupport::kFeedbackServerName;  // "feedback.pathweave.example"

// A file of the test certificates, made on first use (a test failure if they cannot be):
// ca.pem, and <name>.pem/<name>.key for server, wrongname, expired, untrusted, selfsigned.
std::string TestCertPath(const std::string& file);

struct RecordedRequest {
    std::string method, path;
    size_t length = 0;  // bytes of body received (also when bodies are not recorded)
    std::string peer;   // client address:port (the same for requests on one connection)
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // Value of the first header called `name` (case-insensitive); empty if none.
    std::string Header(const std::string& name) const {
        const std::string* value = Find(name);
        return value != nullptr ? *value : std::string();
    }
    bool HasHeader(const std::string& name) const { return Find(name) != nullptr; }
    const std::string* Find(const std::string& name) const;
};

class FeedbackServer {
public:
    // Starts the server with the certificate pair `certName` and the answer `mode` (see
    // feedback_server.py). With `recordBodies` false only lengths are kept.
    explicit FeedbackServer(const std::string& certName = "server", const std::string& mode = "ok",
                            bool recordBodies = true);

    // Replaces the control file: key=value lines, e.g. "mode=error\n".
    void SetControl(const std::string& lines);
    void SetMode(const std::string& mode) { SetControl("mode=" + mode + "\n"); }

    // Complete records so far, in arrival order.
    std::vector<RecordedRequest> Requests() const;
    size_t RequestCount() const;
    // Polls until `count` requests were recorded or `timeoutMs` passed.
    bool WaitForRequests(size_t count, unsigned int timeoutMs = 5000) const;

    // Applies host settings that route the production host name's port 443 to this server
    // and trust the test CA (the other host settings are kept); false, routing nothing, when
    // the server is not running.
    bool Route() const;

    FeedbackServer(const FeedbackServer&) = delete;
    FeedbackServer& operator=(const FeedbackServer&) = delete;

private:
    TempDir m_dir;
    pwsupport::FeedbackServerProcess m_server;  // stopped before m_dir is removed
};

// Sets host settings with no CA file and no route (undoes FeedbackServer::Route).
void ClearRoute();

}  // namespace pwtest
