// CFileUploader against the local feedback server: one post per uploader, the result-code
// mapping, the single 16384-byte read and the trust decision of each mode.
#include <memory>
#include <thread>

#include "AppLog.h"
#include "FeedbackServer.h"
#include "FileUploader.h"
#include "HostSettings.h"

namespace pwtest {
namespace {

const char kUrl[] = "https://feedback.pathweave.example/cef/upload";
const char kSource[] = "vpn/PhoneHome/FileUploader";

// The agent's construction arguments, with `closeOnSendFailure` as given.
std::unique_ptr<CFileUploader> MakeUploader(long& rc, bool closeOnSendFailure = true,
                                            const std::string& url = kUrl) {
    return std::unique_ptr<CFileUploader>(new CFileUploader(
        rc, "Pathweave", url, true, "", "", "", "", "", false, closeOnSendFailure, 443, true));
}

class FileUploaderTest : public HostFixture {
protected:
    void TearDown() override {
        ClearRoute();
        HostFixture::TearDown();
    }

    // Captured LogReturnCode records of the uploader naming `failedCall`.
    static std::vector<LogRecord> Failures(const std::string& failedCall) {
        std::vector<LogRecord> found;
        for (const LogRecord& record : CapturedLogs()) {
            if (record.sourceFile == kSource && record.failedCall == failedCall) {
                found.push_back(record);
            }
        }
        return found;
    }
};

TEST_F(FileUploaderTest, PostsBodyAndReadsReply) {
    struct Case {
        const char* control;
        bool compressed;
        size_t replySize;
    };
    const Case cases[] = {
        {"mode=ok\nreply=thanks", false, 6},
        {"mode=ok\nreply=thanks", true, 6},
        {"mode=ok\nreply_size=20000", false, 16384},  // one read only
        {"mode=ok\nreply_size=100\nreply_nul_at=10", false, 10},
        {"mode=nobody", false, 0},
    };
    FeedbackServer server;
    ASSERT_TRUE(server.Running());
    server.Route();
    const std::string body("data=\x00\x01\x02 bencode", 16);
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.control);
        server.SetControl(c.control);
        long rc = 0;
        auto uploader = MakeUploader(rc);
        ASSERT_EQ(0, rc);
        std::string reply = "prefix:";
        EXPECT_EQ(0, uploader->PostDataGetResponse(kUrl, body.data(), static_cast<int>(body.size()),
                                                   reply, c.compressed));
        EXPECT_EQ(7 + c.replySize, reply.size());
        ASSERT_TRUE(server.WaitForRequests(i + 1));
        RecordedRequest request = server.Requests()[i];
        EXPECT_EQ(body, request.body);
        EXPECT_EQ("/cef/upload", request.path);
        EXPECT_EQ("Pathweave", request.Header("User-Agent"));
        EXPECT_EQ(c.compressed, request.HasHeader("Zip"));
        EXPECT_EQ(c.compressed ? "True" : "", request.Header("Zip"));
    }
}

// How each failure of the session reaches the caller and the log.
TEST_F(FileUploaderTest, SendFailuresMapToUploaderCodes) {
    struct Case {
        const char* name;
        bool closeOnSendFailure;
        uint32_t injected;  // 0: the server answers 500
        long expected;
        long loggedStatus;
        bool sendFailureLogged;
    };
    const Case cases[] = {
        {"500 reply", true, 0, PwResult(0xFE450015), 500, true},
        {"secure channel", true, 0xFE450017, PwResult(0xFE87000C), 0, true},
        {"secure channel, no close", false, 0xFE450017, PwResult(0xFE87000C), 0, true},
        {"closed, close on failure", true, 0xFE45001C, PwResult(0xFE45001C), 0, true},
        {"closed, no close", false, 0xFE45001C, PwResult(0xFE870010), 0, false},
        {"other code passes", false, 0xFE450013, PwResult(0xFE450013), 0, true},
    };
    FeedbackServer server("server", "error");
    ASSERT_TRUE(server.Running());
    server.Route();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ClearCapturedLogs();
        if (c.injected != 0) {
            FailNext(Fault::HttpSend, PwResult(c.injected));
        }
        long rc = 0;
        auto uploader = MakeUploader(rc, c.closeOnSendFailure);
        std::string reply;
        EXPECT_EQ(c.expected, uploader->PostDataGetResponse(kUrl, "data=", 5, reply, false));
        EXPECT_EQ("", reply);
        std::vector<LogRecord> send = Failures("HttpSession::SendRequest");
        ASSERT_EQ(1u, send.size()) << DumpLog();
        EXPECT_EQ(c.loggedStatus, send[0].result);  // the status word, not the result
        EXPECT_EQ(CAppLog::Warning, send[0].importance);
        std::vector<LogRecord> failed = Failures("CFileUploader::SendHttpRequest");
        EXPECT_EQ(c.sendFailureLogged ? 1u : 0u, failed.size()) << DumpLog();
        if (!failed.empty()) {
            EXPECT_EQ(c.expected, failed[0].result);
        }
    }
}

TEST_F(FileUploaderTest, OpenFailureReturnsItsCodeWithoutSending) {
    long rc = 0;
    auto uploader = MakeUploader(rc, true, "http://feedback.pathweave.example/");
    ASSERT_EQ(0, rc);
    std::string reply;
    EXPECT_EQ(PwResult(0xFE450004),
              uploader->PostDataGetResponse("http://feedback.pathweave.example/", "data=", 5, reply,
                                            false));
    ASSERT_EQ(1u, Failures("CHttpSessionWinHttp::OpenRequest").size());
    EXPECT_TRUE(Failures("HttpSession::SendRequest").empty());
}

// Mode 0 (the uploader's own session): every untrusted certificate ends the handshake.
TEST_F(FileUploaderTest, StrictModeRejectsUntrustedCertificates) {
    struct Case {
        const char* cert;
        uint32_t verdict;
    };
    const Case cases[] = {
        {"untrusted", 0xFE210010},
        {"wrongname", 0xFE210015},
        {"expired", 0xFE210013},
        {"selfsigned", 0xFE210012},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cert);
        FeedbackServer server(c.cert);
        ASSERT_TRUE(server.Running());
        server.Route();
        ClearCapturedLogs();
        long rc = 0;
        auto uploader = MakeUploader(rc);
        std::string reply;
        EXPECT_EQ(PwResult(0xFE87000C),
                  uploader->PostDataGetResponse(kUrl, "data=", 5, reply, false));
        std::vector<LogRecord> verify = Failures("CFileUploader::ServerCertVerify");
        ASSERT_EQ(1u, verify.size()) << DumpLog();
        EXPECT_TRUE(PwResultEquals(verify[0].result, c.verdict)) << DumpLog();
        EXPECT_EQ(0u, server.RequestCount());
    }
}

// Modes 1 to 4 reach the uploader's callback through a session made with that mode.
TEST_F(FileUploaderTest, TrustModesThroughTheCallback) {
    const std::string selfSigned = ReadFileOrEmpty(TestCertPath("selfsigned.pem"));
    const std::string other = ReadFileOrEmpty(TestCertPath("server.pem"));
    ASSERT_FALSE(selfSigned.empty());
    const std::string kDifferent =
        "The server certificate for the secondary connection is different than the (trusted) "
        "server certificate used for the primary connection.  The server certificate for the "
        "secondary connection is not trusted.";
    struct Case {
        HTTP_CERT_TRUST_MODE mode;
        const char* cert;
        std::string primary;
        bool accepted;
        bool differentLogged;
    };
    const Case cases[] = {
        {HTTP_CERT_TRUST_SAME_AS_PRIMARY, "selfsigned", selfSigned, true, false},
        {HTTP_CERT_TRUST_SAME_AS_PRIMARY, "selfsigned", "", false, true},
        {HTTP_CERT_TRUST_SAME_AS_PRIMARY, "selfsigned", other, false, true},
        {HTTP_CERT_TRUST_SAME_AS_PRIMARY, "server", "", true, false},  // trusted anyway
        {HTTP_CERT_TRUST_SECONDARY_ANY, "expired", other, true, false},
        {HTTP_CERT_TRUST_ACCEPT_UNTRUSTED, "wrongname", "", true, false},
        {HTTP_CERT_TRUST_NO_CHECK, "untrusted", "", true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.cert) + " in mode " + std::to_string(c.mode));
        FeedbackServer server(c.cert);
        ASSERT_TRUE(server.Running());
        server.Route();
        ClearCapturedLogs();
        long rc = 0;
        auto uploader = MakeUploader(rc);
        CHttpSessionCurl session(rc, kUrl, "", {}, "", "", "", "Pathweave", 443, true, true, c.mode,
                                 c.primary, uploader.get(), &CFileUploader::ServerCertVerifyCB,
                                 16384, nullptr, nullptr);
        ASSERT_EQ(0, rc);
        ASSERT_EQ(0, session.OpenRequest("", 15, 0, HTTP_METHOD_POST));
        unsigned int status = 0;
        long sent = session.SendRequest(status, HTTP_BODY_FORM, "data=", 5, 0);
        session.CloseRequest();
        EXPECT_EQ(c.accepted ? 0 : PwResult(0xFE450017), sent) << DumpLog();
        EXPECT_EQ(c.differentLogged ? 1u : 0u, CountLogText(kDifferent)) << DumpLog();
        EXPECT_EQ(c.accepted ? 1u : 0u, server.RequestCount());
    }
}

TEST_F(FileUploaderTest, CallbackWithoutParametersCannotVerify) {
    long rc = 0;
    auto uploader = MakeUploader(rc);
    int notAStore = 0;
    const x509_store_ctx_st* fakeStore = reinterpret_cast<const x509_store_ctx_st*>(&notAStore);
    EXPECT_EQ(PwResult(0xFE870002), CFileUploader::ServerCertVerifyCB(
                                        nullptr, fakeStore, HTTP_CERT_TRUST_STRICT, "h", ""));
    EXPECT_EQ(PwResult(0xFE870002), CFileUploader::ServerCertVerifyCB(
                                        uploader.get(), nullptr, HTTP_CERT_TRUST_STRICT, "h", ""));
    EXPECT_EQ(2u,
              CountLogText("Unable to verify server certificate due to invalid NULL parameters."));
    // No store and no server name: not verifiable, except in mode 4, which checks nothing.
    EXPECT_EQ(PwResult(0xFE870002),
              uploader->ServerCertVerify(fakeStore, HTTP_CERT_TRUST_STRICT, "", ""));
    EXPECT_EQ(1u,
              CountLogText("The server certificate for the secondary connection is not trusted."));
    EXPECT_EQ(0, uploader->ServerCertVerify(nullptr, HTTP_CERT_TRUST_NO_CHECK, "", ""));
}

TEST_F(FileUploaderTest, TerminateSessionCutsAStalledPostShort) {
    FeedbackServer server("server", "stall");
    ASSERT_TRUE(server.Running());
    server.Route();
    long rc = 0;
    auto uploader = MakeUploader(rc);
    std::thread stopper([&] {
        ASSERT_TRUE(server.WaitForRequests(1));
        uploader->TerminateSession();
    });
    std::string body = "data=" + std::string(65536, 'q');
    std::string reply;
    EXPECT_EQ(PwResult(0xFE45001C),
              uploader->PostDataGetResponse(kUrl, body.data(), static_cast<int>(body.size()), reply,
                                            false));
    stopper.join();
}

}  // namespace
}  // namespace pwtest
