// Server certificate checks.
//
// CCertHelper verifies a certificate chain that a TLS peer presented against the host's
// trust anchors and checks that the leaf certificate names the expected server. The
// anchors are the CA file of the host settings when one is configured, otherwise the
// system trust store. A helper holds its own copy of the anchors, loaded by the
// constructor; it is used by one thread at a time and owns nothing of the caller's.
//
// A verdict that the certificate is not to be trusted is one of the kCert* codes below;
// every other non-zero result means that the check itself could not be made.
#pragma once

#include <memory>
#include <string>

#include "ResultCodes.h"

struct x509_store_ctx_st;  // OpenSSL's X509_STORE_CTX

// What the certificate is checked for.
enum eCertContextID {
    CERT_CONTEXT_ANY = 0,         // chain and name only, no key-usage purpose
    CERT_CONTEXT_SSL_SERVER = 1,  // a TLS server certificate
    CERT_CONTEXT_SSL_CLIENT = 2,  // a TLS client certificate
};

// How revocation is checked. CRLs are taken from the trust anchor file.
enum eCertVerifyRevocationType {
    CERT_REVOCATION_NONE = 0,      // not checked
    CERT_REVOCATION_REQUIRED = 1,  // every certificate of the chain needs a current CRL
    CERT_REVOCATION_IF_KNOWN = 2,  // checked where the anchors carry CRLs, else skipped
};

namespace pwresult {
// Verdicts: the certificate is not trusted.
constexpr long kCertUntrustedRoot = PwResult(0xFE210010);      // no path to a trust anchor
constexpr long kCertSelfSigned = PwResult(0xFE210012);         // self-signed, not an anchor
constexpr long kCertExpired = PwResult(0xFE210013);            // past its notAfter
constexpr long kCertNotYetValid = PwResult(0xFE210014);        // before its notBefore
constexpr long kCertNameMismatch = PwResult(0xFE210015);       // does not name the server
constexpr long kCertRevoked = PwResult(0xFE210016);            // listed in a CRL
constexpr long kCertWrongUsage = PwResult(0xFE210017);         // not valid for this purpose
constexpr long kCertRevocationUnknown = PwResult(0xFE210026);  // required CRL missing/stale
constexpr long kCertChainInvalid = PwResult(0xFE210028);       // bad signature, other faults
// The check could not be made.
constexpr long kCertInvalidArgument = PwResult(0xFE210001);
constexpr long kCertInternalError = PwResult(0xFE210002);    // OpenSSL could not do its part
constexpr long kCertStoreLoadFailed = PwResult(0xFE210003);  // trust anchors not loadable
}  // namespace pwresult

// True for the codes above that are verdicts (the certificate is untrusted).
bool IsCertUntrustedVerdict(long result);

class CCertHelper {
public:
    // Which trust anchors a helper may use (bit mask; 0xFFFFFFFF: all of them).
    enum : unsigned int {
        kStoreSystem = 1u << 0,      // the system trust store
        kStoreHostCaFile = 1u << 1,  // the CA file of the host settings
    };

    // Loads the anchors allowed by `storeMask`: the configured CA file if it is allowed and
    // set, otherwise the system store if allowed. `userName` is the user on whose behalf
    // the checks are made; it appears in the helper's log lines. `result` receives 0,
    // kCertStoreLoadFailed (the CA file cannot be read or holds no certificate, or no
    // anchors are allowed) or kCertInternalError.
    CCertHelper(long& result, unsigned int storeMask, const std::string& userName);
    ~CCertHelper();

    // Verifies the chain presented in `peerChain` (its leaf and untrusted intermediates;
    // the store context itself is not changed) for `context`, then checks that the leaf
    // names `serverName` (a DNS name, or an IP address literal). `certificateText`
    // receives the leaf certificate in PEM form, also when the verdict is negative.
    // `verifyError` receives OpenSSL's X509_V_ERR_* code of the verdict (0 when trusted).
    // `allowPartialChain` lets an intermediate of the anchors serve as the trust anchor.
    // Returns 0 (trusted), a verdict code, or a code of a failed check.
    long VerifyServerCertificate(const x509_store_ctx_st* peerChain, eCertContextID context,
                                 const char* serverName, std::string& certificateText,
                                 unsigned int& verifyError, eCertVerifyRevocationType revocation,
                                 bool allowPartialChain);

    CCertHelper(const CCertHelper&) = delete;
    CCertHelper& operator=(const CCertHelper&) = delete;

private:
    struct Anchors;
    // Owned; a unique_ptr so that a constructor that fails part-way frees it.
    std::unique_ptr<Anchors> m_pAnchors;
    std::string m_userName;
};
