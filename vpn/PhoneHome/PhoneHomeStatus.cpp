// The component status object: enabled state and display name, from the profile.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomePluginImp"

#include <cstring>
#include <memory>

#include "AllocationGuard.h"
#include "PhoneHomeConfig.h"
#include "PhoneHomeLog.h"
#include "PhoneHomePluginImp.h"
#include "SafeString.h"
#include "UITranslator.h"

CPhoneHomeStatus::CPhoneHomeStatus() {
    m_tstrConfigFilePath.append(phonehome::kInstallDir);
    m_tstrConfigFilePath.append("/");
    m_tstrConfigFilePath.append(phonehome::kFeedbackDirName);
    m_tstrConfigFilePath.append("/");
    m_tstrConfigFilePath.append(phonehome::kProfileFileName);
}

CPhoneHomeStatus::~CPhoneHomeStatus() {}

bool CPhoneHomeStatus::SupportsInterface(const char* name, unsigned int version) {
    return name != nullptr && strcmp(name, COMPONENT_STATUS_INTERFACE_NAME) == 0 && version == 1;
}

// A profile that cannot be read, for want of memory too, leaves the values as they are.
void CPhoneHomeStatus::LoadStatusFromConfigFile(bool& enabled, bool& includeCrashReport) {
    long result = pwresult::kOutOfResources;
    bool disabled = false;
    bool withCrashReports = false;
    std::string error;
    phonehome::RanWithMemory([&] {
        std::unique_ptr<PhoneHomeXmlMgr> handler(new PhoneHomeXmlMgr());
        std::unique_ptr<XmlParser> parser(new XmlParser(handler.get()));
        result = parser->parseFile(m_tstrConfigFilePath, false);
        error = parser->lastError();
        disabled = handler->GetServiceDisable();
        withCrashReports = handler->GetIncludeCrashReport();
    });
    if (result != 0) {
        phonehome::RanWithMemory(
            [&] { PH_LOG_RC(PH_ERROR, "XmlParser::parseFile", result, "%s", error.c_str()); });
        return;
    }
    enabled = !disabled;
    if (enabled) {
        includeCrashReport = withCrashReports;
    }
}

long CPhoneHomeStatus::IsEnabled(bool& enabled) {
    enabled = true;
    bool includeCrashReport = false;
    LoadStatusFromConfigFile(enabled, includeCrashReport);
    return 0;
}

long CPhoneHomeStatus::GetDisplayName(char* buffer, unsigned int& size) {
    return phonehome::UnlessOutOfMemory(pwresult::kFailure,
                                        [&] { return DisplayName(buffer, size); });
}

long CPhoneHomeStatus::DisplayName(char* buffer, unsigned int& size) {
    bool enabled = true;
    bool includeCrashReport = false;
    LoadStatusFromConfigFile(enabled, includeCrashReport);

    UITranslator translator;
    const char* translated = translator.translate(enabled && includeCrashReport
                                                      ? UITranslator::PhoneHomeWithCrashDumpName
                                                      : UITranslator::PhoneHomeComponentName);
    std::string text(translated != nullptr ? translated : "");

    unsigned int needed = static_cast<unsigned int>(text.size()) + 1;
    if (buffer != nullptr && needed <= size) {
        safe_strlcpyA(buffer, text.c_str(), size);
        return 0;
    }
    size = needed;
    return pwresult::kBufferTooSmall;
}
