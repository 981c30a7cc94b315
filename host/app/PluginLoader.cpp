#include "PluginLoader.h"

#include <dlfcn.h>

PluginLoader::~PluginLoader() {
    if (m_handle != nullptr) {
        dlclose(m_handle);
    }
}

bool PluginLoader::Load(const std::string& path, std::string& error) {
    m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_handle == nullptr) {
        const char* text = dlerror();
        error = text != nullptr ? text : "dlopen failed";
        return false;
    }
    createPlugin = reinterpret_cast<CreatePluginFn>(dlsym(m_handle, "CreatePlugin"));
    disposePlugin = reinterpret_cast<DisposePluginFn>(dlsym(m_handle, "DisposePlugin"));
    getAvailableInterfaces =
        reinterpret_cast<GetAvailableInterfacesFn>(dlsym(m_handle, "GetAvailableInterfaces"));
    if (createPlugin == nullptr || disposePlugin == nullptr || getAvailableInterfaces == nullptr) {
        error =
            "the library does not export CreatePlugin, DisposePlugin and GetAvailableInterfaces";
        return false;
    }
    return true;
}
