#include "FeedbackServer.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "HostSettings.h"

namespace pwtest {

std::string TestCertPath(const std::string& file) {
    static TempDir certs;  // made once, removed at exit
    static const bool made = pwsupport::MakeTestCerts(certs.path(), false) == 0;
    EXPECT_TRUE(made) << "make_certs.sh failed";
    return made ? certs / file : std::string();
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
    if (TestCertPath("ca.pem").empty()) {
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
        std::string key, value;
        while (meta >> key && std::getline(meta >> std::ws, value)) {
            const size_t colon = value.find(": ");
            if (key == "method" || key == "path" || key == "peer") {
                (key == "method" ? request.method
                 : key == "path" ? request.path
                                 : request.peer) = value;
            } else if (key == "length") {
                request.length = static_cast<size_t>(strtoul(value.c_str(), nullptr, 10));
            } else if (key == "header" && colon != std::string::npos) {
                request.headers.emplace_back(value.substr(0, colon), value.substr(colon + 2));
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
