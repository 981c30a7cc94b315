#include "BenchServer.h"

#include <sys/stat.h>

namespace uploadbench {

const std::string& CertDir() {
    static ScratchDir dir;
    static std::string path =
        pwsupport::MakeTestCerts(dir.path(), true) == 0 ? dir.path() : std::string();
    return path;
}

BenchServer::BenchServer(const std::string& mode, bool record) {
    if (CertDir().empty()) {
        return;
    }
    mkdir((m_dir / "records").c_str(), 0700);
    std::vector<std::string> options = {
        "--cert", CertDir() + "/server.pem", "--key", CertDir() + "/server.key", "--mode", mode};
    if (record) {
        options.insert(options.end(), {"--record-dir", m_dir / "records", "--no-bodies"});
    }
    m_server.Start(options, true, nullptr);
}

size_t BenchServer::RequestCount() const {
    return pwsupport::CountFiles(m_dir / "records", ".meta");
}

void BenchServer::Route() const {
    m_server.Route(CertDir() + "/ca.pem");
}

}  // namespace uploadbench
