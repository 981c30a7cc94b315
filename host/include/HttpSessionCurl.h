// HTTPS client session.
//
// One session owns one libcurl transfer and serves one request at a time: OpenRequest,
// optional AddRequestHeader and SetRequestFlags, SendRequest (which also receives the
// reply), ReadFile as often as wanted, CloseRequest. TLS is OpenSSL's. During every
// handshake the session hands the server's X509_STORE_CTX to its certificate callback and
// the callback's verdict is final (0 accepts); without a callback the chain and the host
// name are checked by CCertHelper against the host's trust anchors.
//
// Routing, trust and the longest time a request may take come from the host settings read
// when the session is constructed: the CA file, the connect-to mapping and request_timeout
// (HostSettings.h; counted in real time, whatever the host clock's scale). No proxy is used unless
// one is given; proxy variables of the environment are ignored.
//
// Sessions constructed with `shareCaches` share DNS answers process-wide, and - among
// sessions on the same thread with strict trust, the same certificate callback and the same
// trust anchors - kept-alive connections and TLS sessions: a reused connection or resumed
// TLS session was verified under the same rule, so the verdict would not differ.
//
// Threads: a session is used by one thread at a time, except CloseRequest, which may be
// called from any thread while the session exists. Called on another thread while a
// request runs there, it aborts the transfer in whatever phase it is (resolving,
// connecting, TLS handshake, sending, waiting for or receiving the reply: the blocked
// SendRequest returns kHttpRequestClosed within milliseconds), and a send of that request
// that has not started yet fails the same way, until the thread that opened the request
// closes it. A reply received before the close stays readable.
#pragma once

#include <memory>
#include <cstdint>
#include <list>
#include <string>

#include "ResultCodes.h"

struct x509_store_ctx_st;  // OpenSSL's X509_STORE_CTX

// How a certificate callback treats a certificate that the trust anchors do not vouch for.
enum HTTP_CERT_TRUST_MODE {
    HTTP_CERT_TRUST_STRICT = 0,            // reject it
    HTTP_CERT_TRUST_SAME_AS_PRIMARY = 1,   // accept it only if it is the primary certificate
    HTTP_CERT_TRUST_SECONDARY_ANY = 2,     // accept it on a secondary connection
    HTTP_CERT_TRUST_ACCEPT_UNTRUSTED = 3,  // accept it after the check (logged only)
    HTTP_CERT_TRUST_NO_CHECK = 4,          // accept every certificate without checking
};

// Verdict on a server certificate: 0 accepts, any other value rejects the handshake.
// `store` holds the chain the server presented; `serverName` is the host name of the
// request's URL; `primaryCertificate` is the session's primary certificate text (PEM).
typedef long (*HTTP_SERVER_CERT_VERIFY_CB)(void* context, const x509_store_ctx_st* store,
                                           HTTP_CERT_TRUST_MODE mode, const std::string& serverName,
                                           const std::string& primaryCertificate);

// Transfer progress; returning false aborts the transfer (SendRequest then fails with
// kHttpRequestClosed). Runs on the sending thread.
typedef bool (*HTTP_PROGRESS_CB)(void* context, uint64_t bytesSent, uint64_t bytesToSend,
                                 uint64_t bytesReceived);

enum HTTP_REQUEST_METHOD {
    HTTP_METHOD_GET = 0,
    HTTP_METHOD_POST = 1,
};

// SetRequestFlags bits.
enum : unsigned int {
    // A reply status outside 200-299 fails SendRequest with kHttpStatusNotOk.
    HTTP_REQUEST_FAIL_ON_ERROR_STATUS = 1u << 0,
};

// SendRequest body kinds (the Content-Type of the body).
enum : unsigned int {
    HTTP_BODY_OCTET_STREAM = 0,  // application/octet-stream
    HTTP_BODY_FORM = 1,          // application/x-www-form-urlencoded
};

namespace pwresult {
constexpr long kHttpInvalidArgument = PwResult(0xFE450001);
constexpr long kHttpInitFailed = PwResult(0xFE450002);    // libcurl could not be set up
constexpr long kHttpInvalidState = PwResult(0xFE450003);  // no request open, or one is
constexpr long kHttpBadUrl = PwResult(0xFE450004);        // malformed or not allowed
constexpr long kHttpResolveFailed = PwResult(0xFE450010);
constexpr long kHttpConnectFailed = PwResult(0xFE450011);
constexpr long kHttpTimedOut = PwResult(0xFE450012);  // a time limit or the low-speed guard
constexpr long kHttpSendFailed = PwResult(0xFE450013);
constexpr long kHttpReceiveFailed = PwResult(0xFE450014);   // also: connection closed early
constexpr long kHttpStatusNotOk = PwResult(0xFE450015);     // status word = the HTTP status
constexpr long kHttpBadReply = PwResult(0xFE450016);        // not an HTTP reply
constexpr long kHttpSecureChannel = PwResult(0xFE450017);   // TLS failed or cert rejected
constexpr long kHttpRequestClosed = PwResult(0xFE45001C);   // closed (aborted) by the caller
constexpr long kHttpTransferFailed = PwResult(0xFE45001F);  // any other transfer failure
}  // namespace pwresult

class CHttpSessionCurl {
public:
    // `serverUrl`: base URL that OpenRequest resolves relative URLs against.
    // `proxyUrl`: proxy to use, empty for a direct connection.
    // `extraHeaders`: "Name: value" lines sent with every request.
    // `clientCertFile`, `clientKeyFile`, `clientKeyPassword`: TLS client authentication (PEM
    //     files), each empty when not used.
    // `userAgent`: the User-Agent text.
    // `port`: server port for URLs without one (0: the scheme's default).
    // `shareCaches`: share DNS, connections and TLS sessions as described above.
    // `httpsOnly`: refuse URLs other than https.
    // `trustMode`, `primaryCertificate`, `certContext`, `certCallback`: handed to the
    //     certificate callback at each handshake (callback null: strict built-in check).
    // `replyCapacity`: bytes of each reply body that are kept (the rest is read and
    //     dropped), at least 1.
    // `progressCallback`, `progressContext`: optional progress callback.
    // `result` receives 0, kHttpInvalidArgument or kHttpInitFailed.
    CHttpSessionCurl(long& result, const std::string& serverUrl, const std::string& proxyUrl,
                     const std::list<std::string>& extraHeaders, const std::string& clientCertFile,
                     const std::string& clientKeyFile, const std::string& clientKeyPassword,
                     const std::string& userAgent, unsigned short port, bool shareCaches,
                     bool httpsOnly, HTTP_CERT_TRUST_MODE trustMode,
                     const std::string& primaryCertificate, void* certContext,
                     HTTP_SERVER_CERT_VERIFY_CB certCallback, unsigned int replyCapacity,
                     HTTP_PROGRESS_CB progressCallback, void* progressContext);
    virtual ~CHttpSessionCurl();

    // Starts a request for `url` (absolute, or relative to the server URL). The connection
    // must be made within `connectTimeoutSeconds` (0: libcurl's default), the whole
    // request within `requestTimeoutSeconds` (0: no limit of its own) and never later than
    // the host's request_timeout; past either, SendRequest fails with kHttpTimedOut. The
    // low-speed guard applies as well. kHttpInvalidState if a request is open, kHttpBadUrl
    // for a bad URL.
    virtual long OpenRequest(const std::string& url, unsigned int connectTimeoutSeconds,
                             unsigned int requestTimeoutSeconds, HTTP_REQUEST_METHOD method);
    // Ends the request (see the thread rules above). No-op without an open request.
    virtual void CloseRequest();
    // Adds a header to the open request. kHttpInvalidArgument for a name that is not an
    // HTTP token or a value with a line break.
    virtual long AddRequestHeader(const std::string& name, const std::string& value);
    // Sets HTTP_REQUEST_* flags for the open request (replacing earlier ones).
    virtual long SetRequestFlags(unsigned int flags);
    // Sends the request with `length` bytes of `data` as its body (POST; ignored for GET)
    // and receives the reply. `httpStatus` receives the reply's status, 0 when none came.
    // `bodyKind` is an HTTP_BODY_* value; `sendFlags` must be 0. The data must stay valid
    // during the call; nothing is copied. One send per request.
    virtual long SendRequest(unsigned int& httpStatus, unsigned int bodyKind, const char* data,
                             unsigned int length, unsigned int sendFlags);
    // Copies up to `capacity` further bytes of the kept reply body into `buffer`; `count`
    // receives the number copied (0 at the end). kHttpInvalidState before a send.
    virtual long ReadFile(char* buffer, unsigned int capacity, unsigned int& count);

    // Process-wide low-speed guard applied to requests opened from now on: a transfer that
    // moves fewer than `bytesPerSecond` for `seconds` in a row is aborted with
    // kHttpTimedOut. Defaults: 16 bytes/s for 60 s. For hosts and tests.
    static void SetLowSpeedGuard(unsigned int bytesPerSecond, unsigned int seconds);

    CHttpSessionCurl(const CHttpSessionCurl&) = delete;
    CHttpSessionCurl& operator=(const CHttpSessionCurl&) = delete;

private:
    struct Impl;
    friend struct Impl;
    // Owned; a unique_ptr so that a constructor that fails part-way frees it.
    std::unique_ptr<Impl> m_pImpl;
};
