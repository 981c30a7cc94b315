// The host's HTTPS session, certificate helper and process-owner lookup, against the local
// feedback server reached under the production host name.
#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include "CertHelper.h"
#include "FeedbackServer.h"
#include "HostSettings.h"
#include "HttpSessionCurl.h"
#include "UnixImpersonate.h"

namespace pwtest {
namespace {

const char kUrl[] = "https://feedback.pathweave.example/cef/upload";
typedef std::chrono::steady_clock Clock;

struct SessionSetup {
    HTTP_CERT_TRUST_MODE mode = HTTP_CERT_TRUST_STRICT;
    HTTP_SERVER_CERT_VERIFY_CB callback = nullptr;
    unsigned int capacity = 16384;
    std::list<std::string> extraHeaders;
};

// A session for kUrl as the setup says, whose construction must give `expected`.
std::unique_ptr<CHttpSessionCurl> MakeSession(const SessionSetup& setup = {}, long expected = 0) {
    long rc = -1;
    std::unique_ptr<CHttpSessionCurl> session(new CHttpSessionCurl(
        rc, kUrl, "", setup.extraHeaders, "", "", "", "TestAgent", 443, true, true, setup.mode, "",
        nullptr, setup.callback, setup.capacity, nullptr, nullptr));
    EXPECT_EQ(expected, rc);
    return session;
}

struct Outcome {
    long rc = -1;
    unsigned int status = 0;
    std::string reply;
};

// One POST on `session`: open, flags, send, read the whole kept reply, close.
Outcome Post(CHttpSessionCurl& session, const std::string& body,
             unsigned int flags = HTTP_REQUEST_FAIL_ON_ERROR_STATUS,
             unsigned int requestTimeoutSeconds = 0) {
    Outcome out;
    EXPECT_EQ(0, session.OpenRequest("", 15, requestTimeoutSeconds, HTTP_METHOD_POST));
    session.SetRequestFlags(flags);
    out.rc = session.SendRequest(out.status, HTTP_BODY_FORM, body.data(),
                                 static_cast<unsigned int>(body.size()), 0);
    char buffer[1000];
    unsigned int count = 0;
    while (session.ReadFile(buffer, sizeof buffer, count) == 0 && count > 0) {
        out.reply.append(buffer, count);
    }
    session.CloseRequest();
    return out;
}

void SetRequestTimeoutMs(unsigned int milliseconds) {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.requestTimeoutMs = milliseconds;
    pwhost::ApplyHostSettings(settings);
}

class HttpSessionTest : public HostFixture {
protected:
    void TearDown() override {
        ClearRoute();
        SetRequestTimeoutMs(pwhost::HostSettings().requestTimeoutMs);
        HostFixture::TearDown();
    }
};

TEST_F(HttpSessionTest, PostsBodyAndHeadersExactly) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    SessionSetup setup;
    setup.extraHeaders = {"X-Extra: one"};
    auto session = MakeSession(setup);
    ASSERT_EQ(0, session->OpenRequest("/other/path?x=1", 15, 0, HTTP_METHOD_POST));
    ASSERT_EQ(0, session->AddRequestHeader("Zip", "True"));
    std::string body("data=\0\x01\xff tail", 12);
    unsigned int status = 0;
    ASSERT_EQ(0, session->SendRequest(status, HTTP_BODY_FORM, body.data(),
                                      static_cast<unsigned int>(body.size()), 0));
    EXPECT_EQ(200u, status);
    session->CloseRequest();

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(1u, requests.size());
    const RecordedRequest& r = requests[0];
    EXPECT_EQ("POST /other/path?x=1", r.method + " " + r.path);  // relative to the server URL
    EXPECT_EQ(body, r.body);
    EXPECT_EQ("application/x-www-form-urlencoded", r.Header("Content-Type"));
    EXPECT_EQ("TestAgent|one|True",
              r.Header("User-Agent") + "|" + r.Header("X-Extra") + "|" + r.Header("Zip"));
    EXPECT_FALSE(r.HasHeader("Expect"));
    EXPECT_EQ(kFeedbackServerName, r.Header("Host"));  // the production name, port 443 implied
}

// Replies of every shape: what SendRequest returns and what ReadFile yields (the end-to-end
// test covers broken transfers).
TEST_F(HttpSessionTest, ReplyShapes) {
    const unsigned int kFail = HTTP_REQUEST_FAIL_ON_ERROR_STATUS;
    // clang-format off
    const struct {
        const char* control;
        unsigned int flags, capacity;
        long rc;
        unsigned int status;
        size_t replySize;
    } cases[] = {
        {"mode=ok\nreply=hello",      kFail, 16384, 0,                          200, 5},
        {"mode=error",                 kFail, 16384, pwresult::kHttpStatusNotOk, 500, 2},
        {"mode=error",                 0,     16384, 0,                          500, 2},
        {"mode=ok\nreply_size=20000",  kFail, 16384, 0,                          200, 16384},
        {"mode=ok\nreply_size=100",    kFail, 10,    0,                          200, 10},
        {"mode=nobody",                kFail, 16384, 0,                          200, 0},
        {"mode=garbage",               kFail, 16384, pwresult::kHttpBadReply,    0,   0},
    };
    // clang-format on
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.control);
        server.SetControl(c.control);
        SessionSetup setup;
        setup.capacity = c.capacity;
        Outcome out = Post(*MakeSession(setup), "data=b", c.flags);
        EXPECT_EQ(c.rc, out.rc);
        EXPECT_EQ(c.status, out.status);
        EXPECT_EQ(c.replySize, out.reply.size());
    }
}

TEST_F(HttpSessionTest, MisuseIsRefused) {
    SessionSetup setup;
    setup.capacity = 0;
    MakeSession(setup, pwresult::kHttpInvalidArgument);
    auto session = MakeSession();
    unsigned int status = 7;
    EXPECT_EQ(pwresult::kHttpInvalidState, session->SendRequest(status, HTTP_BODY_FORM, "x", 1, 0));
    EXPECT_EQ(0u, status);
    EXPECT_EQ(pwresult::kHttpBadUrl, session->OpenRequest("https://", 15, 0, HTTP_METHOD_POST));
    ASSERT_EQ(0, session->OpenRequest("", 15, 0, HTTP_METHOD_POST));
    EXPECT_EQ(pwresult::kHttpInvalidState, session->OpenRequest("", 15, 0, HTTP_METHOD_POST));
    EXPECT_EQ(pwresult::kHttpInvalidArgument, session->AddRequestHeader("X", "a\r\nInjected: 1"));
    EXPECT_EQ(pwresult::kHttpInvalidArgument, session->SendRequest(status, 9, "x", 1, 0));
    session->CloseRequest();
}

// The host's request deadline ends a request that the server never answers, whether or
// not the request has a longer limit of its own.
TEST_F(HttpSessionTest, RequestDeadlineFromTheHostSettings) {
    FeedbackServer server("server", "stall");
    ASSERT_TRUE(server.Route());
    SetRequestTimeoutMs(500);
    for (unsigned int ownLimit : {0u, 60u}) {
        Clock::time_point start = Clock::now();
        EXPECT_EQ(pwresult::kHttpTimedOut, Post(*MakeSession(), "data=d", 0, ownLimit).rc);
        // Far below the low-speed guard's 60 s, which would give the same code.
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
    }
    EXPECT_EQ(2u, server.RequestCount());
}

// Strict sessions of one thread reuse the kept-alive connection; sessions under another
// trust rule never inherit it.
TEST_F(HttpSessionTest, ConnectionReuseFollowsTrustRule) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    SessionSetup lenient;
    lenient.mode = HTTP_CERT_TRUST_NO_CHECK;
    lenient.callback = [](void*, const x509_store_ctx_st*, HTTP_CERT_TRUST_MODE, const std::string&,
                          const std::string&) -> long { return 0; };
    for (const SessionSetup& setup : {SessionSetup(), SessionSetup(), lenient, SessionSetup()}) {
        ASSERT_EQ(0, Post(*MakeSession(setup), "data=r").rc);
    }
    std::vector<RecordedRequest> r = server.Requests();
    ASSERT_EQ(4u, r.size());
    EXPECT_EQ(r[0].peer, r[1].peer);
    EXPECT_NE(r[1].peer, r[2].peer);
    EXPECT_EQ(r[1].peer, r[3].peer);
}

// Strict checking without a callback: each bad certificate gives its own verdict.
TEST_F(HttpSessionTest, BuiltInCheckRejectsBadCertificates) {
    // clang-format off
    const struct {
        const char* cert;
        long verdict;
    } cases[] = {
        {"server",     0},
        {"wrongname",  pwresult::kCertNameMismatch},
        {"expired",    pwresult::kCertExpired},
        {"untrusted",  pwresult::kCertUntrustedRoot},
        {"selfsigned", pwresult::kCertSelfSigned},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cert);
        FeedbackServer server(c.cert);
        ASSERT_TRUE(server.Route());
        ClearCapturedLogs();
        EXPECT_EQ(c.verdict == 0 ? 0 : pwresult::kHttpSecureChannel,
                  Post(*MakeSession(), "data=c").rc);
        bool verdictLogged = false;
        for (const LogRecord& record : CapturedLogs()) {
            verdictLogged |= record.hasResult && record.result == c.verdict;
        }
        EXPECT_EQ(c.verdict != 0, verdictLogged) << DumpLog();
        EXPECT_EQ(c.verdict == 0 ? 1u : 0u, server.RequestCount());
    }
}

// The process owner's name, and a helper without its configured or with no trust anchors.
TEST_F(HttpSessionTest, ProcessOwnerAndMissingTrustAnchors) {
    std::string user;
    ASSERT_EQ(0, CUnixImpersonate::GetUsernameOwningProcess(getpid(), user));
    EXPECT_EQ(getpwuid(getuid())->pw_name, user);
    EXPECT_EQ(pwresult::kNoSuchProcess,
              CUnixImpersonate::GetUsernameOwningProcess(0x7FFFFFF0u, user));
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile = TestCertPath("missing.pem");
    pwhost::ApplyHostSettings(settings);
    long rc = 0, none = 0;
    CCertHelper helper(rc, 0xFFFFFFFFu, ""), noAnchors(none, 0, "");
    EXPECT_EQ(pwresult::kCertStoreLoadFailed, rc);
    EXPECT_EQ(pwresult::kCertStoreLoadFailed, none);
}

}  // namespace
}  // namespace pwtest
