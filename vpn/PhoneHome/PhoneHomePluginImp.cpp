// Exported entry points and the feedback plug-in object.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomePluginImp"

#include "PhoneHomePluginImp.h"

#include <cstring>

#include "AllocationGuard.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomeLog.h"

using phonehome::RanWithMemory;
using phonehome::UnlessOutOfMemory;

extern "C" {

const PluginInterface g_AvailableInterfaces[2] = {
    {PHONEHOME_PLUGIN_INTERFACE_NAME, 1},
    {COMPONENT_STATUS_INTERFACE_NAME, 1},
};

Plugin* CreatePlugin(const char* interfaceName) {
    if (interfaceName == nullptr) {
        return nullptr;
    }
    if (strcmp(interfaceName, PHONEHOME_PLUGIN_INTERFACE_NAME) == 0) {
        long result = 0;
        CPhoneHomePlugin* plugin = UnlessOutOfMemory<CPhoneHomePlugin*>(
            nullptr, [&result] { return new CPhoneHomePlugin(result); });
        if (plugin == nullptr || result != 0) {
            RanWithMemory([&] {
                PH_LOG_RC(PH_WARNING, "CreatePlugin",
                          plugin == nullptr ? pwresult::kOutOfResources : result);
            });
            delete static_cast<Plugin*>(plugin);
            return nullptr;
        }
        return plugin;
    }
    if (strcmp(interfaceName, COMPONENT_STATUS_INTERFACE_NAME) == 0) {
        return UnlessOutOfMemory<Plugin*>(nullptr, [] { return new CPhoneHomeStatus(); });
    }
    return nullptr;
}

bool DisposePlugin(Plugin* plugin) {
    delete plugin;
    return true;
}

PluginInterfaceList GetAvailableInterfaces() {
    PluginInterfaceList list;
    list.interfaces = g_AvailableInterfaces;
    list.count = 2;
    return list;
}

}  // extern "C"

CPhoneHomePlugin::CPhoneHomePlugin(long& result)
    : m_pPhoneHomePluginCB(nullptr), m_bRunning(false), m_pPhoneHomeAgent(nullptr) {
    m_pPhoneHomeAgent = new CPhoneHomeAgent(result, *this);
}

CPhoneHomePlugin::~CPhoneHomePlugin() {
    if (m_pPhoneHomeAgent != nullptr) {
        RanWithMemory([this] { m_pPhoneHomeAgent->Stop(); });
        delete m_pPhoneHomeAgent;
        m_pPhoneHomeAgent = nullptr;
    }
}

bool CPhoneHomePlugin::SupportsInterface(const char* name, unsigned int version) {
    return name != nullptr && strcmp(name, PHONEHOME_PLUGIN_INTERFACE_NAME) == 0 && version == 1;
}

long CPhoneHomePlugin::StartPhoneHome() {
    if (m_pPhoneHomeAgent == nullptr) {
        return 0;
    }
    m_bRunning = true;
    RanWithMemory([this] { m_pPhoneHomeAgent->Start(); });
    m_bRunning = false;
    return 0;
}

long CPhoneHomePlugin::StopPhoneHome() {
    m_bRunning = false;
    RanWithMemory([this] { m_pPhoneHomeAgent->Stop(); });
    return 0;
}

long CPhoneHomePlugin::IsPhoneHomeRunning() {
    return m_bRunning ? 0 : pwresult::kFailure;
}

long CPhoneHomePlugin::PluginDirChanged() {
    if (!m_bRunning) {
        return pwresult::kFailure;
    }
    RanWithMemory([this] { m_pPhoneHomeAgent->FireDelayGetThreatReportDirTimer(); });
    return 0;
}

long CPhoneHomePlugin::SetPhoneHomePluginCB(IPhoneHomePluginCB* callback) {
    if (callback == nullptr) {
        return pwresult::kNullCallback;
    }
    m_pPhoneHomePluginCB = callback;
    return 0;
}

long CPhoneHomePlugin::UnSetPhoneHomePluginCB() {
    m_pPhoneHomePluginCB = nullptr;
    return 0;
}
