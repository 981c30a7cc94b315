// Agent settings: directory layout, feedback profile, config file overrides, the disable
// marker, and the key-colon-value reader shared with the history file.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomeAgent"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "FileSystem.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomeConfig.h"
#include "PhoneHomeLog.h"
#include "PhoneHomePluginImp.h"
#include "PhoneHomeText.h"
#include "RegularFile.h"
#include "XmlParser.h"

namespace {

// The history and the config file hold a few short lines; anything larger is not theirs.
const size_t kMaxKeyValueFileBytes = 1024 * 1024;

}  // namespace

bool CPhoneHomeAgent::InitPhoneHomeAgent() {
    m_tstrFeedbackDir =
        std::string(phonehome::kInstallDir) + "/" + phonehome::kFeedbackDirName + "/";
    m_tstrOutboundDir = m_tstrFeedbackDir + "outbound" + "/";
    std::string moduleDataDir = m_tstrFeedbackDir + "moduledata" + "/";
    m_tstrHistoryFile = m_tstrFeedbackDir + "history";
    m_tstrConfigFile = m_tstrFeedbackDir + "config";
    m_tstrProfileFile = m_tstrFeedbackDir + phonehome::kProfileFileName;

    struct stat status;
    const bool outboundExisted = lstat(m_tstrOutboundDir.c_str(), &status) == 0;
    for (const std::string* directory : {&moduleDataDir, &m_tstrFeedbackDir, &m_tstrOutboundDir}) {
        if (MakeSureDirectoryPathExists(directory->c_str()) == 0) {
            PH_LOG(PH_ERROR, "Failed to create %s Directory", directory->c_str());
            return false;
        }
    }
    // Reports and the history are the service's alone, whatever the umask of the process
    // that loads the plug-in: a new outbound directory is made private silently, one that
    // was already open to others (and an old history) is tightened and said so.
    std::string outbound = m_tstrOutboundDir.substr(0, m_tstrOutboundDir.size() - 1);
    RestrictToOwnerAtStart(outbound, S_IRWXU, outboundExisted);
    RestrictToOwnerAtStart(m_tstrHistoryFile, S_IRUSR | S_IWUSR, true);

    LoadSettingsFromXmlFile();
    LoadSettingsFromConfigFile();

    if (!GetMachineID(m_tstrMachineID)) {
        SHA1Hash("DefaultMachineID", m_tstrMachineID);
        PH_LOG(PH_WARNING, "Unable to retrieve machineID, using default: %s",
               m_tstrMachineID.c_str());
    }

    std::string statusFile = moduleDataDir + CPhoneHomeUtility::sm_tstrPhoneHomeStatusFileName;
    if (m_bDisabled) {
        // Never through a link, never blocked by a FIFO, and only a regular file counts.
        int fd = open(statusFile.c_str(),
                      O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW, 0666);
        struct stat status;
        bool created = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
        if (fd >= 0) {
            close(fd);
        }
        if (!created) {
            PH_LOG(PH_ERROR, "Failed to create phoneHome status file");
            return false;
        }
        return true;
    }
    // The first start after the service is re-enabled removes the marker and fails; the
    // next start proceeds. Other components rely on this sequence.
    if (IsRegularFile(statusFile, ELinkPolicy::NoFollow) && remove(statusFile.c_str()) == 0) {
        PH_LOG(PH_ERROR, "Failed to remove phoneHome status file");
        return false;
    }

    LoadHistory();
    return InitPhoneHomePayload();
}

void CPhoneHomeAgent::LoadSettingsFromXmlFile() {
    std::unique_ptr<PhoneHomeXmlMgr> handler(new PhoneHomeXmlMgr());
    std::unique_ptr<XmlParser> parser(new XmlParser(handler.get()));
    long result = parser->parseFile(m_tstrProfileFile, false);
    if (result != 0) {
        PH_LOG_RC(PH_ERROR, "XmlParser::parseFile", result, "%s", parser->lastError().c_str());
    } else {
        m_bDisabled = handler->GetServiceDisable();
        m_bIncludeCrashReport = handler->GetIncludeCrashReport();
        if (!handler->GetCustomerID().empty()) {
            m_tstrCustomerID = handler->GetCustomerID();
        }
        if (handler->GetFeedbackInterval() != 0) {
            m_uiFeedbackInterval = static_cast<unsigned int>(handler->GetFeedbackInterval());
        }
        if (handler->GetCheckCrashInterval() != 0) {
            m_uiCheckCrashInterval = static_cast<unsigned int>(handler->GetCheckCrashInterval());
        }
    }
    parser.reset();
    handler.reset();
}

void CPhoneHomeAgent::LoadSettingsFromConfigFile() {
    if (!LoadFileToMap(m_tstrConfigFile, m_mapConfig)) {
        return;
    }
    const std::string& feedback = m_mapConfig["feedback_interval"];
    if (!feedback.empty()) {
        m_uiFeedbackInterval = static_cast<unsigned int>(phonehome::ParseLong32(feedback));
    }
    const std::string& checkCrash = m_mapConfig["check_crash_interval"];
    if (!checkCrash.empty()) {
        m_uiCheckCrashInterval = static_cast<unsigned int>(phonehome::ParseLong32(checkCrash));
    }
}

// History and config are small: a file over kMaxKeyValueFileBytes is refused like one that
// cannot be opened. Lines are taken from the file's bytes where they lie.
bool CPhoneHomeAgent::LoadFileToMap(const std::string& path,
                                    std::map<std::string, std::string>& map) {
    CRegularFile file;
    std::string content;
    if (!file.Open(path, ELinkPolicy::Follow) || file.Size() > kMaxKeyValueFileBytes ||
        !file.ReadAll(content)) {
        PH_LOG(PH_WARNING, "Can't open file %s", path.c_str());
        return false;
    }
    for (size_t start = 0; start < content.size();) {
        size_t end = content.find('\n', start);
        if (end == std::string::npos) {
            end = content.size();
        }
        const size_t lineStart = start;
        start = end + 1;
        if (end == lineStart || content[lineStart] == '#') {
            continue;
        }
        size_t colon = content.find(':', lineStart);
        if (colon == std::string::npos || colon >= end) {
            continue;
        }
        size_t valueEnd = content.find('\r', colon + 1);
        if (valueEnd == std::string::npos || valueEnd > end) {
            valueEnd = end;
        }
        map[phonehome::AsciiLower(content.substr(lineStart, colon - lineStart))] =
            content.substr(colon + 1, valueEnd - colon - 1);
    }
    return true;
}

void CPhoneHomeAgent::RestrictToOwnerAtStart(const std::string& path, mode_t mode, bool existed) {
    mode_t previous = 0;
    int changed = RestrictToOwner(path, mode, previous);
    if (changed < 0) {
        PH_LOG(PH_WARNING, "Can't restrict %s to its owner: %s", path.c_str(), strerror(errno));
    } else if (changed > 0 && existed) {
        PH_LOG(PH_WARNING, "%s was open to other users (mode %03o), restricted to its owner",
               path.c_str(), static_cast<unsigned int>(previous & 0777));
    }
}
