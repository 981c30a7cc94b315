// pathweave-host: loads the feedback plug-in, runs its service on a thread of its own
// until SIGINT or SIGTERM, and answers status queries through the status interface.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "AppLog.h"
#include "HostSettings.h"
#include "HostStatus.h"
#include "ModuleSettingsFile.h"
#include "PluginLoader.h"

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
            "  status      print the profile read, whether feedback is enabled, its name, the\n"
            "              reports waiting and the history's last post and last feedback\n"
            "  interfaces  list the interfaces the plug-in offers\n"
            "  --plugin    path of libPhoneHome.so (default %s)\n"
            "  --settings  host settings file (default %s, optional there)\n"
            "  --modules   module settings reported to the service (KEY=V, KEY+=V, KEY#=N)\n"
            "  --version   print the product version and exit\n"
            "  --help, -h  print this text and exit\n",
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

// A record an operator must see when starting the host: logged, and written on stderr as
// well unless stderr is one of the log sinks already.
void LogAndShow(const char* function, int line, int importance, const std::string& text) {
    CAppLog::LogDebugMessage(function, "host/app/HostMain", line, importance, "%s", text.c_str());
    if ((CAppLog::ConfiguredSinks() & CAppLog::SinkStderr) == 0) {
        fprintf(stderr, "pathweave-host: %s\n", text.c_str());
    }
}

// The service's start answers success in every case. When it returned before a stop was
// asked for, a disabled service ended as it should; an enabled one failed to start, and the
// exit status tells the service manager so (its restart then tries again).
int EndedByItself(PluginLoader& loader) {
    bool enabled = true;
    if (Plugin* plugin = loader.createPlugin(COMPONENT_STATUS_INTERFACE_NAME)) {
        static_cast<IComponentStatus*>(plugin)->IsEnabled(enabled);
        loader.disposePlugin(plugin);
    }
    if (!enabled) {
        return 0;
    }
    LogAndShow("EndedByItself", __LINE__, CAppLog::Error,
               "the feedback service ended without a stop request while the "
               "profile enables it: its start failed (see the records before)");
    return 1;
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

    bool stopAsked = false;
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
        stopAsked = true;
        StopService(*service);
        break;
    }
    serviceThread.join();
    service->UnSetPhoneHomePluginCB();
    loader.disposePlugin(plugin);
    return stopAsked ? 0 : EndedByItself(loader);
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
    const std::string feedbackDir = PW_FEEDBACK_DIR;
    const std::string history = feedbackDir + "/history";
    printf("profile: %s\nenabled: %s\nname: %s\n", DescribeProfile(PW_PROFILE_PATH).c_str(),
           enabled ? "yes" : "no", name.data());
    printf("outbound: %s\nlast post: %s\nlast feedback: %s\n",
           DescribeOutbound(feedbackDir + "/outbound").c_str(),
           DescribeHistoryTime(history, "last_post").c_str(),
           DescribeHistoryTime(history, "last_feedback").c_str());
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

// Reads the host settings: the file named with --settings, which must be readable, or
// else the default file; without a default file the defaults apply, said once in the log.
bool LoadSelectedSettings(const Options& options, pwhost::HostSettings& settings) {
    std::string path = options.settingsPath;
    if (path.empty()) {
        if (access(PW_DEFAULT_HOST_SETTINGS, F_OK) != 0 && errno == ENOENT) {
            CAppLog::LogDebugMessage("LoadSelectedSettings", "host/app/HostMain", __LINE__,
                                     CAppLog::Information,
                                     "no host settings file %s: the "
                                     "defaults apply",
                                     PW_DEFAULT_HOST_SETTINGS);
            return true;
        }
        path = PW_DEFAULT_HOST_SETTINGS;
    }
    if (!pwhost::LoadHostSettings(path, settings)) {
        fprintf(stderr, "pathweave-host: cannot read host settings %s\n", path.c_str());
        return false;
    }
    return true;
}

// Reads and applies the host settings. Started by hand (stderr is a terminal), what is
// logged while the settings are read shows there too; from then on records go only to
// the sinks the settings choose (syslog when they choose none).
bool ApplySettings(const Options& options) {
    const bool byHand = isatty(STDERR_FILENO) != 0;
    const unsigned int before = CAppLog::ConfiguredSinks();
    if (byHand) {
        CAppLog::ConfigureSinks(before | CAppLog::SinkStderr);
    }
    pwhost::HostSettings settings;
    const bool loaded = LoadSelectedSettings(options, settings);
    if (loaded) {
        pwhost::ApplyHostSettings(settings);
    }
    if (byHand && (!loaded || settings.logSinks == 0)) {
        CAppLog::ConfigureSinks(before);
    }
    return loaded;
}

// The files the service will need later, checked now: the CA file is first read at the
// first post and the module settings file 5 minutes after the start.
void CheckFilesNeededLater(const Options& options) {
    const std::string caFile = pwhost::CurrentHostSettings().caFile;
    if (!caFile.empty()) {
        std::string reason = UnreadableReason(caFile);
        if (!reason.empty()) {
            LogAndShow("CheckFilesNeededLater", __LINE__, CAppLog::Warning,
                       "ca_file " + caFile + " cannot be read (" + reason +
                           "): every post will fail until it can");
        }
    }
    if (!options.modulesPath.empty()) {
        std::vector<ModuleSetting> entries;
        std::string error;
        if (!LoadModuleSettingsFile(options.modulesPath, entries, error)) {
            LogAndShow("CheckFilesNeededLater", __LINE__, CAppLog::Warning,
                       error +
                           ": the service gets no module settings "
                           "unless this is fixed within 5 minutes");
        }
    }
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
    if (options.command == "run") {
        CheckFilesNeededLater(options);
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
