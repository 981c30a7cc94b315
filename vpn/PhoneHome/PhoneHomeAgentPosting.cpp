// Posting of the outbound files: each file of the outbound directory is posted as the body
// "data=" + its bytes, deleted once the server took it, and a failure stops the scan and
// arms the retry timer (or gives up until the next cycle).
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "FileSystem.h"
#include "FileUploader.h"
#include "PhoneHomeAgent.h"
#include "RegularFile.h"

#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomeAgent"
#include "PhoneHomeLog.h"

namespace {

// The largest file that is posted (16 MiB); a larger one is refused before it is read.
const long long kMaxPostFileSize = 0x1000000;
const char kBodyPrefix[] = "data=";
const size_t kBodyPrefixLength = sizeof kBodyPrefix - 1;

}  // namespace

bool CPhoneHomeAgent::PostDataFile(const std::string& path) {
    // Only a regular file is posted: a FIFO or a device here must not hold the service.
    CRegularFile file;
    if (!file.Open(path, ELinkPolicy::Follow)) {
        PH_LOG(PH_ERROR, "Unable to open file (%s)", path.c_str());
        return false;
    }
    if (static_cast<long long>(file.Size()) > kMaxPostFileSize) {
        PH_LOG(PH_ERROR, "File size exceeds maximum size limit (%d)",
               static_cast<int>(kMaxPostFileSize));
        return false;
    }
    size_t n = file.Size();

    // "data=", the n bytes, a NUL that is not sent.
    std::unique_ptr<char[]> body(new (std::nothrow) char[n + 6]);
    if (!body ||
        ReadExactly(file.Get(), body.get() + kBodyPrefixLength, n) != static_cast<ssize_t>(n)) {
        PH_LOG(PH_ERROR, "Failed to read file (%s) content", path.c_str());
        return false;
    }
    memcpy(body.get(), kBodyPrefix, kBodyPrefixLength);
    body[kBodyPrefixLength + n] = '\0';

    if (m_bCompressData) {
        // Data that does not shrink is not compressed: the output may not exceed the input.
        std::unique_ptr<char[]> packed(new (std::nothrow) char[n + 6]);
        uLongf packedLength = static_cast<uLongf>(n);
        if (!packed ||
            compress(reinterpret_cast<Bytef*>(packed.get() + kBodyPrefixLength), &packedLength,
                     reinterpret_cast<const Bytef*>(body.get() + kBodyPrefixLength),
                     static_cast<uLong>(n)) != Z_OK) {
            PH_LOG(PH_WARNING, "Can't compress feedback data");
        } else {
            memcpy(packed.get(), kBodyPrefix, kBodyPrefixLength);
            n = static_cast<size_t>(packedLength);
            packed[kBodyPrefixLength + n] = '\0';
            body = std::move(packed);
        }
    }

    long result = 0;
    CFileUploader* uploader = new (std::nothrow) CFileUploader(
        result, "Pathweave", m_tstrServerURL, true, "", "", "", "", m_tstrUploaderParam, false,
        true, static_cast<unsigned short>(m_uiServerPort), true);
    if (uploader == nullptr) {
        PH_LOG(PH_ERROR, "Unable to create the uploader for (%s)", path.c_str());
        return false;
    }
    // Published at once, so that Stop() can terminate its session.
    SetFileUploader(uploader);
    if (result != 0) {
        // The failed uploader stays in m_pFileUploader; the next post or the destructor
        // deletes it.
        PH_LOG_RC(PH_ERROR, "CFileUploader::CFileUploader", result);
        return false;
    }

    std::string reply;
    long rc = uploader->PostDataGetResponse(m_tstrServerURL, body.get(),
                                            static_cast<int>(n + kBodyPrefixLength), reply,
                                            m_bCompressData);
    DestroyFileUploader();
    if (rc != 0) {
        PH_LOG_RC(PH_ERROR, "CFileUploader::PostDataGetResponse", rc,
                  "Failed to post customer experence feedback data (%s)", path.c_str());
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::ScanAndPostFile(unsigned int retrySeconds) {
    long result = 0;
    Directory directory(result, m_tstrOutboundDir);
    if (result != 0) {
        PH_LOG_RC(PH_ERROR, "ScanAndPostFile", 0,
                  "Can't read Customer Experience Feedback outbound directory %s",
                  m_tstrOutboundDir.c_str());
        return false;
    }
    for (;;) {
        if (m_bStopRequested) {
            return true;
        }
        std::string name;
        if (directory.ReadDir(name) != 0) {
            return true;
        }
        if (name == "." || name == "..") {
            continue;
        }
        // Every other entry is posted, in the order the directory yields them.
        const std::string path = m_tstrOutboundDir + name;
        if (!PostDataFile(path)) {
            break;
        }
        UpdateTimeInHistory("last_post");
        if (!IsRegularFile(path, ELinkPolicy::Follow) || remove(path.c_str()) != 0) {
            PH_LOG(PH_WARNING, "Can't remove %s", path.c_str());
        }
        PH_LOG(PH_INFO, " File posted to PhoneHome server");
    }
    // The first failure ends the scan; the remaining files wait for the retry or next cycle.
    if (retrySeconds != 0) {
        long rc = m_pPostRetryTimer != nullptr
                      ? m_pPostRetryTimer->StartTimer(retrySeconds * 1000UL)
                      : pwresult::kTimerFailed;
        if (rc != 0) {
            PH_LOG_RC(PH_ERROR, "CTimer::StartTimer", rc);
        }
    } else {
        PH_LOG(PH_WARNING, "post failed, give up this time.");
    }
    return true;
}
