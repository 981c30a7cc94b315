// HTTPS POST of one request body to the feedback server, on the host's HTTP session.
//
// One uploader serves one PostDataGetResponse call and is then destroyed. It owns its
// session, fixes the session's construction parameters, translates a few of the session's
// result codes into its own and decides on the server's certificate when the session asks.
// Everything runs on the caller's thread, except TerminateSession, which another thread may
// call while a post is in progress to cut it short.
#pragma once

#include <string>

#include "HttpSessionCurl.h"
#include "ResultCodes.h"

namespace pwresult {
// The server certificate could not be verified (null parameters or no server name).
constexpr long kUploadCertNotVerifiable = PwResult(0xFE870002);
// Sending failed on the secure channel (the session's kHttpSecureChannel).
constexpr long kUploadSecureChannelFailed = PwResult(0xFE87000C);
constexpr long kUploadCertificateRejected = PwResult(0xFE87000D);
// Sending was cut short (the session's kHttpRequestClosed) without close-on-failure.
constexpr long kUploadSendClosed = PwResult(0xFE870010);
}  // namespace pwresult

class CFileUploader {
public:
    // Creates the session; `result` receives the session's construction result.
    // `ignoredFlag1` and `ignoredFlag2` are accepted and not used.
    CFileUploader(long& result, const std::string& clientName, const std::string& serverURL,
                  bool ignoredFlag1, const std::string& extraListEntry, const std::string& text3,
                  const std::string& text4, const std::string& text5, const std::string& text7,
                  bool ignoredFlag2, bool closeOnSendFailure, unsigned short port,
                  bool sessionFlag);
    ~CFileUploader();

    // Posts `length` bytes of `data` to `url` and appends the first bytes of the reply (up
    // to 16384, cut at a NUL) to `response`. With `compressed` the request carries the
    // header "Zip: True". 0 on success.
    long PostDataGetResponse(const std::string& url, const char* data, int length,
                             std::string& response, bool compressed);
    long SendHttpRequest(const char* data, int length);
    long ReadFileFromNetwork(std::string& response);
    // Closes the session's request; safe from another thread during a post.
    void TerminateSession();

    // The session's certificate callback; `context` is the uploader.
    static long ServerCertVerifyCB(void* context, const x509_store_ctx_st* store,
                                   HTTP_CERT_TRUST_MODE mode, const std::string& serverName,
                                   const std::string& primaryCertificate);
    // The trust decision: 0 accepts the certificate, non-zero rejects it.
    long ServerCertVerify(const x509_store_ctx_st* store, HTTP_CERT_TRUST_MODE mode,
                          const std::string& serverName, const std::string& primaryCertificate);

    CFileUploader(const CFileUploader&) = delete;
    CFileUploader& operator=(const CFileUploader&) = delete;

private:
    bool m_bCertificateRejected;
    CHttpSessionCurl* m_pHttpSession;
    bool m_bCloseOnSendFailure;
};
