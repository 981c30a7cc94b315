// HTTPS client session on libcurl (multi interface, one easy handle) and OpenSSL.
//
// The transfer runs in curl_multi_poll() so that CloseRequest() from another thread can
// wake it with curl_multi_wakeup() and end it at once, however stalled the server is.
// Server certificates are judged by the session's callback alone: libcurl's own peer and
// host checks are off, and the SSL_CTX hook installs a verify callback that fails the
// handshake unless the session's callback accepts the chain.
#include "HttpSessionCurl.h"

#include <openssl/ssl.h>

#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "CertHelper.h"
#include "CurlSupport.h"
#include "HostLogInternal.h"
#include "HostSettings.h"
#include "TestControlInternal.h"

namespace {

const char kLogSource[] = "host/src/HttpSessionCurl";

std::atomic<unsigned int> g_lowSpeedBytesPerSecond{16};
std::atomic<unsigned int> g_lowSpeedSeconds{60};

// RFC 7230 token characters.
bool IsHeaderName(const std::string& name) {
    if (name.empty()) {
        return false;
    }
    for (char c : name) {
        unsigned char u = static_cast<unsigned char>(c);
        if (!(isalnum(u) || strchr("!#$%&'*+-.^_`|~", c) != nullptr) || c == '\0') {
            return false;
        }
    }
    return true;
}

bool HasLineBreakOrNul(const std::string& text) {
    return text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos;
}

// "Name: value" with a valid name and no line break.
bool IsHeaderLine(const std::string& line) {
    size_t colon = line.find(':');
    return colon != std::string::npos && IsHeaderName(line.substr(0, colon)) &&
           !HasLineBreakOrNul(line);
}

long MapCurlResult(CURLcode rc) {
    switch (rc) {
        case CURLE_OK:
            return 0;
        case CURLE_ABORTED_BY_CALLBACK:
            return pwresult::kHttpRequestClosed;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return pwresult::kHttpResolveFailed;
        case CURLE_COULDNT_CONNECT:
            return pwresult::kHttpConnectFailed;
        case CURLE_OPERATION_TIMEDOUT:
            return pwresult::kHttpTimedOut;
        case CURLE_SEND_ERROR:
            return pwresult::kHttpSendFailed;
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
            return pwresult::kHttpReceiveFailed;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_UNSUPPORTED_PROTOCOL:  // during a transfer: an HTTP/0.9 (non-HTTP) reply
        case CURLE_BAD_CONTENT_ENCODING:
            return pwresult::kHttpBadReply;
        case CURLE_URL_MALFORMAT:
            return pwresult::kHttpBadUrl;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_USE_SSL_FAILED:
            return pwresult::kHttpSecureChannel;
        default:
            return pwresult::kHttpTransferFailed;
    }
}

bool UrlPart(CURLU* url, CURLUPart part, std::string& value) {
    char* text = nullptr;
    CURLUcode rc = curl_url_get(url, part, &text, 0);
    if (rc != CURLUE_OK) {
        return false;
    }
    value = text;
    curl_free(text);
    return true;
}

std::string Lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// The built-in check used when a session has no certificate callback: strict trust.
long VerifyStrict(const X509_STORE_CTX* store, const std::string& serverName) {
    long rc = 0;
    CCertHelper helper(rc, 0xFFFFFFFFu, std::string());
    if (rc != 0) {
        return rc;
    }
    std::string certificateText;
    unsigned int verifyError = 0;
    return helper.VerifyServerCertificate(store, CERT_CONTEXT_SSL_SERVER, serverName.c_str(),
                                          certificateText, verifyError, CERT_REVOCATION_IF_KNOWN,
                                          false);
}

}  // namespace

struct CHttpSessionCurl::Impl {
    // Construction settings.
    std::string serverUrl;
    std::string proxyUrl;
    std::vector<std::string> extraHeaders;
    std::string userAgent;
    unsigned short port = 0;
    bool shareCaches = false;
    bool httpsOnly = true;
    HTTP_CERT_TRUST_MODE trustMode = HTTP_CERT_TRUST_STRICT;
    std::string primaryCertificate;
    void* certContext = nullptr;
    HTTP_SERVER_CERT_VERIFY_CB certCallback = nullptr;
    unsigned int replyCapacity = 0;
    HTTP_PROGRESS_CB progressCallback = nullptr;
    void* progressContext = nullptr;
    std::string connectionPolicy;  // key of the thread's connection share; empty: DNS only
    unsigned int deadlineMs = 0;   // the host's request_timeout: no request lasts longer

    // libcurl handles. The share is declared first so that it outlives the easy handle.
    std::shared_ptr<pwhost::CurlShare> share;
    pwhost::CurlSlistPtr connectTo;
    pwhost::CurlMultiPtr multi;
    pwhost::CurlEasyPtr easy;
    char errorBuffer[CURL_ERROR_SIZE] = {0};

    // The open request (owner thread only).
    bool open = false;
    bool sent = false;
    std::string url;
    std::string host;
    HTTP_REQUEST_METHOD method = HTTP_METHOD_POST;
    unsigned int connectTimeout = 0;
    unsigned int requestTimeout = 0;
    unsigned int flags = 0;
    std::vector<std::string> headers;
    std::string reply;
    size_t replyRead = 0;
    uint64_t replyDropped = 0;
    long certVerdict = 0;
    bool progressAborted = false;

    // Shared with CloseRequest on other threads.
    std::atomic<bool> closing{false};
    std::atomic<std::thread::id> ownerThread{std::this_thread::get_id()};

    // Construction steps.
    long CheckArguments() const;
    long UseHostSettings(const pwhost::HostSettings& settings);
    long CreateHandles();
    long Configure();
    long SetClientCertificate(const std::string& certFile, const std::string& keyFile,
                              const std::string& keyPassword);

    // Steps of SendRequest.
    long CheckSendArguments(unsigned int bodyKind, const char* data, unsigned int length,
                            unsigned int sendFlags) const;
    void StartReply();
    long SetTransferOptions(unsigned int bodyKind, const char* data, unsigned int length,
                            pwhost::CurlSlistPtr& headerList);
    long ApplyShare();
    long Perform(CURLcode& curlResult, bool& cancelled);
    void ClearTransferOptions();
    long TransferOutcome(CURLcode curlResult, bool cancelled, unsigned int& httpStatus);
    long RequestDeadlineMs() const;
    void EndRequest();

    static size_t OnWrite(char* data, size_t size, size_t count, void* self);
    static int OnProgress(void* self, curl_off_t downloadTotal, curl_off_t downloaded,
                          curl_off_t uploadTotal, curl_off_t uploaded);
    static CURLcode OnSslContext(CURL* easy, void* sslContext, void* self);
    static int OnVerifyPeer(X509_STORE_CTX* store, void* self);
};

size_t CHttpSessionCurl::Impl::OnWrite(char* data, size_t size, size_t count, void* self) {
    Impl& s = *static_cast<Impl*>(self);
    size_t bytes = size * count;
    size_t room = s.reply.size() < s.replyCapacity ? s.replyCapacity - s.reply.size() : 0;
    size_t kept = bytes < room ? bytes : room;
    try {
        s.reply.append(data, kept);
    } catch (...) {
        return 0;  // out of memory: libcurl ends the transfer with a write error
    }
    s.replyDropped += bytes - kept;
    return bytes;
}

int CHttpSessionCurl::Impl::OnProgress(void* self, curl_off_t, curl_off_t downloaded,
                                       curl_off_t uploadTotal, curl_off_t uploaded) {
    Impl& s = *static_cast<Impl*>(self);
    if (s.closing.load()) {
        return 1;
    }
    if (s.progressCallback != nullptr &&
        !s.progressCallback(s.progressContext, static_cast<uint64_t>(uploaded),
                            static_cast<uint64_t>(uploadTotal),
                            static_cast<uint64_t>(downloaded))) {
        s.progressAborted = true;
        return 1;
    }
    return 0;
}

CURLcode CHttpSessionCurl::Impl::OnSslContext(CURL*, void* sslContext, void* self) {
    SSL_CTX* context = static_cast<SSL_CTX*>(sslContext);
    // The handshake fails unless OnVerifyPeer accepts the chain. Renegotiation is refused:
    // a connection may outlive this session in the shared cache, and no later handshake
    // on it may call back into a session that is gone.
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, &Impl::OnVerifyPeer, self);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    return CURLE_OK;
}

int CHttpSessionCurl::Impl::OnVerifyPeer(X509_STORE_CTX* store, void* self) {
    Impl& s = *static_cast<Impl*>(self);
    long verdict;
    try {
        verdict = s.certCallback != nullptr ? s.certCallback(s.certContext, store, s.trustMode,
                                                             s.host, s.primaryCertificate)
                                            : VerifyStrict(store, s.host);
    } catch (...) {
        verdict = pwresult::kCertInternalError;
    }
    s.certVerdict = verdict;
    if (verdict != 0) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0;
    }
    return 1;
}

long CHttpSessionCurl::Impl::Configure() {
    const long fail = pwresult::kHttpInitFailed;
    CURL* e = easy.get();
    if (!PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_ERRORBUFFER, errorBuffer), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Impl::OnWrite), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_WRITEDATA, this), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_NOPROGRESS, 0L), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &Impl::OnProgress), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_XFERINFODATA, this), fail) ||
        // Verification is OnVerifyPeer's alone (see OnSslContext); no CA bundle is loaded.
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, &Impl::OnSslContext), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_SSL_CTX_DATA, this), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 0L), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 0L), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_CAINFO, nullptr), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_CAPATH, nullptr), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2), fail) ||
        // An empty proxy also keeps libcurl from taking one from the environment.
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_PROXY, proxyUrl.c_str()), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_USERAGENT, userAgent.c_str()), fail) ||
        !PWHOST_CURL_OK(
            curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, httpsOnly ? "https" : "http,https"), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 0L), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_TCP_KEEPALIVE, 1L), fail)) {
        return fail;
    }
    if (connectTo &&
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_CONNECT_TO, connectTo.get()), fail)) {
        return fail;
    }
    return 0;
}

// Attaches the share that this thread may use: connections and TLS sessions are shared
// only between the sessions of one thread (see the header).
long CHttpSessionCurl::Impl::ApplyShare() {
    if (!shareCaches) {
        return 0;
    }
    std::shared_ptr<pwhost::CurlShare> wanted =
        connectionPolicy.empty() ? pwhost::CurlShare::ProcessDns()
                                 : pwhost::CurlShare::ThreadConnections(connectionPolicy);
    if (wanted == share) {
        return 0;
    }
    if (!PWHOST_CURL_OK(
            curl_easy_setopt(easy.get(), CURLOPT_SHARE, wanted ? wanted->Handle() : nullptr),
            pwresult::kHttpInitFailed)) {
        return pwresult::kHttpInitFailed;
    }
    share = wanted;
    return 0;
}

long CHttpSessionCurl::Impl::Perform(CURLcode& curlResult, bool& cancelled) {
    curlResult = CURLE_OK;
    cancelled = false;
    const long fail = pwresult::kHttpTransferFailed;
    if (!PWHOST_CURL_OK(curl_multi_add_handle(multi.get(), easy.get()), fail)) {
        return fail;
    }
    long rc = 0;
    bool done = false;
    while (!done) {
        if (closing.load()) {
            cancelled = true;  // removing the handle below ends the transfer
            break;
        }
        int running = 0;
        if (!PWHOST_CURL_OK(curl_multi_perform(multi.get(), &running), fail)) {
            rc = fail;
            break;
        }
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued)) {
            if (message->msg == CURLMSG_DONE) {
                curlResult = message->data.result;
                done = true;
            }
        }
        if (done) {
            break;
        }
        // Returns early on socket activity, on libcurl's own timers (among them the request
        // deadline) and on CloseRequest's wake-up, so a close is seen within milliseconds
        // in every phase: resolving, connecting, handshake, sending, waiting, receiving.
        if (!PWHOST_CURL_OK(curl_multi_poll(multi.get(), nullptr, 0, 1000, nullptr), fail)) {
            rc = fail;
            break;
        }
    }
    (void)PWHOST_CURL_CHECK(CAppLog::Warning, curl_multi_remove_handle(multi.get(), easy.get()),
                            fail);
    return rc;
}

void CHttpSessionCurl::Impl::EndRequest() {
    open = false;
    sent = false;
    url.clear();
    host.clear();
    headers.clear();
    reply.clear();
    replyRead = 0;
    replyDropped = 0;
    flags = 0;
    certVerdict = 0;
    progressAborted = false;
    closing.store(false);
}

long CHttpSessionCurl::Impl::CheckArguments() const {
    if (replyCapacity == 0) {
        return PWHOST_REFUSE(pwresult::kHttpInvalidArgument,
                             "reply capacity must be at least 1 byte");
    }
    for (const std::string& line : extraHeaders) {
        if (!IsHeaderLine(line)) {
            return PWHOST_REFUSE(pwresult::kHttpInvalidArgument,
                                 "extra header is not a \"Name: value\" line: %s", line.c_str());
        }
    }
    if (!serverUrl.empty()) {
        pwhost::CurlUrlPtr parsed(curl_url());
        if (!parsed ||
            curl_url_set(parsed.get(), CURLUPART_URL, serverUrl.c_str(), 0) != CURLUE_OK) {
            return PWHOST_REFUSE(pwresult::kHttpInvalidArgument, "server URL cannot be parsed: %s",
                                 serverUrl.c_str());
        }
    }
    return 0;
}

// Routing, connection sharing and the request deadline from the host settings.
long CHttpSessionCurl::Impl::UseHostSettings(const pwhost::HostSettings& settings) {
    for (const std::string& mapping : pwhost::ConnectToMappings(settings.connectTo)) {
        if (!pwhost::SlistAppend(connectTo, mapping)) {
            return pwresult::kHttpInitFailed;
        }
    }
    // Kept-alive connections and TLS sessions are reused only under the same trust rule.
    if (trustMode == HTTP_CERT_TRUST_STRICT) {
        char callback[2 * sizeof(void*) + 3];
        snprintf(callback, sizeof callback, "%p",
                 reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(certCallback)));
        connectionPolicy = std::string("strict|") + callback + "|" + settings.caFile;
    }
    deadlineMs = settings.requestTimeoutMs;
    return 0;
}

long CHttpSessionCurl::Impl::CreateHandles() {
    multi.reset(curl_multi_init());
    easy.reset(curl_easy_init());
    if (!multi || !easy) {
        PWHOST_LOG(CAppLog::Error, "curl_multi_init or curl_easy_init failed");
        return pwresult::kHttpInitFailed;
    }
    return Configure();
}

long CHttpSessionCurl::Impl::SetClientCertificate(const std::string& certFile,
                                                  const std::string& keyFile,
                                                  const std::string& keyPassword) {
    const long fail = pwresult::kHttpInitFailed;
    CURL* e = easy.get();
    if ((!certFile.empty() &&
         !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_SSLCERT, certFile.c_str()), fail)) ||
        (!keyFile.empty() &&
         !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_SSLKEY, keyFile.c_str()), fail)) ||
        (!keyPassword.empty() &&
         !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_KEYPASSWD, keyPassword.c_str()), fail))) {
        return fail;
    }
    return 0;
}

CHttpSessionCurl::CHttpSessionCurl(
    long& result, const std::string& serverUrl, const std::string& proxyUrl,
    const std::list<std::string>& extraHeaders, const std::string& clientCertFile,
    const std::string& clientKeyFile, const std::string& clientKeyPassword,
    const std::string& userAgent, unsigned short port, bool shareCaches, bool httpsOnly,
    HTTP_CERT_TRUST_MODE trustMode, const std::string& primaryCertificate, void* certContext,
    HTTP_SERVER_CERT_VERIFY_CB certCallback, unsigned int replyCapacity,
    HTTP_PROGRESS_CB progressCallback, void* progressContext)
    : m_pImpl(new Impl) {
    Impl& s = *m_pImpl;
    s.serverUrl = serverUrl;
    s.proxyUrl = proxyUrl;
    s.extraHeaders.assign(extraHeaders.begin(), extraHeaders.end());
    s.userAgent = userAgent;
    s.port = port;
    s.shareCaches = shareCaches;
    s.httpsOnly = httpsOnly;
    s.trustMode = trustMode;
    s.primaryCertificate = primaryCertificate;
    s.certContext = certContext;
    s.certCallback = certCallback;
    s.replyCapacity = replyCapacity;
    s.progressCallback = progressCallback;
    s.progressContext = progressContext;

    result = s.CheckArguments();
    if (result == 0 && !pwhost::CurlGlobalInit()) {
        result = pwresult::kHttpInitFailed;
    }
    if (result == 0) {
        result = s.UseHostSettings(pwhost::CurrentHostSettings());
    }
    if (result == 0) {
        result = s.CreateHandles();
    }
    if (result == 0) {
        result = s.SetClientCertificate(clientCertFile, clientKeyFile, clientKeyPassword);
    }
}

CHttpSessionCurl::~CHttpSessionCurl() = default;

void CHttpSessionCurl::SetLowSpeedGuard(unsigned int bytesPerSecond, unsigned int seconds) {
    g_lowSpeedBytesPerSecond.store(bytesPerSecond);
    g_lowSpeedSeconds.store(seconds);
}

long CHttpSessionCurl::OpenRequest(const std::string& url, unsigned int connectTimeoutSeconds,
                                   unsigned int requestTimeoutSeconds, HTTP_REQUEST_METHOD method) {
    Impl& s = *m_pImpl;
    if (!s.easy) {
        PWHOST_LOG(CAppLog::Error, "session was not constructed successfully");
        return pwresult::kHttpInvalidState;
    }
    if (s.open) {
        PWHOST_LOG(CAppLog::Error, "a request is already open");
        return pwresult::kHttpInvalidState;
    }
    if (method != HTTP_METHOD_GET && method != HTTP_METHOD_POST) {
        return PWHOST_REFUSE(pwresult::kHttpInvalidArgument, "unknown request method %d",
                             static_cast<int>(method));
    }
    pwhost::CurlUrlPtr parsed(curl_url());
    if (!parsed) {
        PWHOST_LOG(CAppLog::Error, "curl_url failed (out of memory)");
        return pwresult::kHttpInitFailed;
    }
    // A relative URL is resolved against the server URL.
    if ((!s.serverUrl.empty() &&
         curl_url_set(parsed.get(), CURLUPART_URL, s.serverUrl.c_str(), 0) != CURLUE_OK) ||
        curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return PWHOST_REFUSE(pwresult::kHttpBadUrl, "URL cannot be parsed: %s", url.c_str());
    }
    std::string scheme;
    std::string host;
    std::string port;
    if (!UrlPart(parsed.get(), CURLUPART_SCHEME, scheme) ||
        !UrlPart(parsed.get(), CURLUPART_HOST, host) || host.empty()) {
        return PWHOST_REFUSE(pwresult::kHttpBadUrl, "URL has no scheme or host: %s", url.c_str());
    }
    scheme = Lower(scheme);
    if (scheme != "https" && (s.httpsOnly || scheme != "http")) {
        return PWHOST_REFUSE(pwresult::kHttpBadUrl, "URL scheme not allowed: %s", url.c_str());
    }
    if (!UrlPart(parsed.get(), CURLUPART_PORT, port) && s.port != 0 &&
        curl_url_set(parsed.get(), CURLUPART_PORT, std::to_string(s.port).c_str(), 0) !=
            CURLUE_OK) {
        return PWHOST_REFUSE(pwresult::kHttpBadUrl, "port %u cannot be set on %s", s.port,
                             url.c_str());
    }
    std::string full;
    if (!UrlPart(parsed.get(), CURLUPART_URL, full)) {
        return PWHOST_REFUSE(pwresult::kHttpBadUrl, "URL cannot be formed from %s", url.c_str());
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);  // IPv6 literal
    }
    s.ownerThread.store(std::this_thread::get_id());
    s.open = true;
    s.sent = false;
    s.url = full;
    s.host = host;
    s.method = method;
    s.connectTimeout = connectTimeoutSeconds;
    s.requestTimeout = requestTimeoutSeconds;
    s.flags = 0;
    s.headers.clear();
    return 0;
}

void CHttpSessionCurl::CloseRequest() {
    Impl& s = *m_pImpl;
    if (s.ownerThread.load() == std::this_thread::get_id()) {
        s.EndRequest();
        return;
    }
    // Another thread: abort the transfer in progress, or the next one of this request.
    s.closing.store(true);
    if (s.multi) {
        (void)PWHOST_CURL_CHECK(CAppLog::Warning, curl_multi_wakeup(s.multi.get()),
                                pwresult::kHttpTransferFailed);
    }
}

long CHttpSessionCurl::AddRequestHeader(const std::string& name, const std::string& value) {
    Impl& s = *m_pImpl;
    if (!s.open || s.sent) {
        PWHOST_LOG(CAppLog::Error, "no request open for header %s", name.c_str());
        return pwresult::kHttpInvalidState;
    }
    if (!IsHeaderName(name) || HasLineBreakOrNul(value)) {
        return PWHOST_REFUSE(pwresult::kHttpInvalidArgument, "invalid request header %s",
                             name.c_str());
    }
    s.headers.push_back(name + ": " + value);
    return 0;
}

long CHttpSessionCurl::SetRequestFlags(unsigned int flags) {
    Impl& s = *m_pImpl;
    if (!s.open || s.sent) {
        PWHOST_LOG(CAppLog::Error, "no request open");
        return pwresult::kHttpInvalidState;
    }
    if ((flags & ~HTTP_REQUEST_FAIL_ON_ERROR_STATUS) != 0) {
        return PWHOST_REFUSE(pwresult::kHttpInvalidArgument, "unknown request flags 0x%x", flags);
    }
    s.flags = flags;
    return 0;
}

long CHttpSessionCurl::Impl::CheckSendArguments(unsigned int bodyKind, const char* data,
                                                unsigned int length, unsigned int sendFlags) const {
    if (!open || sent) {
        PWHOST_LOG(CAppLog::Error, "no request open, or it was sent already");
        return pwresult::kHttpInvalidState;
    }
    if ((bodyKind != HTTP_BODY_OCTET_STREAM && bodyKind != HTTP_BODY_FORM) || sendFlags != 0 ||
        (data == nullptr && length != 0)) {
        return PWHOST_REFUSE(pwresult::kHttpInvalidArgument,
                             "invalid send arguments (body kind %u, flags 0x%x)", bodyKind,
                             sendFlags);
    }
    return 0;
}

void CHttpSessionCurl::Impl::StartReply() {
    sent = true;
    reply.clear();
    replyRead = 0;
    replyDropped = 0;
    certVerdict = 0;
    progressAborted = false;
    errorBuffer[0] = '\0';
}

// The request's own limit, capped by the host's request deadline.
long CHttpSessionCurl::Impl::RequestDeadlineMs() const {
    uint64_t limit = deadlineMs;
    if (requestTimeout != 0 && static_cast<uint64_t>(requestTimeout) * 1000u < limit) {
        limit = static_cast<uint64_t>(requestTimeout) * 1000u;
    }
    return static_cast<long>(limit);
}

// The request's URL, limits, headers and body. `headerList` must outlive the transfer.
long CHttpSessionCurl::Impl::SetTransferOptions(unsigned int bodyKind, const char* data,
                                                unsigned int length,
                                                pwhost::CurlSlistPtr& headerList) {
    const long fail = pwresult::kHttpInitFailed;
    std::vector<std::string> lines;
    lines.push_back(bodyKind == HTTP_BODY_FORM ? "Content-Type: application/x-www-form-urlencoded"
                                               : "Content-Type: application/octet-stream");
    lines.push_back("Expect:");  // no 100-continue round trip
    lines.insert(lines.end(), extraHeaders.begin(), extraHeaders.end());
    lines.insert(lines.end(), headers.begin(), headers.end());
    for (const std::string& line : lines) {
        if (!pwhost::SlistAppend(headerList, line)) {
            return fail;
        }
    }
    CURL* e = easy.get();
    if (!PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_URL, url.c_str()), fail) ||
        !PWHOST_CURL_OK(
            curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT, static_cast<long>(connectTimeout)), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, RequestDeadlineMs()), fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT,
                                         static_cast<long>(g_lowSpeedBytesPerSecond.load())),
                        fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_LOW_SPEED_TIME,
                                         static_cast<long>(g_lowSpeedSeconds.load())),
                        fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_HTTPHEADER, headerList.get()), fail)) {
        return fail;
    }
    if (method != HTTP_METHOD_POST) {
        return PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_HTTPGET, 1L), fail) ? 0 : fail;
    }
    if (!PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_POST, 1L), fail) ||
        !PWHOST_CURL_OK(
            curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(length)),
            fail) ||
        !PWHOST_CURL_OK(curl_easy_setopt(e, CURLOPT_POSTFIELDS, data != nullptr ? data : ""),
                        fail)) {
        return fail;
    }
    return 0;
}

// The header list and the caller's body live only during the transfer.
void CHttpSessionCurl::Impl::ClearTransferOptions() {
    const long fail = pwresult::kHttpInitFailed;
    (void)PWHOST_CURL_OK(curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, nullptr), fail);
    if (method == HTTP_METHOD_POST) {
        (void)PWHOST_CURL_OK(curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, nullptr), fail);
    }
}

// The result of a finished transfer: closed, failed, refused for its status, or 0.
long CHttpSessionCurl::Impl::TransferOutcome(CURLcode curlResult, bool cancelled,
                                             unsigned int& httpStatus) {
    long status = 0;
    if (PWHOST_CURL_OK(curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status),
                       pwresult::kHttpTransferFailed) &&
        status > 0) {
        httpStatus = static_cast<unsigned int>(status);
    }
    if (cancelled || curlResult == CURLE_ABORTED_BY_CALLBACK) {
        PWHOST_LOG_RESULT(CAppLog::Warning, "SendRequest", pwresult::kHttpRequestClosed,
                          "%s while in progress: %s",
                          progressAborted ? "aborted by the progress callback" : "request closed",
                          url.c_str());
        return pwresult::kHttpRequestClosed;
    }
    if (curlResult != CURLE_OK) {
        long rc = certVerdict != 0 ? pwresult::kHttpSecureChannel : MapCurlResult(curlResult);
        PWHOST_LOG_RESULT(CAppLog::Error, "libcurl transfer", rc, "%s (libcurl %d%s) for %s",
                          errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(curlResult),
                          static_cast<int>(curlResult),
                          certVerdict != 0 ? ", server certificate rejected" : "", url.c_str());
        return rc;
    }
    if ((flags & HTTP_REQUEST_FAIL_ON_ERROR_STATUS) != 0 &&
        (httpStatus < 200 || httpStatus > 299)) {
        PWHOST_LOG_RESULT(CAppLog::Error, "SendRequest", pwresult::kHttpStatusNotOk,
                          "server answered HTTP %u for %s", httpStatus, url.c_str());
        return pwresult::kHttpStatusNotOk;
    }
    return 0;
}

long CHttpSessionCurl::SendRequest(unsigned int& httpStatus, unsigned int bodyKind,
                                   const char* data, unsigned int length, unsigned int sendFlags) {
    Impl& s = *m_pImpl;
    httpStatus = 0;
    long rc = s.CheckSendArguments(bodyKind, data, length, sendFlags);
    if (rc != 0) {
        return rc;
    }
    s.StartReply();
    if (PWHOST_TEST_FAULT(HttpSend, rc)) {
        PWHOST_LOG_RESULT(CAppLog::Error, "SendRequest", rc, "fault injected for %s",
                          s.url.c_str());
        return rc;
    }
    if (s.closing.load()) {
        PWHOST_LOG_RESULT(CAppLog::Warning, "SendRequest", pwresult::kHttpRequestClosed,
                          "request closed before sending");
        return pwresult::kHttpRequestClosed;
    }
    pwhost::CurlSlistPtr headerList;
    rc = s.SetTransferOptions(bodyKind, data, length, headerList);
    if (rc == 0) {
        rc = s.ApplyShare();
    }
    if (rc != 0) {
        return rc;
    }
    CURLcode curlResult = CURLE_OK;
    bool cancelled = false;
    rc = s.Perform(curlResult, cancelled);
    s.ClearTransferOptions();
    return rc != 0 ? rc : s.TransferOutcome(curlResult, cancelled, httpStatus);
}

long CHttpSessionCurl::ReadFile(char* buffer, unsigned int capacity, unsigned int& count) {
    Impl& s = *m_pImpl;
    count = 0;
    if (!s.open || !s.sent) {
        PWHOST_LOG(CAppLog::Error, "no reply to read");
        return pwresult::kHttpInvalidState;
    }
    if (buffer == nullptr && capacity != 0) {
        return PWHOST_REFUSE(pwresult::kHttpInvalidArgument, "null buffer");
    }
    size_t available = s.reply.size() - s.replyRead;
    size_t n = available < capacity ? available : capacity;
    if (n > 0) {
        memcpy(buffer, s.reply.data() + s.replyRead, n);
    }
    s.replyRead += n;
    count = static_cast<unsigned int>(n);
    return 0;
}
