// The plug-in's binary interface with its host: the exported entry points, the interface
// table, the plug-in object interfaces and the host's callback interface. The host and
// the plug-in are built against this one header.
#pragma once

#include "IBencodeSettings.h"

#define PHONEHOME_PLUGIN_INTERFACE_NAME "com.norvek.pathweave.service.customer.feedback"
#define COMPONENT_STATUS_INTERFACE_NAME "com.norvek.pathweave.component.status"

struct PluginInterface {
    const char* name;
    unsigned int version;
};

struct PluginInterfaceList {
    const PluginInterface* interfaces;
    unsigned int count;
};

class Plugin {
public:
    virtual bool SupportsInterface(const char* name, unsigned int version) = 0;
    virtual ~Plugin() {}
};

// Implemented by the host: the agent asks the client's modules for their feedback
// settings through it.
class IPhoneHomePluginCB {
public:
    virtual long GetSettingsCB(IBencodeSettings& settings) = 0;

protected:
    ~IPhoneHomePluginCB() {}
};

class IPhoneHomePlugin : public Plugin {
public:
    virtual long StartPhoneHome() = 0;
    virtual long StopPhoneHome() = 0;
    virtual long IsPhoneHomeRunning() = 0;
    virtual long PluginDirChanged() = 0;
    virtual long SetPhoneHomePluginCB(IPhoneHomePluginCB* callback) = 0;
    virtual long UnSetPhoneHomePluginCB() = 0;
};

class IComponentStatus : public Plugin {
public:
    virtual long IsEnabled(bool& enabled) = 0;
    virtual long GetDisplayName(char* buffer, unsigned int& size) = 0;
};

extern "C" {
typedef Plugin* (*CreatePluginFn)(const char* interfaceName);
typedef bool (*DisposePluginFn)(Plugin* plugin);
typedef PluginInterfaceList (*GetAvailableInterfacesFn)();
}
