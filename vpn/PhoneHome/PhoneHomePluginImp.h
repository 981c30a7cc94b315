// The plug-in's face to the host: the exported entry points, the feedback plug-in object,
// the component status object, the feedback profile reader and the disable-marker test.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "PluginInterfaces.h"
#include "XmlParser.h"

class CPhoneHomeAgent;

#define PHONEHOME_EXPORT __attribute__((visibility("default")))

extern "C" {
PHONEHOME_EXPORT Plugin* CreatePlugin(const char* interfaceName);
PHONEHOME_EXPORT bool DisposePlugin(Plugin* plugin);
PHONEHOME_EXPORT PluginInterfaceList GetAvailableInterfaces();
PHONEHOME_EXPORT extern const PluginInterface g_AvailableInterfaces[2];
}

// The feedback service object. StartPhoneHome blocks on the caller's thread; the other
// operations are called from other threads meanwhile and only set flags or signal.
class CPhoneHomePlugin : public IPhoneHomePlugin {
public:
    explicit CPhoneHomePlugin(long& result);
    ~CPhoneHomePlugin() override;

    bool SupportsInterface(const char* name, unsigned int version) override;
    long StartPhoneHome() override;
    long StopPhoneHome() override;
    long IsPhoneHomeRunning() override;
    long PluginDirChanged() override;
    long SetPhoneHomePluginCB(IPhoneHomePluginCB* callback) override;
    long UnSetPhoneHomePluginCB() override;

    IPhoneHomePluginCB* GetPhoneHomePluginCB() const { return m_pPhoneHomePluginCB.load(); }
    CPhoneHomeAgent* GetAgent() const { return m_pPhoneHomeAgent; }

    CPhoneHomePlugin(const CPhoneHomePlugin&) = delete;
    CPhoneHomePlugin& operator=(const CPhoneHomePlugin&) = delete;

private:
    std::atomic<IPhoneHomePluginCB*> m_pPhoneHomePluginCB;
    std::atomic<bool> m_bRunning;
    CPhoneHomeAgent* m_pPhoneHomeAgent;
};

// The component status object: reads the profile afresh at every query.
class CPhoneHomeStatus : public IComponentStatus {
public:
    CPhoneHomeStatus();
    ~CPhoneHomeStatus() override;

    bool SupportsInterface(const char* name, unsigned int version) override;
    long IsEnabled(bool& enabled) override;
    long GetDisplayName(char* buffer, unsigned int& size) override;

    void LoadStatusFromConfigFile(bool& enabled, bool& includeCrashReport);
    const std::string& GetConfigFilePath() const { return m_tstrConfigFilePath; }

private:
    long DisplayName(char* buffer, unsigned int& size);

    std::string m_tstrConfigFilePath;
};

// Handler of the feedback profile's XML events; keeps the five values of the profile.
class PhoneHomeXmlMgr : public XmlMgr {
public:
    static const std::string sm_tstrFeedback;
    static const std::string sm_tstrServiceDisable;
    static const std::string sm_tstrIncludeCrashReport;
    static const std::string sm_tstrCustomerID;
    static const std::string sm_tstrFeedbackInterval;
    static const std::string sm_tstrCheckCrashInterval;

    PhoneHomeXmlMgr();
    ~PhoneHomeXmlMgr() override;

    void addElement(const std::string& name) override;
    void endElement(const std::string& name) override;
    void setElementValue(const std::string& value) override;
    void addAttribute(const std::string& name, const std::string& value) override;

    bool GetServiceDisable() const { return m_bServiceDisable; }
    bool GetIncludeCrashReport() const { return m_bIncludeCrashReport; }
    const std::string& GetCustomerID() const { return m_tstrCustomerID; }
    long GetFeedbackInterval() const { return m_lFeedbackInterval; }
    long GetCheckCrashInterval() const { return m_lCheckCrashInterval; }

private:
    std::string m_tstrCurrentElement;
    std::string m_tstrCustomerID;
    bool m_bServiceDisable;
    bool m_bIncludeCrashReport;
    int32_t m_lFeedbackInterval;
    int32_t m_lCheckCrashInterval;
};

class CPhoneHomeUtility {
public:
    static const std::string sm_tstrPhoneHomeStatusFileName;
    // false while the disable marker exists (and can be opened) in `directory`.
    static bool IsPhoneHomeEnabled(const std::string& directory);

    CPhoneHomeUtility() = delete;
};

namespace phonehome {
// Directory and file names under the installation directory.
extern const char* const kFeedbackDirName;  // "CustomerExperienceFeedback"
extern const char* const kProfileFileName;  // "CustomerExperience_Feedback.xml"
}  // namespace phonehome
