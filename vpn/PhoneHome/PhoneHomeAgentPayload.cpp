// The feedback payload tree and the machine identifier.
//
//   [7, machine id, 3, [period start, period end, {QualityImprovementData, OSDetails,
//    PhoneHomeFormatVersion, PWVersion, MachineId, CustomerId}]]
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomeAgent"

#include <openssl/evp.h>

#include <clocale>
#include <cstdio>
#include <memory>
#include <string>

#include "DeviceIDInfo.h"
#include "HostClock.h"
#include "OsVersion.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomeConfig.h"
#include "PhoneHomeLog.h"

namespace {

struct DigestContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

const char* OsName() {
    if (IsOs_LINUX()) {
        return "Linux";
    }
    if (IsOs_MAC()) {
        return "Mac";
    }
    if (IsOs_WINNT_XP_Only()) {
        return "WinXP";
    }
    if (IsOs_WIN_VISTA_Only()) {
        return "Vista";
    }
    if (IsOs_WIN_7_Only()) {
        return "Win7";
    }
    if (IsOs_WIN_8_Only()) {
        return "Win8";
    }
    return "Unknown";
}

}  // namespace

bool CPhoneHomeAgent::InitPhoneHomePayload() {
    m_PhoneHomePayload.Reset();
    m_pQualityImprovementData = nullptr;

    if (!BuildLevel1Payload(m_PhoneHomePayload)) {
        PH_LOG(PH_ERROR, "Failed to create level 1 payload");
        return false;
    }
    CBencodeList* level2 = nullptr;
    if (!m_PhoneHomePayload.Append(level2)) {
        PH_LOG(PH_ERROR, "Failed to create level 2 payload");
        return false;
    }
    if (!BuildLevel2Payload(*level2)) {
        PH_LOG(PH_ERROR, "Failed to create level 2 payload");
        return false;
    }
    CBencodeDictionary* level3 = nullptr;
    if (!level2->Append(level3)) {
        PH_LOG(PH_ERROR, "Failed to create level 3 payload");
        return false;
    }
    if (!level3->Get("QualityImprovementData", m_pQualityImprovementData, true)) {
        PH_LOG(PH_ERROR, "Failed to create QualityImprovementData dictionary");
        return false;
    }
    return BuildLevel3Payload(*level3);
}

bool CPhoneHomeAgent::BuildLevel1Payload(CBencodeList& list) {
    if (!list.Append(7LL)) {
        PH_LOG(PH_ERROR, "Failed to append message_types_id to list");
        return false;
    }
    if (!list.Append(m_tstrMachineID)) {
        PH_LOG(PH_ERROR, "Failed to append authentication_string to list");
        return false;
    }
    if (!list.Append(3LL)) {
        PH_LOG(PH_ERROR, "Failed to append protocol_version_number to list");
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::BuildLevel2Payload(CBencodeList& list) {
    if (m_uiCollectionPeriodStart == 0) {
        m_uiCollectionPeriodStart = GetCurrentTimeSeconds();
    }
    if (!list.Append(static_cast<long long>(m_uiCollectionPeriodStart))) {
        PH_LOG(PH_ERROR, "Failed to append unix_timestamp_of_collection_period_start to list");
        return false;
    }
    m_uiCollectionPeriodStart = GetCurrentTimeSeconds();
    if (!list.Append(static_cast<long long>(m_uiCollectionPeriodStart))) {
        PH_LOG(PH_ERROR, "Failed to append unix_timestamp_of_collection_period_end to list");
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::UpdateLevel2Payload(CBencodeList& level2) {
    CBencode* start = level2.Size() > 0 ? level2[0] : nullptr;
    if (start == nullptr || !start->Set(static_cast<long long>(m_uiCollectionPeriodStart))) {
        PH_LOG(PH_ERROR, "Failed to update timestamp of the last report sent");
        return false;
    }
    m_uiCollectionPeriodStart = GetCurrentTimeSeconds();
    CBencode* end = level2.Size() > 1 ? level2[1] : nullptr;
    if (end == nullptr || !end->Set(static_cast<long long>(m_uiCollectionPeriodStart))) {
        PH_LOG(PH_ERROR, "Failed to update timestamp of the current report sent");
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::BuildLevel3Payload(CBencodeDictionary& dict) {
    if (!InsertOSDetails(dict)) {
        PH_LOG(PH_ERROR, "Failed to insert OS details to level 3 dictionary");
        return false;
    }
    if (!dict.Insert("PhoneHomeFormatVersion", std::string("1.0"))) {
        PH_LOG(PH_ERROR, "Failed to insert \"PhoneHomeFormatVersion\" to level 3 dictionary");
        return false;
    }
    if (!dict.Insert("PWVersion", std::string(phonehome::kProductVersion))) {
        PH_LOG(PH_ERROR, "Failed to insert \"PWVersion\" to level 3 dictionary");
        return false;
    }
    if (!dict.Insert("MachineId", m_tstrMachineID)) {
        // The product-version text is what this failure has always been reported as.
        PH_LOG(PH_ERROR, "Failed to insert \"PWVersion\" to level 3 dictionary");
        return false;
    }
    if (m_tstrCustomerID.empty()) {
        return true;
    }
    if (!dict.Insert("CustomerId", m_tstrCustomerID)) {
        PH_LOG(PH_ERROR, "Failed to insert \"CustomerId\" to level 3 dictionary");
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::InsertOSDetails(CBencodeDictionary& dict) {
    CBencodeDictionary* details = nullptr;
    if (!dict.Get("OSDetails", details, true)) {
        PH_LOG(PH_ERROR, "Failed to get OSDetails dictionary");
        return false;
    }
    OS_VERSION_INFO os = GetOsVersion();
    os.szOSType[sizeof os.szOSType - 1] = '\0';
    os.szVersionDetails[sizeof os.szVersionDetails - 1] = '\0';
    if (!details->Insert("OSType", std::string(os.szOSType))) {
        PH_LOG(PH_ERROR, "Failed to insert OSType into dictionary");
        return false;
    }
    if (!details->Insert("OSMajorVersion", static_cast<long long>(os.dwMajorVersion))) {
        PH_LOG(PH_ERROR, "Failed to insert OSMajorVersion into dictionary");
        return false;
    }
    if (!details->Insert("OSMinorVersion", static_cast<long long>(os.dwMinorVersion))) {
        PH_LOG(PH_ERROR, "Failed to insert OSMinorVersion into dictionary");
        return false;
    }
    if (!details->Insert("OSBuildVersion", static_cast<long long>(os.dwBuildNumber))) {
        PH_LOG(PH_ERROR, "Failed to insert OSBuildVersion into dictionary");
        return false;
    }
    if (!details->Insert("OSVersionDetails", std::string(os.szVersionDetails))) {
        PH_LOG(PH_ERROR, "Failed to insert OSVersionDetails into dictionary");
        return false;
    }
    if (!details->Insert("OSName", std::string(OsName()))) {
        PH_LOG(PH_ERROR, "Failed to insert OSName into dictionary");
        return false;
    }

    // The environment's locale is what setlocale adopts for an empty name; the process
    // locale is put back at once.
    const char* current = setlocale(LC_ALL, nullptr);
    std::string saved(current != nullptr ? current : "C");
    const char* environment = setlocale(LC_ALL, "");
    if (environment == nullptr) {
        PH_LOG(PH_ERROR, "Failed to get System Locale information");
        return false;
    }
    std::string locale(environment);
    if (setlocale(LC_ALL, saved.c_str()) == nullptr) {
        PH_LOG(PH_ERROR, "Failed to restore Locale");
    }
    if (!details->Insert("OSLocale", locale)) {
        PH_LOG(PH_ERROR, "Failed to insert OSLocale into dictionary");
        return false;
    }
    return true;
}

bool CPhoneHomeAgent::GetMachineID(std::string& id) {
    DeviceIDInfo info;
    std::string deviceId;
    if (!info.GetDeviceID(deviceId)) {
        return false;
    }
    return SHA1Hash(deviceId, id);
}

bool CPhoneHomeAgent::SHA1Hash(const std::string& in, std::string& out) {
    unsigned char digest[64] = {0};
    const EVP_MD* method = EVP_sha1();
    std::unique_ptr<EVP_MD_CTX, DigestContextFree> context(EVP_MD_CTX_new());
    if (context == nullptr || EVP_DigestInit_ex(context.get(), method, nullptr) == 0) {
        PH_LOG(PH_ERROR, "EVP_DigestInit_ex failed");
        return false;
    }
    if (EVP_DigestUpdate(context.get(), in.data(), in.size()) == 0) {
        PH_LOG(PH_ERROR, "EVP_DigestUpdate failed");
        return false;
    }
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest, &length) == 0) {
        PH_LOG(PH_ERROR, "EVP_DigestFinal_ex failed");
        return false;
    }
    int size = EVP_MD_size(method);
    if (static_cast<int>(length) != size) {
        PH_LOG(PH_ERROR, "EVP_DigestFinal_ex returned unexpected length");
        return false;
    }
    std::string text;
    text.reserve(static_cast<size_t>(size) * 2);
    for (int i = 0; i < size; ++i) {
        char hex[3];
        snprintf(hex, sizeof hex, "%02x", static_cast<unsigned int>(digest[i]));
        text.append(hex, 2);
    }
    out = text;
    return true;
}
