#include "FeedbackServer.h"

#include <sys/stat.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "HostSettings.h"

namespace pwtest {

namespace {

class CertDir {
public:
    CertDir() {
        int rc = pwsupport::MakeTestCerts(m_dir.path(), false);
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
    return pwsupport::FilesWithSuffix(dir, ".meta");
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
                               bool recordBodies) {
    if (TestCertDir().empty()) {
        return;
    }
    mkdir((m_dir / "records").c_str(), 0700);
    std::vector<std::string> options = {"--cert",       TestCertPath(certName + ".pem"),
                                        "--key",        TestCertPath(certName + ".key"),
                                        "--record-dir", m_dir / "records",
                                        "--control",    m_dir / "control",
                                        "--mode",       mode};
    if (!recordBodies) {
        options.push_back("--no-bodies");
    }
    std::string error;
    if (!m_server.Start(options, false, &error)) {
        ADD_FAILURE() << error;
    }
}

FeedbackServer::~FeedbackServer() {
    Stop();
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

void FeedbackServer::Route() const {
    m_server.Route(TestCertPath("ca.pem"));
}

void ClearRoute() {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile.clear();
    settings.connectTo.clear();
    pwhost::ApplyHostSettings(settings);
}

}  // namespace pwtest
