// The history file: what the agent last did and when, the next report sequence number and
// the product version that wrote it; and the first-expiry arithmetic built on it.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomeAgent"

#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "HostClock.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomeConfig.h"
#include "PhoneHomeLog.h"
#include "PhoneHomeText.h"
#include "RegularFile.h"

namespace {

const unsigned int kMinimumFirstExpirySeconds = 600;
const unsigned int kMaxLoadedSequenceNumber = 99;
const mode_t kHistoryMode = S_IRUSR | S_IWUSR;

// An unsigned decimal read by a text stream; accepted only when the whole text was the
// number (the stream ends exactly at end-of-file, no failure).
bool ParseWholeUnsigned(const std::string& text, unsigned int& value) {
    std::istringstream stream(text);
    unsigned int parsed = 0;
    stream >> parsed;
    if (stream.rdstate() != std::ios::eofbit) {
        return false;
    }
    value = parsed;
    return true;
}

}  // namespace

void CPhoneHomeAgent::LoadHistory() {
    LoadFileToMap(m_tstrHistoryFile, m_mapHistory);

    auto sequence = m_mapHistory.find("last_sequence_number");
    if (sequence != m_mapHistory.end()) {
        unsigned int value = 0;
        if (ParseWholeUnsigned(sequence->second, value) && value <= kMaxLoadedSequenceNumber) {
            m_uiSequenceNumber = value;
        } else {
            PH_LOG_AS("InitPhoneHomeAgent", PH_ERROR,
                      "Illegal sequence number, using default value (%d)",
                      static_cast<int>(m_uiSequenceNumber));
        }
    }

    auto lastPost = m_mapHistory.find("last_post");
    if (lastPost != m_mapHistory.end()) {
        unsigned int value = 0;
        if (ParseWholeUnsigned(lastPost->second, value)) {
            m_uiCollectionPeriodStart = value;
        } else {
            PH_LOG_AS("InitPhoneHomeAgent", PH_ERROR,
                      "Illegal last reported time, using default value (%d)",
                      static_cast<int>(m_uiCollectionPeriodStart));
        }
    }

    CAppLog::LogMessage(Logging::PHONEHOME_SETTINGS_SUMMARY, m_bDisabled ? "Disabled" : "Enabled",
                        m_tstrMachineID.c_str(), m_tstrCustomerID.c_str(), m_tstrServerURL.c_str(),
                        m_bIncludeCrashReport ? "Yes" : "No", m_uiCheckCrashInterval,
                        m_uiFeedbackInterval, m_uiSequenceNumber);

    // After an upgrade the recorded times belong to another version: forget them, so the
    // first jobs come soon after start. Sequence number and period start are kept.
    const std::string& version = m_mapHistory["last_version_number"];
    if (!version.empty() && version != phonehome::kProductVersion) {
        m_mapHistory.clear();
        PH_LOG_AS("InitPhoneHomeAgent", PH_WARNING,
                  "Pathweave version changed, current version is %s.", phonehome::kProductVersion);
    }
}

// Rewritten in place, only when the path is a regular file (never through a link, never
// blocked by a FIFO), and readable by its owner alone whatever the umask.
bool CPhoneHomeAgent::SaveHistoryFile() {
    CFileDescriptor file(OpenRegularFileForWriting(m_tstrHistoryFile, false, kHistoryMode));
    if (!file.Valid()) {
        PH_LOG(PH_WARNING, "Can't open hostory file for write");
        return false;
    }
    m_mapHistory["last_sequence_number"] = std::to_string(m_uiSequenceNumber);
    std::string text = std::string("last_version_number:") + phonehome::kProductVersion + "\n";
    for (const char* key : {"last_sequence_number", "last_post", "last_feedback",
                            "last_crash_report", "last_threat_report"}) {
        text.append(key).append(":").append(m_mapHistory[key]).append("\n");
    }
    // Not fatal: a history that another user owns keeps its mode (and reveals nothing new).
    (void)fchmod(file.Get(), kHistoryMode);
    if (ftruncate(file.Get(), 0) != 0 || !WriteAll(file.Get(), text.data(), text.size())) {
        PH_LOG(PH_WARNING, "Failed to update history file");
        return false;
    }
    return true;
}

void CPhoneHomeAgent::UpdateTimeInHistory(char const* key) {
    if (key == nullptr) {
        return;
    }
    m_mapHistory[key] = std::to_string(GetCurrentTimeSeconds());
}

unsigned int CPhoneHomeAgent::CalcRemainingSeconds(char const* key, unsigned int intervalSeconds) {
    // Read as the 32-bit long of the service's target: a time past 2038 saturates and
    // counts as recorded in the future.
    int32_t last = phonehome::ParseLong32(m_mapHistory[key]);
    if (last == 0) {
        return kMinimumFirstExpirySeconds;
    }
    int32_t elapsed = static_cast<int32_t>(GetCurrentTimeSeconds() - static_cast<uint32_t>(last));
    if (elapsed < 0) {
        return intervalSeconds;  // recorded in the future: wait one full interval
    }
    int32_t remaining = static_cast<int32_t>(intervalSeconds - static_cast<uint32_t>(elapsed));
    return remaining > static_cast<int32_t>(kMinimumFirstExpirySeconds)
               ? static_cast<unsigned int>(remaining)
               : kMinimumFirstExpirySeconds;
}
