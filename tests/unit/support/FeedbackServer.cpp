#include "FeedbackServer.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "HostSettings.h"

namespace pwtest {

const std::string& TestCertDir() {
    static TempDir certs;  // made once, removed at exit
    static const std::string path = [] {
        int rc = pwsupport::MakeTestCerts(certs.path(), false);
        EXPECT_EQ(0, rc) << "make_certs.sh failed";
        return rc == 0 ? certs.path() : std::string();
    }();
    return path;
}

std::string TestCertPath(const std::string& file) {
    return TestCertDir() + "/" + file;
}

const std::string* RecordedRequest::Find(const std::string& name) const {
    for (const auto& header : headers) {
        if (strcasecmp(header.first.c_str(), name.c_str()) == 0) {
            return &header.second;
        }
    }
    return nullptr;
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
    for (const std::string& base : pwsupport::FilesWithSuffix(records, ".meta")) {
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
    return pwsupport::CountFiles(m_dir / "records", ".meta");
}

bool FeedbackServer::WaitForRequests(size_t count, unsigned int timeoutMs) const {
    return WaitUntil([this, count] { return RequestCount() >= count; }, timeoutMs);
}

bool FeedbackServer::Route() const {
    if (m_server.Port() <= 0) {
        return false;
    }
    m_server.Route(TestCertPath("ca.pem"));
    return true;
}

void ClearRoute() {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile.clear();
    settings.connectTo.clear();
    pwhost::ApplyHostSettings(settings);
}

}  // namespace pwtest
