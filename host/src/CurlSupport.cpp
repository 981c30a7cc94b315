// libcurl set-up, failure logging and the shared caches of the HTTPS client.
#include "CurlSupport.h"

#include <map>
#include <mutex>
#include <vector>

#include "HostLogInternal.h"
#include "HttpSessionCurl.h"

namespace {

const char kLogSource[] = "host/src/CurlSupport";

}  // namespace

namespace pwhost {

bool CurlGlobalInit() {
    static std::once_flag once;
    static CURLcode rc = CURLE_OK;
    std::call_once(once, []() {
        (void)PWHOST_CURL_OK(rc = curl_global_init(CURL_GLOBAL_DEFAULT), pwresult::kHttpInitFailed);
    });
    return rc == CURLE_OK;
}

void LogCurlFailure(const FailedCall& failed, int rc, const char* text) {
    CAppLog::LogReturnCode(failed.function, failed.source, failed.line, failed.importance,
                           failed.call, failed.code, "libcurl error %d: %s", rc, text);
}

void LogOpenSslFailure(const FailedCall& failed) {
    std::string text;
    unsigned long error;
    while ((error = ERR_get_error()) != 0) {
        char buffer[256];
        ERR_error_string_n(error, buffer, sizeof buffer);
        if (!text.empty()) {
            text += "; ";
        }
        text += buffer;
    }
    CAppLog::LogReturnCode(failed.function, failed.source, failed.line, failed.importance,
                           failed.call, failed.code, "%s",
                           text.empty() ? "no OpenSSL error queued" : text.c_str());
}

void CurlMultiDeleter::operator()(CURLM* handle) const {
    (void)PWHOST_CURL_CHECK(CAppLog::Warning, curl_multi_cleanup(handle),
                            pwresult::kHttpTransferFailed);
}

bool SlistAppend(CurlSlistPtr& list, const std::string& line) {
    curl_slist* extended = curl_slist_append(list.get(), line.c_str());
    if (extended == nullptr) {
        PWHOST_LOG(CAppLog::Error, "curl_slist_append failed (out of memory)");
        return false;
    }
    list.release();
    list.reset(extended);
    return true;
}

std::shared_ptr<CurlShare> CurlShare::Create(bool connections) {
    if (!CurlGlobalInit()) {
        return nullptr;
    }
    std::shared_ptr<CurlShare> share(new CurlShare);
    share->m_handle = curl_share_init();
    if (share->m_handle == nullptr) {
        PWHOST_LOG(CAppLog::Error, "curl_share_init failed");
        return nullptr;
    }
    struct Option {
        CURLSHoption option;
        long value;
        const char* name;
    };
    std::vector<Option> options = {
        {CURLSHOPT_LOCKFUNC, 0, "CURLSHOPT_LOCKFUNC"},
        {CURLSHOPT_UNLOCKFUNC, 0, "CURLSHOPT_UNLOCKFUNC"},
        {CURLSHOPT_USERDATA, 0, "CURLSHOPT_USERDATA"},
        {CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS, "CURL_LOCK_DATA_DNS"},
    };
    if (connections) {
        options.push_back({CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT, "CURL_LOCK_DATA_CONNECT"});
        options.push_back(
            {CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION, "CURL_LOCK_DATA_SSL_SESSION"});
    }
    for (const Option& option : options) {
        CURLSHcode rc;
        switch (option.option) {
            case CURLSHOPT_LOCKFUNC:
                rc = curl_share_setopt(share->m_handle, option.option, &CurlShare::Lock);
                break;
            case CURLSHOPT_UNLOCKFUNC:
                rc = curl_share_setopt(share->m_handle, option.option, &CurlShare::Unlock);
                break;
            case CURLSHOPT_USERDATA:
                rc = curl_share_setopt(share->m_handle, option.option, share.get());
                break;
            default:
                rc = curl_share_setopt(share->m_handle, option.option, option.value);
                break;
        }
        if (rc != CURLSHE_OK) {
            PWHOST_LOG_RESULT(CAppLog::Error, "curl_share_setopt", pwresult::kHttpInitFailed,
                              "%s: %s", option.name, curl_share_strerror(rc));
            return nullptr;
        }
    }
    return share;
}

CurlShare::~CurlShare() {
    // Still in use by a handle, the share is left alone rather than memory in use freed.
    if (m_handle != nullptr) {
        (void)PWHOST_CURL_CHECK(CAppLog::Warning, curl_share_cleanup(m_handle),
                                pwresult::kHttpTransferFailed);
    }
}

void CurlShare::Lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<CurlShare*>(self)->m_locks[data].lock();
}

void CurlShare::Unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<CurlShare*>(self)->m_locks[data].unlock();
}

std::shared_ptr<CurlShare> CurlShare::ProcessDns() {
    static std::mutex mutex;
    static std::shared_ptr<CurlShare>* dns = new std::shared_ptr<CurlShare>;  // lives to exit
    std::lock_guard<std::mutex> lock(mutex);
    if (!*dns) {
        *dns = Create(false);
    }
    return *dns;
}

std::shared_ptr<CurlShare> CurlShare::ThreadConnections(const std::string& policy) {
    // The thread's shares end with the thread; sessions that still use one keep it alive.
    thread_local std::map<std::string, std::shared_ptr<CurlShare>> shares;
    std::shared_ptr<CurlShare>& share = shares[policy];
    if (!share) {
        share = Create(true);
    }
    return share;
}

}  // namespace pwhost
