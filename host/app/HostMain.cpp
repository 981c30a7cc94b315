// pathweave-host: loads the feedback plug-in, runs its service on a thread of its own
// until SIGINT or SIGTERM, and answers status queries through the status interface.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
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
#include "XmlParser.h"

namespace {

struct Options {
    std::string command = "run";
    std::string pluginPath = PW_DEFAULT_PLUGIN;
    std::string settingsPath;  // empty: the default file, when it exists
    std::string modulesPath;
};

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: pathweave-host [--plugin LIB] [--settings FILE] [--modules FILE] "
            "[run|status|interfaces]\n"
            "  run         load the feedback plug-in and run its service until SIGINT/SIGTERM\n"
            "  status      print the profile read, whether feedback is enabled, its name\n"
            "  interfaces  list the interfaces the plug-in offers\n"
            "  --plugin    path of libPhoneHome.so (default %s)\n"
            "  --settings  host settings file (default %s, optional there)\n"
            "  --modules   module settings reported to the service (KEY=V, KEY+=V, KEY#=N)\n"
            "  --version   print the product version and exit\n",
            PW_DEFAULT_PLUGIN, PW_DEFAULT_HOST_SETTINGS);
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
        } else if (arg == "--version") {
            printf("pathweave-host %s (build %s)\n", PW_PRODUCT_VERSION, PW_PRODUCT_BUILD);
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
        fprintf(stderr, "pathweave-host: --plugin needs a path\n");
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

// The service thread reports its end with this signal; it is blocked in every thread and
// taken only by the main thread's sigwait.
int ServiceEndedSignal() {
    return SIGRTMIN;
}

// The signals the running host takes with sigwait.
sigset_t HostSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, ServiceEndedSignal()}) {
        sigaddset(&signals, sig);
    }
    return signals;
}

// Waits up to `milliseconds` for the service thread's end; true once it has ended.
bool WaitForServiceEnd(long milliseconds) {
    sigset_t ended;
    sigemptyset(&ended);
    sigaddset(&ended, ServiceEndedSignal());
    timespec timeout{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    return sigtimedwait(&ended, nullptr, &timeout) == ServiceEndedSignal();
}

// Stops the service whatever point of its life it has reached. A stop that arrives before
// the service thread has entered the plug-in's loop is not taken (the plug-in reports it is
// not running), so the host waits until the service reports running, then stops it, and
// repeats the stop with a growing pause for as long as the thread has not ended. The first
// repeat comes after a stop would normally have ended the loop (an upload in progress is cut
// short within 100 ms), so a normal stop is sent once.
void StopService(IPhoneHomePlugin& service) {
    while (service.IsPhoneHomeRunning() != 0) {
        if (WaitForServiceEnd(1)) {
            return;
        }
    }
    long pauseMs = 200;
    for (;;) {
        service.StopPhoneHome();
        if (WaitForServiceEnd(pauseMs)) {
            return;
        }
        pauseMs = pauseMs < 1600 ? pauseMs * 2 : pauseMs;
    }
}

int RunService(PluginLoader& loader, const Options& options) {
    Plugin* plugin = loader.createPlugin(PHONEHOME_PLUGIN_INTERFACE_NAME);
    if (plugin == nullptr) {
        fprintf(stderr, "pathweave-host: the plug-in could not create the feedback service\n");
        return 1;
    }
    IPhoneHomePlugin* service = static_cast<IPhoneHomePlugin*>(plugin);
    HostCallback callback(options.modulesPath);
    service->SetPhoneHomePluginCB(&callback);

    // main() blocked the signals; they are taken by this thread alone (the service thread
    // inherits the mask).
    sigset_t signals = HostSignals();
    std::thread serviceThread([service] {
        service->StartPhoneHome();
        kill(getpid(), ServiceEndedSignal());
    });

    for (;;) {
        int received = 0;
        if (sigwait(&signals, &received) != 0) {
            continue;
        }
        if (received == ServiceEndedSignal()) {
            break;
        }
        if (received == SIGHUP) {
            // logrotate moved the log file away: write on into a new one.
            CAppLog::ReopenLogFile();
            continue;
        }
        if (received == SIGUSR1) {
            // The client reports that its plug-in directory changed.
            service->PluginDirChanged();
            continue;
        }
        CAppLog::LogDebugMessage("RunService", "host/app/HostMain", __LINE__, CAppLog::Information,
                                 "%s, stopping the feedback service", strsignal(received));
        StopService(*service);
        break;
    }
    serviceThread.join();
    service->UnSetPhoneHomePluginCB();
    loader.disposePlugin(plugin);
    return 0;
}

// Reads the profile the way the plug-in does, for the status report: its path, and
// whether it is missing or does not parse (the plug-in then runs with its defaults).
std::string DescribeProfile() {
    struct IgnoreElements : XmlMgr {
        void addElement(const std::string&) override {}
        void endElement(const std::string&) override {}
        void setElementValue(const std::string&) override {}
        void addAttribute(const std::string&, const std::string&) override {}
    } ignore;
    std::string text = PW_PROFILE_PATH;
    if (access(PW_PROFILE_PATH, F_OK) != 0) {
        return text + " (missing: the defaults apply)";
    }
    XmlParser parser(&ignore);
    if (parser.parseFile(PW_PROFILE_PATH, false) != 0) {
        std::string reason = parser.lastError();
        if (reason.compare(0, text.size() + 2, text + ": ") == 0) {
            reason.erase(0, text.size() + 2);  // the reason without the path named above
        }
        return text + " (does not parse: " + reason + "; the defaults apply)";
    }
    return text;
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
    printf("profile: %s\nenabled: %s\nname: %s\n", DescribeProfile().c_str(),
           enabled ? "yes" : "no", name.data());
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

// Reads and applies the host settings: the given file, or else the default file when it
// exists. Started by hand (stderr is a terminal), problems are shown there too, not only in
// the configured log.
bool ApplySettings(const Options& options) {
    std::string path = options.settingsPath;
    if (path.empty()) {
        if (access(PW_DEFAULT_HOST_SETTINGS, F_OK) != 0) {
            return true;
        }
        path = PW_DEFAULT_HOST_SETTINGS;
    }
    const bool byHand = isatty(STDERR_FILENO) != 0;
    if (byHand) {
        CAppLog::ConfigureSinks(CAppLog::ConfiguredSinks() | CAppLog::SinkStderr);
    }
    pwhost::HostSettings settings;
    if (!pwhost::LoadHostSettings(path, settings)) {
        fprintf(stderr, "pathweave-host: cannot read host settings %s\n", path.c_str());
        return false;
    }
    pwhost::ApplyHostSettings(settings);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    // Reports, history and copies of crash dumps are private to the service's user: every
    // file and directory the plug-in creates is made without group or other access.
    umask(077);
    Options options;
    if (!ParseOptions(argc, argv, options)) {
        PrintUsage(stderr);
        return 2;
    }
    if (options.command == "run") {
        // From here on a stop request waits for the service instead of ending the process,
        // so that a SIGTERM during start-up still ends with the history saved.
        sigset_t signals = HostSignals();
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }
    if (!ApplySettings(options)) {
        return 1;
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
