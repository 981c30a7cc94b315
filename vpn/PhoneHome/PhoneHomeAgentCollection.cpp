// Module data collection: each pending module's feedback file is taken into the payload's
// "ModuleData", the payload is written as a numbered outbound file, and posting follows.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomeAgent"

#include <cerrno>
#include <cstdio>
#include <sstream>

#include "PhoneHomeAgent.h"
#include "RegularFile.h"
#include "PhoneHomeLog.h"

namespace {

const unsigned int kMaxSequenceNumber = 100;

}  // namespace

bool CPhoneHomeAgent::CollectPhoneHomeDataAndSend(bool& timerRestarted) {
    timerRestarted = false;
    CBencodeDictionary* moduleData = nullptr;
    if (m_pQualityImprovementData == nullptr ||
        !m_pQualityImprovementData->Get("ModuleData", moduleData, true)) {
        PH_LOG(PH_ERROR, "Failed to get \"ModuleData\" dictionary");
        return false;
    }

    for (auto entry = m_mapPendingModules.begin(); entry != m_mapPendingModules.end();) {
        long result = GetModuleData(entry->first, entry->second, *moduleData);
        if (result == eBencodeLockError) {
            ++entry;  // its writer holds the file: try again shortly
        } else {
            entry = m_mapPendingModules.erase(entry);
        }
    }

    if (!m_mapPendingModules.empty()) {
        if (m_uiCollectRetryCount != 0) {
            long rc = m_pPhoneHomeTimer->StartTimer(kCollectRetryDelayMs);
            if (rc != 0) {
                PH_LOG_RC(PH_ERROR, "StartTimer", rc, "Failure in starting phoneHome timer");
                return false;
            }
            --m_uiCollectRetryCount;
            timerRestarted = true;
            return true;
        }
        PH_LOG(PH_ERROR, "Failed to collect phoneHome data from all the components");
        m_uiCollectRetryCount = kCollectRetries;
    }
    m_mapPendingModules.clear();

    std::string prefix = m_tstrOutboundDir + "feedback_data";
    UpdateTimeInHistory("last_feedback");
    if (!CreateBencodeFile(prefix)) {
        PH_LOG(PH_ERROR, "Failure to create phoneHome bencode file");
        return false;
    }
    m_uiPostRetryCount = kPostRetries;
    if (!ScanAndPostFile(kPostRetryDelaySeconds)) {
        PH_LOG(PH_ERROR, "ScanAndPostFile failed");
        return false;
    }
    return true;
}

long CPhoneHomeAgent::GetModuleData(const std::string& moduleName, const std::string& fileKey,
                                    CBencodeDictionary& moduleData) {
    std::string path;
    if (!m_ModuleSettings.Get(fileKey, path)) {
        return 0;  // the module reported no file this time
    }
    // The file stream tells a missing file from a failed open by errno alone, so whatever an
    // earlier call left there (a refused post, another module's lock) must not count.
    errno = 0;
    EBencodeResult result = eBencodeSuccess;
    CBencodeDictionary* data = new CBencodeDictionary(path, result, false);
    if (result != eBencodeSuccess) {
        PH_LOG(PH_ERROR, "Failed to internalize %s Module data", moduleName.c_str());
        delete data;
        return result;
    }
    // The tree holds the module's data now; the file's bytes need not stay in memory beside
    // it until the report is written.
    data->GetStream()->ResetStream();
    if (!moduleData.Insert(moduleName, data)) {
        PH_LOG(PH_ERROR, "Failed to insert %s module dictionary", moduleName.c_str());
        return -1;
    }
    if (!IsRegularFile(path, ELinkPolicy::Follow) || remove(path.c_str()) != 0) {
        PH_LOG(PH_ERROR, "Failed to remove %s module specific dictionary file", path.c_str());
    }
    return 0;
}

bool CPhoneHomeAgent::CreateBencodeFile(const std::string& pathPrefix) {
    unsigned int count = m_PhoneHomePayload.Size();
    CBencode* last = count > 0 ? m_PhoneHomePayload[count - 1] : nullptr;
    CBencodeList* level2 = dynamic_cast<CBencodeList*>(last);
    if (level2 == nullptr || level2->GetType() != CBencode::eBencodeList) {
        PH_LOG(PH_ERROR, "Failure in retrieving Bencoded phoneHome payload structure");
        return false;
    }
    if (!UpdateLevel2Payload(*level2)) {
        PH_LOG(PH_ERROR,
               "Failure in updating current time in Bencoded phoneHome payload structure");
        return false;
    }

    std::ostringstream name;
    name << pathPrefix << m_uiSequenceNumber << ".cef";
    if (!name) {
        PH_LOG(PH_ERROR, "Failed to create phoneHome outbound filename");
        return false;
    }
    m_PhoneHomePayload.SetBencodeFileName(name.str());
    m_PhoneHomePayload.GetStream()->SetOwnerOnly(true);  // reports are private to the service
    EBencodeResult written = m_PhoneHomePayload.Externalize();

    // What was gathered is dropped whether or not it reached the disk: the next file
    // starts from the fixed header again.
    if (m_pQualityImprovementData != nullptr) {
        m_pQualityImprovementData->Reset();
    }
    if (written != eBencodeSuccess) {
        PH_LOG_RC(PH_ERROR, "CBencodeList::Externalize", written,
                  "Failed to externalize phoneHome payload");
        return false;
    }

    if (++m_uiSequenceNumber > kMaxSequenceNumber) {
        m_uiSequenceNumber = 1;
    }
    if (!SaveHistoryFile()) {
        PH_LOG(PH_ERROR, "SaveHistoryFile Failed");
        return false;
    }
    return true;
}
