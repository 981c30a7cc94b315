// Framework-internal support of the HTTPS client: the checked-call macros for libcurl and
// OpenSSL (part of the framework's logging macros, see HostLogInternal.h), owners of their
// handles, and the shared caches. A source file defines `kLogSource` before using the
// macros.
#pragma once

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <memory>
#include <mutex>
#include <string>

#include "AppLog.h"
#include "HostLogInternal.h"

namespace pwhost {

// Makes sure libcurl is initialised for the process (once; never torn down, since
// sessions may live until exit).
bool CurlGlobalInit();

// Where a checked call failed: the caller's function, source and line, the importance of
// the record, the call's text and the code handed to our caller.
struct FailedCall {
    const char* function;
    const char* source;
    int line;
    int importance;
    const char* call;
    long code;
};
// Log a failed libcurl call with libcurl's number and text for `rc`.
void LogCurlFailure(const FailedCall& failed, int rc, const char* text);
// Logs a failed OpenSSL call with the text of OpenSSL's error queue, which it empties.
void LogOpenSslFailure(const FailedCall& failed);

struct CurlEasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct CurlMultiDeleter {
    void operator()(CURLM* handle) const;
};
struct CurlSlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct CurlUrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct X509StoreDeleter {
    void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
struct X509StoreCtxDeleter {
    void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
};
struct BioDeleter {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
typedef std::unique_ptr<CURL, CurlEasyDeleter> CurlEasyPtr;
typedef std::unique_ptr<CURLM, CurlMultiDeleter> CurlMultiPtr;
typedef std::unique_ptr<curl_slist, CurlSlistDeleter> CurlSlistPtr;
typedef std::unique_ptr<CURLU, CurlUrlDeleter> CurlUrlPtr;
typedef std::unique_ptr<X509_STORE, X509StoreDeleter> X509StorePtr;
typedef std::unique_ptr<X509_STORE_CTX, X509StoreCtxDeleter> X509StoreCtxPtr;
typedef std::unique_ptr<BIO, BioDeleter> BioPtr;

// Appends `line` to `list`; false (list unchanged) when libcurl cannot allocate.
bool SlistAppend(CurlSlistPtr& list, const std::string& line);

// A curl share handle with its locks. Shared through shared_ptr by the sessions that use
// it, so that it outlives every easy handle attached to it.
class CurlShare {
public:
    // Shares DNS answers between all sessions of the process.
    static std::shared_ptr<CurlShare> ProcessDns();
    // Shares DNS answers, connections and TLS sessions between the sessions of the calling
    // thread that have the same `policy` (libcurl does not allow one connection cache to be
    // used by concurrent threads). Null if the share cannot be made (logged).
    static std::shared_ptr<CurlShare> ThreadConnections(const std::string& policy);

    ~CurlShare();
    CURLSH* Handle() const { return m_handle; }

    CurlShare(const CurlShare&) = delete;
    CurlShare& operator=(const CurlShare&) = delete;

private:
    CurlShare() = default;
    // Null if the handle cannot be made or a data kind cannot be shared (logged).
    static std::shared_ptr<CurlShare> Create(bool connections);
    static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* self);
    static void Unlock(CURL*, curl_lock_data data, void* self);

    CURLSH* m_handle = nullptr;
    std::mutex m_locks[CURL_LOCK_DATA_LAST];
};

}  // namespace pwhost

// Evaluates a libcurl call (easy, multi or share interface); true on success, otherwise
// logs the line at `importance` with `code` (the result our caller gets) and libcurl's
// text, and evaluates to false. PWHOST_CURL_OK logs at error importance.
#define PWHOST_CURL_CHECK(importance, call, code) \
    ::pwhost::CurlSucceeded((call), {__func__, kLogSource, __LINE__, importance, #call, code})
#define PWHOST_CURL_OK(call, code) PWHOST_CURL_CHECK(CAppLog::Error, call, code)

// Evaluates an OpenSSL call whose success is a positive int or a non-null pointer; true on
// success, otherwise logs the line with `code` and OpenSSL's error text and evaluates to
// false.
#define PWHOST_SSL_OK(call, code) \
    ::pwhost::SslSucceeded((call), {__func__, kLogSource, __LINE__, CAppLog::Error, #call, code})

namespace pwhost {

inline bool CurlSucceeded(CURLcode rc, const FailedCall& failed) {
    if (rc != CURLE_OK) {
        LogCurlFailure(failed, rc, curl_easy_strerror(rc));
    }
    return rc == CURLE_OK;
}

inline bool CurlSucceeded(CURLMcode rc, const FailedCall& failed) {
    if (rc != CURLM_OK) {
        LogCurlFailure(failed, rc, curl_multi_strerror(rc));
    }
    return rc == CURLM_OK;
}

inline bool CurlSucceeded(CURLSHcode rc, const FailedCall& failed) {
    if (rc != CURLSHE_OK) {
        LogCurlFailure(failed, rc, curl_share_strerror(rc));
    }
    return rc == CURLSHE_OK;
}

inline bool SslSucceeded(int rc, const FailedCall& failed) {
    if (rc <= 0) {
        LogOpenSslFailure(failed);
    }
    return rc > 0;
}

inline bool SslSucceeded(const void* pointer, const FailedCall& failed) {
    return SslSucceeded(pointer != nullptr ? 1 : 0, failed);
}

}  // namespace pwhost
