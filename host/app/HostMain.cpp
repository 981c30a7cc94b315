// pathweave-host: loads the feedback plug-in, runs its service on a thread of its own
// until SIGINT or SIGTERM, and answers status queries through the status interface.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "AppLog.h"
#include "HostSettings.h"
#include "ModuleSettingsFile.h"
#include "PluginLoader.h"

namespace {

struct Options {
    std::string command = "run";
    std::string pluginPath;
    std::string settingsPath;
    std::string modulesPath;
};

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: pathweave-host [--plugin LIB] [--settings FILE] [--modules FILE] "
            "[run|status|interfaces]\n"
            "  run         load the feedback plug-in and run its service until SIGINT/SIGTERM\n"
            "  status      print whether feedback is enabled and its display name\n"
            "  interfaces  list the interfaces the plug-in offers\n"
            "  --plugin    path of libPhoneHome.so\n"
            "  --settings  host settings file (log sinks, CA file, connect-to, time scale)\n"
            "  --modules   module settings reported to the service (KEY=V, KEY+=V, KEY#=N)\n");
}

bool ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](std::string& target) {
            if (i + 1 >= argc) {
                fprintf(stderr, "pathweave-host: %s needs a value\n", arg.c_str());
                return false;
            }
            target = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            PrintUsage(stdout);
            exit(0);
        } else if (arg == "--plugin") {
            if (!value(options.pluginPath))
                return false;
        } else if (arg == "--settings") {
            if (!value(options.settingsPath))
                return false;
        } else if (arg == "--modules") {
            if (!value(options.modulesPath))
                return false;
        } else if (arg == "run" || arg == "status" || arg == "interfaces") {
            options.command = arg;
        } else {
            fprintf(stderr, "pathweave-host: unknown argument %s\n", arg.c_str());
            return false;
        }
    }
    if (options.pluginPath.empty()) {
        fprintf(stderr, "pathweave-host: --plugin is required\n");
        return false;
    }
    return true;
}

// The host's callback: each request re-reads the module settings file, so that a change to
// it shows at the next request.
class HostCallback : public IPhoneHomePluginCB {
public:
    explicit HostCallback(std::string path) : m_path(std::move(path)) {}

    long GetSettingsCB(IBencodeSettings& settings) override {
        if (m_path.empty()) {
            return 0;
        }
        std::vector<ModuleSetting> entries;
        std::string error;
        if (!LoadModuleSettingsFile(m_path, entries, error)) {
            CAppLog::LogDebugMessage("GetSettingsCB", "host/app/HostMain", __LINE__, CAppLog::Error,
                                     "%s", error.c_str());
            return -1;
        }
        unsigned int refused = InsertModuleSettings(entries, settings);
        CAppLog::LogDebugMessage("GetSettingsCB", "host/app/HostMain", __LINE__,
                                 CAppLog::Information, "reported %zu module settings (%u refused)",
                                 entries.size(), refused);
        return 0;
    }

private:
    std::string m_path;
};

int RunService(PluginLoader& loader, const Options& options) {
    Plugin* plugin = loader.createPlugin(PHONEHOME_PLUGIN_INTERFACE_NAME);
    if (plugin == nullptr) {
        fprintf(stderr, "pathweave-host: the plug-in could not create the feedback service\n");
        return 1;
    }
    IPhoneHomePlugin* service = static_cast<IPhoneHomePlugin*>(plugin);
    HostCallback callback(options.modulesPath);
    service->SetPhoneHomePluginCB(&callback);

    // SIGINT and SIGTERM are taken by this thread alone; the service thread reports its end
    // with SIGUSR1.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    std::thread serviceThread([service] {
        service->StartPhoneHome();
        kill(getpid(), SIGUSR1);
    });

    int received = 0;
    sigwait(&signals, &received);
    if (received != SIGUSR1) {
        fprintf(stderr, "pathweave-host: %s, stopping\n", strsignal(received));
        service->StopPhoneHome();
    }
    serviceThread.join();
    service->UnSetPhoneHomePluginCB();
    loader.disposePlugin(plugin);
    return 0;
}

int PrintStatus(PluginLoader& loader) {
    Plugin* plugin = loader.createPlugin(COMPONENT_STATUS_INTERFACE_NAME);
    if (plugin == nullptr) {
        fprintf(stderr, "pathweave-host: the plug-in has no status interface\n");
        return 1;
    }
    IComponentStatus* status = static_cast<IComponentStatus*>(plugin);
    bool enabled = false;
    status->IsEnabled(enabled);
    unsigned int size = 0;
    status->GetDisplayName(nullptr, size);
    std::vector<char> name(size + 1, '\0');
    status->GetDisplayName(name.data(), size);
    printf("enabled: %s\nname: %s\n", enabled ? "yes" : "no", name.data());
    loader.disposePlugin(plugin);
    return 0;
}

int PrintInterfaces(PluginLoader& loader) {
    PluginInterfaceList list = loader.getAvailableInterfaces();
    for (unsigned int i = 0; i < list.count; ++i) {
        printf("%s %u\n", list.interfaces[i].name, list.interfaces[i].version);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        PrintUsage(stderr);
        return 2;
    }
    if (!options.settingsPath.empty()) {
        pwhost::HostSettings settings;
        if (!pwhost::LoadHostSettings(options.settingsPath, settings)) {
            fprintf(stderr, "pathweave-host: cannot read host settings %s\n",
                    options.settingsPath.c_str());
            return 2;
        }
        pwhost::ApplyHostSettings(settings);
    }
    PluginLoader loader;
    std::string error;
    if (!loader.Load(options.pluginPath, error)) {
        fprintf(stderr, "pathweave-host: cannot load %s: %s\n", options.pluginPath.c_str(),
                error.c_str());
        return 1;
    }
    if (options.command == "status") {
        return PrintStatus(loader);
    }
    if (options.command == "interfaces") {
        return PrintInterfaces(loader);
    }
    return RunService(loader, options);
}
