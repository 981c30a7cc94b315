// The host's HTTPS session, certificate helper and process-owner lookup, against the local
// feedback server reached under the production host name.
#include <pwd.h>
#include <unistd.h>

#include <atomic>
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

struct SessionSetup {
    HTTP_CERT_TRUST_MODE mode = HTTP_CERT_TRUST_STRICT;
    HTTP_SERVER_CERT_VERIFY_CB callback = nullptr;
    void* context = nullptr;
    std::string primary;
    unsigned int capacity = 16384;
    std::list<std::string> extraHeaders;
    std::string serverUrl = kUrl;
};

// A session for kUrl as the setup says; its construction result goes to `*rc` when given,
// and must be 0 otherwise.
std::unique_ptr<CHttpSessionCurl> MakeSession(const SessionSetup& setup = {}, long* rc = nullptr) {
    long result = 0;
    std::unique_ptr<CHttpSessionCurl> session(
        new CHttpSessionCurl(result, setup.serverUrl, "", setup.extraHeaders, "", "", "",
                             "TestAgent", 443, true, true, setup.mode, setup.primary, setup.context,
                             setup.callback, setup.capacity, nullptr, nullptr));
    if (rc != nullptr) {
        *rc = result;
    } else {
        EXPECT_EQ(0, result);
    }
    return session;
}

struct Outcome {
    long rc = -1;
    unsigned int status = 0;
    std::string reply;
};

// One POST on `session`: open, flags, send, read the whole kept reply, close.
Outcome Post(CHttpSessionCurl& session, const std::string& body,
             unsigned int flags = HTTP_REQUEST_FAIL_ON_ERROR_STATUS, const std::string& url = "") {
    Outcome out;
    out.rc = session.OpenRequest(url, 15, 0, HTTP_METHOD_POST);
    if (out.rc != 0) {
        return out;
    }
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

class HttpSessionTest : public HostFixture {
protected:
    void TearDown() override {
        ClearRoute();
        CHttpSessionCurl::SetLowSpeedGuard(16, 60);
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
    EXPECT_EQ("POST", r.method);
    EXPECT_EQ("/other/path?x=1", r.path);  // relative to the server URL
    EXPECT_EQ(body, r.body);
    EXPECT_EQ("application/x-www-form-urlencoded", r.Header("Content-Type"));
    EXPECT_EQ("TestAgent", r.Header("User-Agent"));
    EXPECT_EQ("one", r.Header("X-Extra"));
    EXPECT_EQ("True", r.Header("Zip"));
    EXPECT_FALSE(r.HasHeader("Expect"));
    EXPECT_EQ(kFeedbackServerName, r.Header("Host"));  // the production name, port 443 implied
}

// Replies of every shape: what SendRequest returns and what ReadFile yields.
TEST_F(HttpSessionTest, ReplyShapes) {
    const struct {
        const char* control;
        unsigned int flags;
        unsigned int capacity;
        long rc;
        unsigned int status;
        size_t replySize;
    } cases[] = {
        {"mode=ok\nreply=hello", HTTP_REQUEST_FAIL_ON_ERROR_STATUS, 16384, 0, 200, 5},
        {"mode=error", HTTP_REQUEST_FAIL_ON_ERROR_STATUS, 16384, pwresult::kHttpStatusNotOk, 500,
         2},
        {"mode=error", 0, 16384, 0, 500, 2},  // without the flag a 500 is a reply like any
        {"mode=ok\nreply_size=20000", HTTP_REQUEST_FAIL_ON_ERROR_STATUS, 16384, 0, 200, 16384},
        {"mode=ok\nreply_size=100", HTTP_REQUEST_FAIL_ON_ERROR_STATUS, 10, 0, 200, 10},
        {"mode=http10\nreply=old", HTTP_REQUEST_FAIL_ON_ERROR_STATUS, 16384, 0, 200, 3},
        {"mode=nobody", HTTP_REQUEST_FAIL_ON_ERROR_STATUS, 16384, 0, 200, 0},
        {"mode=garbage", HTTP_REQUEST_FAIL_ON_ERROR_STATUS, 16384, pwresult::kHttpBadReply, 0, 0},
    };
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.control);
        server.SetControl(c.control);
        SessionSetup setup;
        setup.capacity = c.capacity;
        Outcome out = Post(*MakeSession(setup), "data=x", c.flags);
        EXPECT_EQ(c.rc, out.rc);
        EXPECT_EQ(c.status, out.status);
        EXPECT_EQ(c.replySize, out.reply.size());
    }
}

// A server that misbehaves mid-transfer fails the send; nothing hangs.
TEST_F(HttpSessionTest, BrokenTransfersFail) {
    CHttpSessionCurl::SetLowSpeedGuard(100, 1);  // the drip below is cut after a second
    const struct {
        const char* control;
        size_t bodySize;
    } cases[] = {
        {"mode=close", 200000},  // closed while the body is still coming
        {"mode=hugeheaders", 10},
        {"mode=drip\ndrip_seconds=1", 10},
    };
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.control);
        server.SetControl(c.control);
        Outcome out = Post(*MakeSession(), "data=" + std::string(c.bodySize, 'b'));
        EXPECT_NE(0, out.rc);
        EXPECT_FALSE(PwResultEquals(out.rc, 0xFE45001C));
    }
}

TEST_F(HttpSessionTest, MisuseIsRefused) {
    long rc = 0;
    SessionSetup setup;
    setup.capacity = 0;
    MakeSession(setup, &rc);
    EXPECT_EQ(pwresult::kHttpInvalidArgument, rc);
    setup = SessionSetup();
    setup.extraHeaders = {"no colon here"};
    MakeSession(setup, &rc);
    EXPECT_EQ(pwresult::kHttpInvalidArgument, rc);

    auto session = MakeSession();
    unsigned int status = 7;
    EXPECT_EQ(pwresult::kHttpInvalidState, session->SendRequest(status, HTTP_BODY_FORM, "x", 1, 0));
    EXPECT_EQ(0u, status);
    char buffer[4];
    unsigned int count = 0;
    EXPECT_EQ(pwresult::kHttpInvalidState, session->ReadFile(buffer, sizeof buffer, count));
    EXPECT_EQ(pwresult::kHttpBadUrl,
              session->OpenRequest("http://feedback.pathweave.example/", 15, 0, HTTP_METHOD_POST));
    EXPECT_EQ(pwresult::kHttpBadUrl, session->OpenRequest("https://", 15, 0, HTTP_METHOD_POST));
    ASSERT_EQ(0, session->OpenRequest("", 15, 0, HTTP_METHOD_POST));
    EXPECT_EQ(pwresult::kHttpInvalidState, session->OpenRequest("", 15, 0, HTTP_METHOD_POST));
    EXPECT_EQ(pwresult::kHttpInvalidArgument, session->AddRequestHeader("Bad Name", "v"));
    EXPECT_EQ(pwresult::kHttpInvalidArgument, session->AddRequestHeader("X", "a\r\nInjected: 1"));
    EXPECT_EQ(pwresult::kHttpInvalidArgument, session->SetRequestFlags(0x80));
    EXPECT_EQ(pwresult::kHttpInvalidArgument, session->SendRequest(status, 9, "x", 1, 0));
    session->CloseRequest();
}

// Closing from another thread ends a stalled transfer at once; a close that comes before
// the send makes the send fail without contacting the server.
TEST_F(HttpSessionTest, CloseFromAnotherThreadAborts) {
    FeedbackServer server("server", "stall");
    ASSERT_TRUE(server.Route());
    auto session = MakeSession();
    std::thread closer([&] {
        ASSERT_TRUE(server.WaitForRequests(1));
        session->CloseRequest();
    });
    // Only the close ends this transfer: the low-speed guard would give another code.
    EXPECT_EQ(pwresult::kHttpRequestClosed, Post(*session, "data=" + std::string(1 << 20, 's')).rc);
    closer.join();

    server.SetMode("ok");
    ASSERT_EQ(0, session->OpenRequest("", 15, 0, HTTP_METHOD_POST));
    std::thread([&] { session->CloseRequest(); }).join();
    unsigned int status = 0;
    EXPECT_EQ(pwresult::kHttpRequestClosed,
              session->SendRequest(status, HTTP_BODY_FORM, "data=z", 6, 0));
    session->CloseRequest();  // the owner's close ends the request and the cancellation
    EXPECT_EQ(0, Post(*session, "data=after").rc);
    EXPECT_EQ(2u, server.RequestCount());
}

// Strict sessions of one thread reuse the kept-alive connection; sessions under another
// trust rule never inherit it.
TEST_F(HttpSessionTest, ConnectionReuseFollowsTrustRule) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    auto acceptAll = [](void*, const x509_store_ctx_st*, HTTP_CERT_TRUST_MODE, const std::string&,
                        const std::string&) -> long { return 0; };
    SessionSetup lenient;
    lenient.mode = HTTP_CERT_TRUST_NO_CHECK;
    lenient.callback = acceptAll;
    const SessionSetup setups[] = {SessionSetup(), SessionSetup(), lenient, SessionSetup()};
    for (const SessionSetup& setup : setups) {
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
    const struct {
        const char* cert;
        long verdict;
    } cases[] = {
        {"server", 0},
        {"wrongname", pwresult::kCertNameMismatch},
        {"expired", pwresult::kCertExpired},
        {"untrusted", pwresult::kCertUntrustedRoot},
        {"selfsigned", pwresult::kCertSelfSigned},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cert);
        FeedbackServer server(c.cert);
        ASSERT_TRUE(server.Route());
        ClearCapturedLogs();
        Outcome out = Post(*MakeSession(), "data=c");
        EXPECT_EQ(c.verdict == 0 ? 0 : pwresult::kHttpSecureChannel, out.rc) << DumpLog();
        bool verdictLogged = false;
        for (const LogRecord& record : CapturedLogs()) {
            verdictLogged |= record.hasResult && record.result == c.verdict;
        }
        EXPECT_EQ(c.verdict != 0, verdictLogged) << DumpLog();
        EXPECT_EQ(c.verdict == 0 ? 1u : 0u, server.RequestCount());
    }
}

// The callback sees the URL's host name, the mode and the primary certificate, and its
// verdict is final: here it rejects a certificate that the built-in check would accept.
// (Its acceptance of untrusted ones is seen through the uploader's callback.)
TEST_F(HttpSessionTest, CallbackVerdictIsFinal) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    std::string seen;
    SessionSetup setup;
    setup.mode = HTTP_CERT_TRUST_SECONDARY_ANY;
    setup.context = &seen;
    setup.primary = "PRIMARY";
    setup.callback = [](void* context, const x509_store_ctx_st* store, HTTP_CERT_TRUST_MODE mode,
                        const std::string& serverName, const std::string& primary) -> long {
        *static_cast<std::string*>(context) =
            serverName + " " + primary + " " + std::to_string(mode) + (store ? " store" : "");
        return PwResult(0xFE870002);
    };
    EXPECT_EQ(pwresult::kHttpSecureChannel, Post(*MakeSession(setup), "data=v").rc);
    EXPECT_EQ(std::string(kFeedbackServerName) + " PRIMARY " +
                  std::to_string(HTTP_CERT_TRUST_SECONDARY_ANY) + " store",
              seen);
    EXPECT_EQ(0u, server.RequestCount());
}

TEST_F(HttpSessionTest, ProcessOwnerIsTheRealUser) {
    std::string user;
    ASSERT_EQ(
        0, CUnixImpersonate::GetUsernameOwningProcess(static_cast<unsigned int>(getpid()), user));
    struct passwd* entry = getpwuid(getuid());
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(entry->pw_name, user);
    user = "unchanged";
    EXPECT_EQ(pwresult::kNoSuchProcess,
              CUnixImpersonate::GetUsernameOwningProcess(0x7FFFFFF0u, user));
    EXPECT_EQ("unchanged", user);
}

TEST_F(HttpSessionTest, CertHelperNeedsAnchorsAndArguments) {
    pwhost::HostSettings settings = pwhost::CurrentHostSettings();
    settings.caFile = TestCertPath("missing.pem");
    pwhost::ApplyHostSettings(settings);
    long rc = 0;
    { CCertHelper helper(rc, 0xFFFFFFFFu, ""); }
    EXPECT_EQ(pwresult::kCertStoreLoadFailed, rc);
    { CCertHelper helper(rc, 0, ""); }
    EXPECT_EQ(pwresult::kCertStoreLoadFailed, rc);
    CCertHelper helper(rc, CCertHelper::kStoreSystem, "");
    ASSERT_EQ(0, rc);
    std::string text;
    unsigned int error = 0;
    EXPECT_EQ(pwresult::kCertInvalidArgument,
              helper.VerifyServerCertificate(nullptr, CERT_CONTEXT_SSL_SERVER, "x", text, error,
                                             CERT_REVOCATION_NONE, false));
}

}  // namespace
}  // namespace pwtest
