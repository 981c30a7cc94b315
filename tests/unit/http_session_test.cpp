// The host's HTTPS session, certificate helper and process-owner lookup, against the local
// feedback server reached under the production host name.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
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

// A session for kUrl as the setup says; its construction result goes to `rc`.
std::unique_ptr<CHttpSessionCurl> MakeSession(const SessionSetup& setup, long& rc) {
    return std::unique_ptr<CHttpSessionCurl>(new CHttpSessionCurl(
        rc, kUrl, "", setup.extraHeaders, "", "", "", "TestAgent", 443, true, true, setup.mode, "",
        nullptr, setup.callback, setup.capacity, nullptr, nullptr));
}

std::unique_ptr<CHttpSessionCurl> MakeSession(const SessionSetup& setup = {}) {
    long rc = -1;
    auto session = MakeSession(setup, rc);
    EXPECT_EQ(0, rc);
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

// A local TCP listener, routed to, that never answers; with `full` its accept queue is
// filled first, so that the session's connection attempt stays unanswered.
struct SilentListener {
    explicit SilentListener(bool full) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        sockaddr* any = reinterpret_cast<sockaddr*>(&address);
        EXPECT_TRUE(bind(fd, any, size) == 0 && listen(fd, 0) == 0 &&
                    getsockname(fd, any, &size) == 0 && (!full || connect(filler, any, size) == 0));
        pwhost::HostSettings settings = pwhost::CurrentHostSettings();
        settings.connectTo = std::string(kFeedbackServerName) +
                             ":443:127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        pwhost::ApplyHostSettings(settings);
    }
    ~SilentListener() {
        close(accepted);
        close(filler);
        close(fd);
    }
    // Accepts the session's connection and waits for its first handshake bytes.
    void WaitForHello() {
        pollfd readable = {accepted = accept(fd, nullptr, nullptr), POLLIN, 0};
        EXPECT_EQ(1, poll(&readable, 1, 5000));
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int filler = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int accepted = -1;
};

class HttpSessionTest : public HostFixture {
protected:
    void TearDown() override {
        ClearRoute();
        SetRequestTimeoutMs(pwhost::HostSettings().requestTimeoutMs);
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
    EXPECT_EQ("POST /other/path?x=1", r.method + " " + r.path);  // relative to the server URL
    EXPECT_EQ(body, r.body);
    EXPECT_EQ("application/x-www-form-urlencoded", r.Header("Content-Type"));
    EXPECT_EQ("TestAgent|one|True",
              r.Header("User-Agent") + "|" + r.Header("X-Extra") + "|" + r.Header("Zip"));
    EXPECT_FALSE(r.HasHeader("Expect"));
    EXPECT_EQ(kFeedbackServerName, r.Header("Host"));  // the production name, port 443 implied
}

// Replies of every shape: what SendRequest returns and what ReadFile yields. A broken
// transfer (kBroken) fails with any code but the one of a close.
TEST_F(HttpSessionTest, ReplyShapes) {
    const long kBroken = 1;
    const unsigned int kFail = HTTP_REQUEST_FAIL_ON_ERROR_STATUS;
    CHttpSessionCurl::SetLowSpeedGuard(100, 1);  // the drip below is cut after a second
    // clang-format off
    const struct {
        const char* control;
        unsigned int flags, capacity;
        long rc;
        unsigned int status;
        size_t replySize;
        bool bigBody;
    } cases[] = {
        {"mode=ok\nreply=hello",         kFail, 16384, 0,                          200, 5, false},
        {"mode=error",                   kFail, 16384, pwresult::kHttpStatusNotOk, 500, 2, false},
        {"mode=error",                   0,     16384, 0,                          500, 2, false},
        {"mode=ok\nreply_size=20000",    kFail, 16384, 0,                          200, 16384, false},
        {"mode=ok\nreply_size=100",      kFail, 10,    0,                          200, 10, false},
        {"mode=http10\nreply=old",       kFail, 16384, 0,                          200, 3, false},
        {"mode=nobody",                  kFail, 16384, 0,                          200, 0, false},
        {"mode=garbage",                 kFail, 16384, pwresult::kHttpBadReply,    0,   0, false},
        {"mode=close",                   kFail, 16384, kBroken,                    0,   0, true},
        {"mode=hugeheaders",             kFail, 16384, kBroken,                    0,   0, false},
        {"mode=drip\ndrip_seconds=1",    kFail, 16384, kBroken,                    0,   0, false},
    };
    // clang-format on
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.control);
        server.SetControl(c.control);
        SessionSetup setup;
        setup.capacity = c.capacity;
        Outcome out =
            Post(*MakeSession(setup), "data=" + std::string(c.bigBody ? 200000 : 1, 'b'), c.flags);
        if (c.rc == kBroken) {
            EXPECT_NE(0, out.rc);
            EXPECT_NE(pwresult::kHttpRequestClosed, out.rc);
            continue;
        }
        EXPECT_EQ(c.rc, out.rc);
        EXPECT_EQ(c.status, out.status);
        EXPECT_EQ(c.replySize, out.reply.size());
    }
}

TEST_F(HttpSessionTest, MisuseIsRefused) {
    long rc = 0;
    SessionSetup setup;
    setup.capacity = 0;
    MakeSession(setup, rc);
    EXPECT_EQ(pwresult::kHttpInvalidArgument, rc);
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

// A close from another thread ends a stalled request at once in every phase it can stall
// in; a close before the send fails the send without contacting the server.
TEST_F(HttpSessionTest, CloseFromAnotherThreadEndsEveryPhase) {
    FeedbackServer server("server", "stall");
    // clang-format off
    const struct {
        const char* phase;
        const char* control;  // null: a silent listener instead of the server
        bool full;
    } cases[] = {
        {"connecting", nullptr,                     true},
        {"handshake",  nullptr,                     false},
        {"waiting",    "mode=stall",                false},
        {"receiving",  "mode=drip\ndrip_seconds=30", false},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.phase);
        std::unique_ptr<SilentListener> listener;
        if (c.control != nullptr) {
            server.SetControl(c.control);
            ASSERT_TRUE(server.Route());
        } else {
            listener.reset(new SilentListener(c.full));
        }
        auto session = MakeSession();
        const size_t seen = server.RequestCount();
        Clock::time_point closed;
        std::thread closer([&] {
            if (c.control != nullptr) {
                EXPECT_TRUE(server.WaitForRequests(seen + 1));
            } else if (c.full) {
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
            } else {
                listener->WaitForHello();
            }
            closed = Clock::now();
            session->CloseRequest();
        });
        EXPECT_EQ(pwresult::kHttpRequestClosed, Post(*session, "data=s").rc);
        Clock::time_point returned = Clock::now();
        closer.join();
        auto latency = std::chrono::duration_cast<std::chrono::microseconds>(returned - closed);
        printf("close while %s: returned after %.1f ms\n", c.phase, latency.count() / 1000.0);
        EXPECT_LT(latency, std::chrono::seconds(2));
    }

    server.SetMode("ok");
    ASSERT_TRUE(server.Route());
    auto session = MakeSession();
    ASSERT_EQ(0, session->OpenRequest("", 15, 0, HTTP_METHOD_POST));
    std::thread([&] { session->CloseRequest(); }).join();
    const size_t before = server.RequestCount();
    unsigned int status = 0;
    EXPECT_EQ(pwresult::kHttpRequestClosed,
              session->SendRequest(status, HTTP_BODY_FORM, "data=z", 6, 0));
    session->CloseRequest();  // the owner's close ends the request and the cancellation
    EXPECT_EQ(0, Post(*session, "data=after").rc);
    EXPECT_EQ(before + 1, server.RequestCount());
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
