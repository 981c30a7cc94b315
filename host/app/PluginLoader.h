// Loads the plug-in library and resolves its three entry points.
#pragma once

#include <string>

#include "PluginInterfaces.h"

class PluginLoader {
public:
    PluginLoader() = default;
    ~PluginLoader();

    // false with `error` set when the library or an entry point is missing.
    bool Load(const std::string& path, std::string& error);

    CreatePluginFn createPlugin = nullptr;
    DisposePluginFn disposePlugin = nullptr;
    GetAvailableInterfacesFn getAvailableInterfaces = nullptr;

    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

private:
    void* m_handle = nullptr;
};
