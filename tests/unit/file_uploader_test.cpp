// CFileUploader against the local feedback server: one post per uploader, the result-code
// mapping, the single 16384-byte read and the trust decision of each mode.
#include <memory>

#include "AppLog.h"
#include "FeedbackServer.h"
#include "FileUploader.h"

namespace pwtest {
namespace {

const char kUrl[] = "https://feedback.pathweave.example/cef/upload";

// The agent's construction arguments, with `closeOnSendFailure` as given.
std::unique_ptr<CFileUploader> MakeUploader(bool closeOnSendFailure = true) {
    long rc = 0;
    std::unique_ptr<CFileUploader> uploader(new CFileUploader(
        rc, "Pathweave", kUrl, true, "", "", "", "", "", false, closeOnSendFailure, 443, true));
    EXPECT_EQ(0, rc);
    return uploader;
}

long Post(CFileUploader& uploader, std::string& reply,
          const std::string& body = "data=", bool compressed = false) {
    return uploader.PostDataGetResponse(kUrl, body.data(), static_cast<int>(body.size()), reply,
                                        compressed);
}

class FileUploaderTest : public HostFixture {
protected:
    void TearDown() override {
        ClearRoute();
        HostFixture::TearDown();
    }
};

// The reply is appended up to its first NUL, from one read of at most 16384 bytes.
TEST_F(FileUploaderTest, PostsBodyAndReadsReply) {
    const struct {
        const char* control;
        bool compressed;
        size_t replySize;
    } cases[] = {
        // clang-format off
        {"mode=ok\nreply=thanks", false, 6},
        {"mode=ok\nreply_size=20000", true, 16384},
        {"mode=ok\nreply_size=100\nreply_nul_at=10", false, 10},
        {"mode=nobody", false, 0},
        // clang-format on
    };
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    const std::string body("data=\x00\x01\x02 bencode", 16);
    size_t count = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.control);
        server.SetControl(c.control);
        std::string reply = "prefix:";
        EXPECT_EQ(0, Post(*MakeUploader(), reply, body, c.compressed));
        EXPECT_EQ(7 + c.replySize, reply.size());
        ASSERT_TRUE(server.WaitForRequests(++count));
        RecordedRequest request = server.Requests().back();
        EXPECT_EQ(body, request.body);
        EXPECT_EQ("/cef/upload", request.path);
        EXPECT_EQ("Pathweave", request.Header("User-Agent"));
        EXPECT_EQ(c.compressed ? "True" : "", request.Header("Zip"));
    }
}

// How each failure of the session reaches the caller, and the line that reports it.
TEST_F(FileUploaderTest, SendFailuresMapToUploaderCodes) {
    const struct {
        const char* name;
        bool closeOnSendFailure;
        uint32_t injected;  // 0: the server answers 500
        long expected;
        bool reported;  // by the uploader's own line
    } cases[] = {
        // clang-format off
        {"500 reply", true, 0, PwResult(0xFE450015), true},
        {"secure channel", true, 0xFE450017, PwResult(0xFE87000C), true},
        {"secure channel, no close", false, 0xFE450017, PwResult(0xFE87000C), true},
        {"closed, close on failure", true, 0xFE45001C, PwResult(0xFE45001C), true},
        {"closed, no close", false, 0xFE45001C, PwResult(0xFE870010), false},
        {"other code passes", false, 0xFE450013, PwResult(0xFE450013), true},
        // clang-format on
    };
    FeedbackServer server("server", "error");
    ASSERT_TRUE(server.Route());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ClearCapturedLogs();
        if (c.injected != 0) {
            FailNext(Fault::HttpSend, PwResult(c.injected));
        }
        std::string reply;
        EXPECT_EQ(c.expected, Post(*MakeUploader(c.closeOnSendFailure), reply));
        EXPECT_EQ("", reply);
        EXPECT_EQ(c.reported ? 1u : 0u, Failures("CFileUploader::SendHttpRequest").size())
            << DumpLog();
    }
}

// The trust decision of each mode, through a session made with that mode: mode 0 rejects an
// untrusted certificate with its verdict; mode 1 accepts one that is the primary
// connection's, and says so when it differs.
TEST_F(FileUploaderTest, TrustModesThroughTheCallback) {
    const std::string selfSigned = ReadFileOrEmpty(TestCertPath("selfsigned.pem"));
    const std::string other = ReadFileOrEmpty(TestCertPath("server.pem"));
    ASSERT_FALSE(selfSigned.empty());
    const std::string kDifferent =
        "The server certificate for the secondary connection is different than the (trusted) "
        "server certificate used for the primary connection.  The server certificate for the "
        "secondary connection is not trusted.";
    const struct {
        HTTP_CERT_TRUST_MODE mode;
        const char* cert;
        std::string primary;
        uint32_t verdict;  // logged when it rejects; 0: accepted
    } cases[] = {
        // clang-format off
        {HTTP_CERT_TRUST_STRICT, "untrusted", "", 0xFE210010},
        {HTTP_CERT_TRUST_SAME_AS_PRIMARY, "selfsigned", selfSigned, 0},
        {HTTP_CERT_TRUST_SAME_AS_PRIMARY, "selfsigned", "", 0xFE210012},
        {HTTP_CERT_TRUST_SAME_AS_PRIMARY, "selfsigned", other, 0xFE210012},
        {HTTP_CERT_TRUST_SECONDARY_ANY, "expired", other, 0},
        {HTTP_CERT_TRUST_ACCEPT_UNTRUSTED, "wrongname", "", 0},
        {HTTP_CERT_TRUST_NO_CHECK, "untrusted", "", 0},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cert) + " in mode " + std::to_string(c.mode));
        FeedbackServer server(c.cert);
        ASSERT_TRUE(server.Route());
        ClearCapturedLogs();
        auto uploader = MakeUploader();
        long rc = 0;
        CHttpSessionCurl session(rc, kUrl, "", {}, "", "", "", "Pathweave", 443, true, true, c.mode,
                                 c.primary, uploader.get(), &CFileUploader::ServerCertVerifyCB,
                                 16384, nullptr, nullptr);
        ASSERT_EQ(0, session.OpenRequest("", 15, 0, HTTP_METHOD_POST));
        unsigned int status = 0;
        EXPECT_EQ(c.verdict ? PwResult(0xFE450017) : 0,
                  session.SendRequest(status, HTTP_BODY_FORM, "data=", 5, 0));
        session.CloseRequest();
        EXPECT_EQ(c.verdict ? 0u : 1u, server.RequestCount());
        std::vector<LogRecord> verify = Failures("CFileUploader::ServerCertVerify");
        ASSERT_EQ(c.verdict ? 1u : 0u, verify.size()) << DumpLog();
        EXPECT_TRUE(verify.empty() || PwResultEquals(verify[0].result, c.verdict));
        EXPECT_EQ(c.verdict && c.mode != HTTP_CERT_TRUST_STRICT ? 1u : 0u,
                  CountLogText(kDifferent));
    }
}

TEST_F(FileUploaderTest, CallbackWithoutParametersCannotVerify) {
    auto uploader = MakeUploader();
    int notAStore = 0;
    const x509_store_ctx_st* fakeStore = reinterpret_cast<const x509_store_ctx_st*>(&notAStore);
    EXPECT_EQ(PwResult(0xFE870002), CFileUploader::ServerCertVerifyCB(
                                        nullptr, fakeStore, HTTP_CERT_TRUST_STRICT, "h", ""));
    EXPECT_EQ(PwResult(0xFE870002), CFileUploader::ServerCertVerifyCB(
                                        uploader.get(), nullptr, HTTP_CERT_TRUST_STRICT, "h", ""));
    EXPECT_EQ(2u,
              CountLogText("Unable to verify server certificate due to invalid NULL parameters."));
    // No store and no server name: not verifiable.
    EXPECT_EQ(PwResult(0xFE870002),
              uploader->ServerCertVerify(fakeStore, HTTP_CERT_TRUST_STRICT, "", ""));
    EXPECT_EQ(1u,
              CountLogText("The server certificate for the secondary connection is not trusted."));
}

}  // namespace
}  // namespace pwtest
