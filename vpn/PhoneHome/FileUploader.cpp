// HTTPS POST client of the feedback agent.
#include "FileUploader.h"

#include <unistd.h>

#include <list>
#include <new>
#include <vector>

#include "CertHelper.h"
#include "UnixImpersonate.h"

#define PH_LOG_SOURCE "vpn/PhoneHome/FileUploader"
#include "PhoneHomeLog.h"

namespace {

// Bytes of the reply that are read: only its first bytes matter to the caller.
const unsigned int kReplyReadSize = 16384;
// The session's connect timeout in seconds; the whole request has no time limit (the
// session's low-speed guard ends a transfer that stalls).
const unsigned int kConnectTimeoutSeconds = 15;
const unsigned int kRequestTimeoutSeconds = 0;

}  // namespace

CFileUploader::CFileUploader(long& result, const std::string& clientName,
                             const std::string& serverURL, bool /*ignoredFlag1*/,
                             const std::string& extraListEntry, const std::string& text3,
                             const std::string& text4, const std::string& text5,
                             const std::string& text7, bool /*ignoredFlag2*/,
                             bool closeOnSendFailure, unsigned short port, bool sessionFlag)
    : m_bCertificateRejected(false),
      m_pHttpSession(nullptr),
      m_bCloseOnSendFailure(closeOnSendFailure) {
    std::list<std::string> extraList;
    if (!extraListEntry.empty()) {
        extraList.push_back(extraListEntry);
    }
    m_pHttpSession = new (std::nothrow)
        CHttpSessionCurl(result, serverURL, std::string(), extraList, text3, text4, text5,
                         clientName, port, sessionFlag, true, HTTP_CERT_TRUST_STRICT, text7, this,
                         &CFileUploader::ServerCertVerifyCB, kReplyReadSize, nullptr, this);
    if (m_pHttpSession == nullptr) {
        result = pwresult::kHttpInitFailed;
    }
}

CFileUploader::~CFileUploader() {
    if (m_pHttpSession != nullptr) {
        delete m_pHttpSession;
        m_pHttpSession = nullptr;
    }
}

long CFileUploader::PostDataGetResponse(const std::string& url, const char* data, int length,
                                        std::string& response, bool compressed) {
    if (m_pHttpSession == nullptr) {
        return pwresult::kHttpInvalidState;
    }
    long rc = m_pHttpSession->OpenRequest(url, kConnectTimeoutSeconds, kRequestTimeoutSeconds,
                                          HTTP_METHOD_POST);
    if (rc != 0) {
        PH_LOG_RC(PH_ERROR, "CHttpSessionWinHttp::OpenRequest", rc);
        return rc;
    }
    if (compressed) {
        m_pHttpSession->AddRequestHeader("Zip", "True");  // the session logs a failure
    }
    // A reply status outside 2xx fails the send, so that a server error keeps the file.
    m_pHttpSession->SetRequestFlags(HTTP_REQUEST_FAIL_ON_ERROR_STATUS);

    rc = SendHttpRequest(data, length);
    const bool sendFailed = rc != 0;
    if (!sendFailed) {
        rc = ReadFileFromNetwork(response);
        if (rc != 0) {
            PH_LOG_RC(PH_ERROR, "CFileUploader::ReadFileFromNetwork", rc);
        }
    } else if (m_bCloseOnSendFailure) {
        m_pHttpSession->CloseRequest();
        PH_LOG_RC(PH_ERROR, "CFileUploader::SendHttpRequest", rc);
    } else if (rc == pwresult::kHttpRequestClosed) {
        rc = pwresult::kUploadSendClosed;
    } else {
        PH_LOG_RC(PH_ERROR, "CFileUploader::SendHttpRequest", rc);
    }
    m_pHttpSession->CloseRequest();
    return rc;
}

long CFileUploader::SendHttpRequest(const char* data, int length) {
    unsigned int status = 0;
    long rc = length < 0 ? pwresult::kHttpInvalidArgument
                         : m_pHttpSession->SendRequest(status, HTTP_BODY_FORM, data,
                                                       static_cast<unsigned int>(length), 0);
    if (rc == 0) {
        return 0;
    }
    // The status word (the HTTP status, 0 when no reply came) is what this line reports.
    PH_LOG_RC(PH_WARNING, "HttpSession::SendRequest", static_cast<long>(status));
    if (rc == pwresult::kHttpSecureChannel) {
        return m_bCertificateRejected ? pwresult::kUploadCertificateRejected
                                      : pwresult::kUploadSecureChannelFailed;
    }
    return rc;
}

long CFileUploader::ReadFileFromNetwork(std::string& response) {
    std::vector<char> buffer(kReplyReadSize + 1, '\0');
    unsigned int count = 0;
    long rc = m_pHttpSession->ReadFile(buffer.data(), kReplyReadSize, count);
    if (rc != 0) {
        PH_LOG_RC(PH_ERROR, "ReadFile", rc);
        return rc;
    }
    buffer[count < kReplyReadSize ? count : kReplyReadSize] = '\0';
    response.append(buffer.data());  // up to the first NUL byte
    return 0;
}

void CFileUploader::TerminateSession() {
    if (m_pHttpSession != nullptr) {
        m_pHttpSession->CloseRequest();
    }
}

long CFileUploader::ServerCertVerifyCB(void* context, const x509_store_ctx_st* store,
                                       HTTP_CERT_TRUST_MODE mode, const std::string& serverName,
                                       const std::string& primaryCertificate) {
    if (context == nullptr || store == nullptr) {
        PH_LOG(PH_WARNING, "Unable to verify server certificate due to invalid NULL parameters.");
        return pwresult::kUploadCertNotVerifiable;
    }
    long rc = static_cast<CFileUploader*>(context)->ServerCertVerify(store, mode, serverName,
                                                                     primaryCertificate);
    if (rc != 0) {
        PH_LOG_RC(PH_WARNING, "CFileUploader::ServerCertVerify", rc);
    }
    return rc;
}

long CFileUploader::ServerCertVerify(const x509_store_ctx_st* store, HTTP_CERT_TRUST_MODE mode,
                                     const std::string& serverName,
                                     const std::string& primaryCertificate) {
    if (mode == HTTP_CERT_TRUST_NO_CHECK) {
        return 0;
    }
    if (store == nullptr || serverName.empty()) {
        PH_LOG(PH_ERROR, "The server certificate for the secondary connection is not trusted.");
        return pwresult::kUploadCertNotVerifiable;
    }

    std::string user;
    long rc = CUnixImpersonate::GetUsernameOwningProcess(static_cast<unsigned int>(getpid()), user);
    if (rc != 0) {
        PH_LOG_RC(PH_WARNING, "CUnixImpersonate::GetUsernameOwningProcess", rc);
        user.clear();
    }
    CCertHelper helper(rc, 0xFFFFFFFFu, user);
    if (rc != 0) {
        PH_LOG_RC(PH_ERROR, "CCertHelper::CCertHelper", rc);
        return rc;
    }
    std::string certificateText;
    unsigned int verifyFlags = 0;
    rc = helper.VerifyServerCertificate(store, CERT_CONTEXT_SSL_SERVER, serverName.c_str(),
                                        certificateText, verifyFlags, CERT_REVOCATION_IF_KNOWN,
                                        false);
    if (rc == 0) {
        return 0;
    }
    if (!IsCertUntrustedVerdict(rc)) {
        PH_LOG_RC(PH_ERROR, "CCertHelper::VerifyServerCertificate", rc);
        return rc;
    }
    switch (mode) {
        case HTTP_CERT_TRUST_STRICT:
            return rc;
        case HTTP_CERT_TRUST_SAME_AS_PRIMARY:
            if (!primaryCertificate.empty() && primaryCertificate == certificateText) {
                return 0;
            }
            PH_LOG(PH_ERROR,
                   "The server certificate for the secondary connection is different than the "
                   "(trusted) server certificate used for the primary connection.  The server "
                   "certificate for the secondary connection is not trusted.");
            return rc;
        case HTTP_CERT_TRUST_SECONDARY_ANY:
        case HTTP_CERT_TRUST_ACCEPT_UNTRUSTED:
        default:
            return 0;
    }
}
