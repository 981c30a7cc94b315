// pathweave-collector: the feedback server. Reads its settings, sets up logging and the
// clock as the host does, and runs one command.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "AppLog.h"
#include "CollectorSettings.h"
#include "Commands.h"
#include "HostSettings.h"
#include "server/Serve.h"

namespace {

const char kDefaultConfig[] = "/etc/pathweave/collector.conf";

const char kUsage[] =
    "Usage: pathweave-collector [--config FILE] COMMAND [ARGUMENTS]\n"
    "       pathweave-collector --help | --version\n"
    "\n"
    "Receives the feedback reports of Pathweave clients, validates and keeps them, and\n"
    "serves them to the dashboard.\n"
    "\n"
    "Commands:\n"
    "  serve                        the service: receive reports, serve the dashboard\n"
    "  import [--received TIME] PATH...\n"
    "                               store report files or posted bodies from disk (each\n"
    "                               --received for the paths after it)\n"
    "  export [--since DATE] [--until DATE] [--kind KIND] [--machine ID]\n"
    "                               stored reports as JSON Lines on standard output\n"
    "  purge --older-than DAYS | purge --machine ID\n"
    "                               remove reports received before DAYS ago, or a machine's\n"
    "  migrate --to DATABASE        copy every report to another database\n"
    "  stats                        counts by kind and day, duplicates, damaged, machines\n"
    "\n"
    "Options:\n"
    "  --config FILE   settings file (default /etc/pathweave/collector.conf)\n"
    "  --help          this text\n"
    "  --version       the product version\n"
    "\n"
    "Exit status: 0 done, 1 failed (see the log), 2 usage error.\n";

int UsageError(const std::string& message) {
    fprintf(stderr, "pathweave-collector: %s\n\n%s", message.c_str(), kUsage);
    return 2;
}

// Settings from `path`. The default file may be missing (the defaults apply); a file named
// on the command line must be there.
bool LoadSettings(const std::string& path, bool named, collector::CollectorSettings& settings) {
    struct stat status;
    if (!named && stat(path.c_str(), &status) != 0 && errno == ENOENT) {
        CAppLog::LogDebugMessage(__func__, "collector/main", __LINE__, CAppLog::Information,
                                 "%s does not exist: the default settings apply", path.c_str());
        return true;
    }
    if (!collector::LoadCollectorSettings(path, settings)) {
        fprintf(stderr, "pathweave-collector: cannot read %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    return true;
}

// Log sinks and the clock, as the host applies its own settings.
void ApplySettings(const collector::CollectorSettings& settings) {
    pwhost::HostSettings host;
    host.logSinks = settings.logSinks;
    host.logFile = settings.logFile;
    host.timeScale = settings.timeScale;
    host.clockStart = settings.clockStart;
    pwhost::ApplyHostSettings(host);
}

}  // namespace

int main(int argc, char** argv) {
    std::string config = kDefaultConfig;
    bool configNamed = false;
    std::string command;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--config") {
            if (i + 1 == argc) {
                return UsageError("--config needs a file");
            }
            config = argv[++i];
            configNamed = true;
        } else if (command.empty() && (argument == "--help" || argument == "-h")) {
            fputs(kUsage, stdout);
            return 0;
        } else if (command.empty() && argument == "--version") {
            printf("pathweave-collector %s\n", PW_PRODUCT_VERSION);
            return 0;
        } else if (command.empty() && !argument.empty() && argument[0] == '-') {
            return UsageError("unknown option " + argument);
        } else if (command.empty()) {
            command = argument;
        } else {
            args.push_back(argument);
        }
    }
    if (command.empty()) {
        return UsageError("no command");
    }
    static const char* const kCommands[] = {"serve", "import",  "export",
                                            "purge", "migrate", "stats"};
    bool known = false;
    for (const char* name : kCommands) {
        known = known || command == name;
    }
    if (!known) {
        return UsageError("unknown command " + command);
    }
    if (command == "serve" && !args.empty()) {
        return UsageError("serve takes no arguments");
    }

    collector::CollectorSettings settings;
    if (!LoadSettings(config, configNamed, settings)) {
        return 1;
    }
    ApplySettings(settings);

    if (command == "serve") {
        return collector::RunServe(settings);
    }
    if (command == "import") {
        return collector::RunImport(settings, args);
    }
    if (command == "export") {
        return collector::RunExport(settings, args);
    }
    if (command == "purge") {
        return collector::RunPurge(settings, args);
    }
    if (command == "migrate") {
        return collector::RunMigrate(settings, args);
    }
    return collector::RunStats(settings, args);
}
