// Certificate chain and host-name verification over OpenSSL.
#include "CertHelper.h"

#include <arpa/inet.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "CurlSupport.h"
#include "HostLogInternal.h"
#include "HostSettings.h"

namespace {

const char kLogSource[] = "host/src/CertHelper";

long VerdictOf(int verifyError) {
    switch (verifyError) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_CERT_UNTRUSTED:
        case X509_V_ERR_CERT_REJECTED:
            return pwresult::kCertUntrustedRoot;
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
            return pwresult::kCertSelfSigned;
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return pwresult::kCertExpired;
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return pwresult::kCertNotYetValid;
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return pwresult::kCertNameMismatch;
        case X509_V_ERR_CERT_REVOKED:
            return pwresult::kCertRevoked;
        case X509_V_ERR_INVALID_PURPOSE:
        case X509_V_ERR_INVALID_CA:
        case X509_V_ERR_INVALID_NON_CA:
        case X509_V_ERR_PATH_LENGTH_EXCEEDED:
        case X509_V_ERR_KEYUSAGE_NO_CERTSIGN:
        case X509_V_ERR_INVALID_EXTENSION:
            return pwresult::kCertWrongUsage;
        case X509_V_ERR_UNABLE_TO_GET_CRL:
        case X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER:
        case X509_V_ERR_CRL_HAS_EXPIRED:
        case X509_V_ERR_CRL_NOT_YET_VALID:
        case X509_V_ERR_DIFFERENT_CRL_SCOPE:
            return pwresult::kCertRevocationUnknown;
        default:
            return pwresult::kCertChainInvalid;
    }
}

// Verify callback of the helper's own store context: with best-effort revocation a
// certificate whose issuer published no CRL passes that one check.
int ToleratingMissingCrl(int ok, X509_STORE_CTX* context) {
    if (ok == 0 && X509_STORE_CTX_get_error(context) == X509_V_ERR_UNABLE_TO_GET_CRL &&
        X509_STORE_CTX_get_app_data(context) != nullptr) {
        X509_STORE_CTX_set_error(context, X509_V_OK);
        return 1;
    }
    return ok;
}

bool IsIpAddress(const char* name) {
    unsigned char address[16];
    return inet_pton(AF_INET, name, address) == 1 || inet_pton(AF_INET6, name, address) == 1;
}

}  // namespace

bool IsCertUntrustedVerdict(long result) {
    static const uint32_t kVerdicts[] = {0xFE210010, 0xFE210012, 0xFE210013, 0xFE210014, 0xFE210015,
                                         0xFE210016, 0xFE210017, 0xFE210026, 0xFE210028};
    for (uint32_t verdict : kVerdicts) {
        if (PwResultEquals(result, verdict)) {
            return true;
        }
    }
    return false;
}

struct CCertHelper::Anchors {
    pwhost::X509StorePtr store;
    bool hasCrls = false;
};

CCertHelper::CCertHelper(long& result, unsigned int storeMask, const std::string& userName)
    : m_pAnchors(new Anchors), m_userName(userName) {
    result = 0;
    const long internal = pwresult::kCertInternalError;
    m_pAnchors->store.reset(X509_STORE_new());
    if (!PWHOST_SSL_OK(m_pAnchors->store.get(), internal)) {
        result = internal;
        return;
    }
    X509_STORE* store = m_pAnchors->store.get();
    const std::string caFile = pwhost::CurrentHostSettings().caFile;
    if ((storeMask & kStoreHostCaFile) != 0 && !caFile.empty()) {
        if (!PWHOST_SSL_OK(X509_STORE_load_file(store, caFile.c_str()),
                           pwresult::kCertStoreLoadFailed)) {
            result = pwresult::kCertStoreLoadFailed;
            return;
        }
        STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
        for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
            if (X509_OBJECT_get_type(sk_X509_OBJECT_value(objects, i)) == X509_LU_CRL) {
                m_pAnchors->hasCrls = true;
            }
        }
    } else if ((storeMask & kStoreSystem) != 0) {
        if (!PWHOST_SSL_OK(X509_STORE_set_default_paths(store), pwresult::kCertStoreLoadFailed)) {
            result = pwresult::kCertStoreLoadFailed;
        }
    } else {
        result = PWHOST_REFUSE(pwresult::kCertStoreLoadFailed,
                               "no trust anchors allowed (store mask 0x%x)", storeMask);
    }
}

CCertHelper::~CCertHelper() {}

long CCertHelper::VerifyServerCertificate(const x509_store_ctx_st* peerChain,
                                          eCertContextID context, const char* serverName,
                                          std::string& certificateText, unsigned int& verifyError,
                                          eCertVerifyRevocationType revocation,
                                          bool allowPartialChain) {
    verifyError = 0;
    certificateText.clear();
    X509* leaf = peerChain != nullptr ? X509_STORE_CTX_get0_cert(peerChain) : nullptr;
    if (leaf == nullptr || serverName == nullptr || *serverName == '\0' || !m_pAnchors->store) {
        return PWHOST_REFUSE(pwresult::kCertInvalidArgument,
                             "no certificate, no server name or no trust anchors");
    }
    const long internal = pwresult::kCertInternalError;

    pwhost::BioPtr pem(BIO_new(BIO_s_mem()));
    if (!PWHOST_SSL_OK(pem.get(), internal) ||
        !PWHOST_SSL_OK(PEM_write_bio_X509(pem.get(), leaf), internal)) {
        return internal;
    }
    char* pemData = nullptr;
    long pemLength = BIO_get_mem_data(pem.get(), &pemData);
    if (pemLength > 0 && pemData != nullptr) {
        certificateText.assign(pemData, static_cast<size_t>(pemLength));
    }

    pwhost::X509StoreCtxPtr check(X509_STORE_CTX_new());
    if (!PWHOST_SSL_OK(check.get(), internal) ||
        !PWHOST_SSL_OK(X509_STORE_CTX_init(check.get(), m_pAnchors->store.get(), leaf,
                                           X509_STORE_CTX_get0_untrusted(peerChain)),
                       internal)) {
        return internal;
    }
    int purpose = 0;
    if (context == CERT_CONTEXT_SSL_SERVER) {
        purpose = X509_PURPOSE_SSL_SERVER;
    } else if (context == CERT_CONTEXT_SSL_CLIENT) {
        purpose = X509_PURPOSE_SSL_CLIENT;
    }
    if (purpose != 0 &&
        !PWHOST_SSL_OK(X509_STORE_CTX_set_purpose(check.get(), purpose), internal)) {
        return internal;
    }
    unsigned long flags = 0;
    if (allowPartialChain) {
        flags |= X509_V_FLAG_PARTIAL_CHAIN;
    }
    static int tolerateMissingCrl = 1;
    if (revocation == CERT_REVOCATION_REQUIRED ||
        (revocation == CERT_REVOCATION_IF_KNOWN && m_pAnchors->hasCrls)) {
        flags |= X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
        if (revocation == CERT_REVOCATION_IF_KNOWN) {
            X509_STORE_CTX_set_verify_cb(check.get(), &ToleratingMissingCrl);
            if (!PWHOST_SSL_OK(X509_STORE_CTX_set_app_data(check.get(), &tolerateMissingCrl),
                               internal)) {
                return internal;
            }
        }
    }
    if (flags != 0) {
        X509_STORE_CTX_set_flags(check.get(), flags);
    }

    int verified = X509_verify_cert(check.get());
    if (verified < 0) {
        PWHOST_SSL_OK(0, internal);  // logs OpenSSL's reason
        return internal;
    }
    int error = verified == 1 ? X509_V_OK : X509_STORE_CTX_get_error(check.get());
    if (error == X509_V_OK) {
        int named = IsIpAddress(serverName) ? X509_check_ip_asc(leaf, serverName, 0)
                                            : X509_check_host(leaf, serverName, 0, 0, nullptr);
        if (named != 1) {
            error = IsIpAddress(serverName) ? X509_V_ERR_IP_ADDRESS_MISMATCH
                                            : X509_V_ERR_HOSTNAME_MISMATCH;
        }
    }
    if (error == X509_V_OK) {
        return 0;
    }
    verifyError = static_cast<unsigned int>(error);
    long verdict = VerdictOf(error);
    PWHOST_LOG_RESULT(CAppLog::Information, "X509_verify_cert", verdict,
                      "certificate for %s not trusted (user \"%s\"): %s", serverName,
                      m_userName.c_str(), X509_verify_cert_error_string(error));
    return verdict;
}
