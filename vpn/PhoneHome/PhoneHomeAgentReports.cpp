// Crash and threat reports: crash files newer than the last check are base64-encoded into
// their own outbound files; files dropped into the watched threat directory are sent as
// text and removed.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomeAgent"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <sstream>

#include "AllocationGuard.h"
#include "Base64.h"
#include "FileSystemWatcher.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomeLog.h"
#include "PhoneHomeText.h"
#include "RegularFile.h"

using phonehome::RanWithMemory;
using phonehome::UnlessOutOfMemory;

namespace {

const unsigned long kThreatDirDelayMs = 600000;
const long long kMaxCrashFileBytes = 16777216;
const unsigned int kThreatWatchMask = 454;  // modify, attrib, moved from/to, create
const unsigned char kRegularFileTypeBit = 8;

const char* const kCrashModules[] = {"VpnModule", "OstraModule", "WebSecurityModule", "GuiModule",
                                     "DownloaderModule"};

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
typedef std::unique_ptr<DIR, DirCloser> DirHandle;

// Lets the base64 encoder read a file's bytes from memory.
class MemoryReader : public std::streambuf {
public:
    explicit MemoryReader(std::string& bytes) {
        setg(&bytes[0], &bytes[0], &bytes[0] + bytes.size());
    }
};

}  // namespace

bool CPhoneHomeAgent::GetFileCreationTime(const std::string& path, unsigned int& time) {
    time = 0;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        return false;
    }
    time = static_cast<unsigned int>(st.st_mtime);
    return true;
}

bool CPhoneHomeAgent::CheckCrashDumps() {
    bool stored = false;
    for (const char* module : kCrashModules) {
        CBencode::EContentType type;
        if (!m_ModuleSettings.GetContentType(module, type)) {
            continue;
        }
        if (type == CBencode::eBencodeString) {
            std::string directory;
            if (m_ModuleSettings.Get(module, directory)) {
                stored = CheckCrashDumps(directory, module) || stored;
            }
        } else if (type == CBencode::eBencodeList) {
            CBencodeList* directories = nullptr;
            if (!m_ModuleSettings.Get(module, directories, false) || directories == nullptr ||
                directories->Size() == 0) {
                continue;
            }
            for (unsigned int i = 0; i < directories->Size(); ++i) {
                CBencode* item = (*directories)[i];
                std::string directory;
                if (item != nullptr && item->GetType() == CBencode::eBencodeString &&
                    item->Get(directory)) {
                    stored = CheckCrashDumps(directory, module) || stored;
                } else {
                    PH_LOG(PH_ERROR, "Invalid bencode list content");
                }
            }
        } else {
            PH_LOG(PH_ERROR, "Unexpected content type (%d) in settings dictionary",
                   static_cast<int>(type));
        }
    }
    if (!stored) {
        return true;
    }
    UpdateTimeInHistory("last_crash_report");
    m_uiPostRetryCount = kPostRetries;
    if (!ScanAndPostFile(kPostRetryDelaySeconds)) {
        PH_LOG(PH_ERROR, "ScanAndPostFile failed");
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::CheckCrashDumps(const std::string& directory, const std::string& moduleName) {
    unsigned int lastReport =
        static_cast<unsigned int>(phonehome::ParseLong32(m_mapHistory["last_crash_report"]));
    DirHandle dir(opendir(directory.c_str()));
    if (!dir) {
        return false;
    }
    size_t slash = directory.rfind('/');
    if (slash == std::string::npos) {
        return false;
    }
    std::string prefix = directory.substr(0, slash + 1);
    bool stored = false;
    while (struct dirent* entry = readdir(dir.get())) {
        if ((entry->d_type & kRegularFileTypeBit) == 0) {
            continue;
        }
        std::string path = prefix + entry->d_name;
        unsigned int fileTime = 0;
        if (!GetFileCreationTime(path, fileTime)) {
            PH_LOG(PH_WARNING, "Failed to get creation time of %s", path.c_str());
            continue;
        }
        if (lastReport < fileTime &&
            UnlessOutOfMemory(false, [&] { return SaveCrashReportToDataFile(path, moduleName); })) {
            stored = true;
        }
    }
    return stored;
}

bool CPhoneHomeAgent::SaveCrashReportToDataFile(const std::string& path,
                                                const std::string& moduleName) {
    // A crash directory may hold anything: a link is refused like a file that cannot be
    // opened, and only a regular file is read, for exactly the size it had when opened.
    CRegularFile file;
    if (!file.Open(path, ELinkPolicy::NoFollow)) {
        PH_LOG_RC(PH_WARNING, "CPhoneHomeAgent::SaveCrashReportToDataFile", 0,
                  "Can't open crash file %s", path.c_str());
        return false;
    }
    if (file.Size() > static_cast<size_t>(kMaxCrashFileBytes)) {
        __builtin_trap();  // a crash file this large means the crash directory is not ours
    }
    // A dump too large to hold, or to hold encoded, is a read failure like any other.
    std::string content;
    std::ostringstream encoded;
    if (!file.ReadAll(content) || !RanWithMemory([&] {
            MemoryReader reader(content);
            std::istream in(&reader);
            lBase64::Encode(in, encoded,
                            static_cast<int>(static_cast<double>(content.size()) * 1.4));
        })) {
        PH_LOG(PH_ERROR, "Failed to get file size of threat report file %s", path.c_str());
        return false;  // nothing readable to send
    }

    CBencodeDictionary* crashReports = nullptr;
    if (m_pQualityImprovementData == nullptr ||
        !m_pQualityImprovementData->Get("CrashReports", crashReports, true)) {
        PH_LOG(PH_ERROR, "Unable to get crash report dictionary");
        return false;
    }
    CBencodeDictionary* moduleReports = nullptr;
    if (!crashReports->Get(moduleName, moduleReports, true)) {
        PH_LOG(PH_ERROR, "Unable to get %s dictionary", moduleName.c_str());
        return false;
    }
    if (!moduleReports->Insert("CrashData", encoded.str())) {
        PH_LOG(PH_ERROR, "Failed to insert crash data into dictionary");
        return false;
    }
    return CreateBencodeFile(m_tstrOutboundDir + "crash_report");
}

bool CPhoneHomeAgent::FireDelayGetThreatReportDirTimer() {
    if (m_pDelayGetThreatReportDirTimer == nullptr) {
        PH_LOG(PH_WARNING, "FireDelayGetThreatReportDirTimer called before creating timer");
        return false;
    }
    long rc = m_pDelayGetThreatReportDirTimer->StartTimer(kThreatDirDelayMs);
    if (rc != 0) {
        PH_LOG_RC(PH_ERROR, "CTimer::StartTimer", rc);
        return false;
    }
    if (m_pWakeupEvent->SetEvent(false) != 0) {
        PH_LOG(PH_ERROR, "SetEvent Failed");
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::CreateThreatReportDirChangeEvent() {
    if (m_pThreatReportDirChangeEvent != nullptr || m_bStopRequested) {
        return false;
    }
    std::string directory;
    if (!m_ModuleSettings.Get("TelemetryModule", directory)) {
        PH_LOG(PH_INFO, "Failed to get threat directory information from settings");
        return false;
    }
    m_tstrThreatReportDir = directory;
    if (!m_tstrThreatReportDir.empty()) {
        long rc = 0;
        m_pThreatReportDirChangeEvent =
            new CFileSystemWatcher(rc, kExecutionContextId, &ThreatReportDirChangeHandler, this,
                                   m_tstrThreatReportDir, kThreatWatchMask);
        if (rc != 0) {
            PH_LOG_RC(PH_ERROR, "CFileSystemWatcher", rc);
        }
    }
    if (m_pWakeupEvent->SetEvent(false) != 0) {
        PH_LOG(PH_ERROR, "SetEvent Failed");
        return false;
    }
    return true;
}

// Called by the host's directory watcher: whatever memory the pass lacks, nothing unwinds
// into the host. A threat file whose report could not be made stays where it is.
void CPhoneHomeAgent::ThreatReportDirChangeHandler(void* context, int event) {
    RanWithMemory([context, event] { OnThreatReportDirChange(context, event); });
}

void CPhoneHomeAgent::OnThreatReportDirChange(void* context, int /*event*/) {
    if (context == nullptr) {
        PH_LOG(PH_WARNING, "Null PhoneHomeAgent pointer");
        return;
    }
    CPhoneHomeAgent& agent = *static_cast<CPhoneHomeAgent*>(context);
    if (agent.m_bStopRequested) {
        return;
    }
    if (agent.m_pThreatReportDirChangeEvent == nullptr) {
        PH_LOG(PH_WARNING, "Null m_pThreatReportDirChangeEvent pointer");
    } else if (!agent.m_pThreatReportDirChangeEvent->IsWatchStillValid()) {
        agent.CreateThreatReportDirChangeEvent();
    }

    // The scan path keeps the two characters that have always ended it.
    std::string scanPath = agent.m_tstrThreatReportDir + "\\*";
    std::map<unsigned int, std::string> byTime;  // oldest first; first path of a second wins
    {
        DirHandle dir(opendir(scanPath.c_str()));
        if (!dir) {
            PH_LOG(PH_WARNING, "opendir failed");
            return;
        }
        while (struct dirent* entry = readdir(dir.get())) {
            if ((entry->d_type & kRegularFileTypeBit) == 0) {
                continue;
            }
            std::string path = scanPath + entry->d_name;
            unsigned int fileTime = 0;
            if (!agent.GetFileCreationTime(path, fileTime)) {
                PH_LOG(PH_WARNING, "Failed to get creation time of %s", path.c_str());
                continue;
            }
            byTime.emplace(fileTime, path);
        }
    }
    for (const auto& entry : byTime) {
        if (agent.m_bStopRequested) {
            break;
        }
        if (UnlessOutOfMemory(false, [&] { return agent.SaveThreatReportToFile(entry.second); }) &&
            (!IsRegularFile(entry.second, ELinkPolicy::NoFollow) ||
             remove(entry.second.c_str()) != 0)) {
            PH_LOG(PH_WARNING, "Can't remove %s", entry.second.c_str());
        }
    }
    agent.m_uiPostRetryCount = kPostRetries;
    UnlessOutOfMemory(false, [&agent] { return agent.ScanAndPostFile(kPostRetryDelaySeconds); });
}

bool CPhoneHomeAgent::SaveThreatReportToFile(const std::string& path) {
    CRegularFile file;
    if (!file.Open(path, ELinkPolicy::NoFollow)) {
        PH_LOG_RC(PH_WARNING, "SaveThreatReportToFile", 0, "Can't open %s", path.c_str());
        return false;
    }
    // A file too large for memory is a failed read, not an exception out of the watcher.
    std::string content;
    if (!file.ReadAll(content)) {
        PH_LOG(PH_ERROR, "Failed to read threat report file %s", path.c_str());
        return false;
    }

    CBencodeDictionary* threatReports = nullptr;
    if (m_pQualityImprovementData == nullptr ||
        !m_pQualityImprovementData->Get("ThreatReports", threatReports, true)) {
        PH_LOG(PH_ERROR, "Unable to get threat report dictionary");
        return false;
    }
    // The incident is text: it ends at the file's first NUL.
    if (!threatReports->Insert("ThreatIncident", std::string(content.c_str()))) {
        PH_LOG(PH_ERROR, "Failed to insert threat data into dictionary");
        return false;
    }
    UpdateTimeInHistory("last_threat_report");
    return CreateBencodeFile(m_tstrOutboundDir + "threat_report");
}
