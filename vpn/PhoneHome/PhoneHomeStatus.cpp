// The component status object: enabled state and display name, from the profile.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomePluginImp"

#include <cstring>
#include <memory>

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

void CPhoneHomeStatus::LoadStatusFromConfigFile(bool& enabled, bool& includeCrashReport) {
    std::unique_ptr<PhoneHomeXmlMgr> handler(new PhoneHomeXmlMgr());
    std::unique_ptr<XmlParser> parser(new XmlParser(handler.get()));
    long result = parser->parseFile(m_tstrConfigFilePath, false);
    if (result != 0) {
        PH_LOG_RC(PH_ERROR, "XmlParser::parseFile", result, "%s", parser->lastError().c_str());
        return;
    }
    enabled = !handler->GetServiceDisable();
    if (enabled) {
        includeCrashReport = handler->GetIncludeCrashReport();
    }
}

long CPhoneHomeStatus::IsEnabled(bool& enabled) {
    enabled = true;
    bool includeCrashReport = false;
    LoadStatusFromConfigFile(enabled, includeCrashReport);
    return 0;
}

long CPhoneHomeStatus::GetDisplayName(char* buffer, unsigned int& size) {
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
