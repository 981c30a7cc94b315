#include "commands/CommandSupport.h"

#include <algorithm>
#include <cstdio>

#include "store/StoreLog.h"

namespace collector {

bool ReadOptions(const std::vector<std::string>& args, const std::vector<std::string>& allowed,
                 const char* usage, std::map<std::string, std::string>& options) {
    for (size_t i = 0; i < args.size(); i += 2) {
        const std::string& name = args[i];
        if (name.compare(0, 2, "--") != 0 ||
            std::find(allowed.begin(), allowed.end(), name.substr(2)) == allowed.end() ||
            i + 1 >= args.size() || options.count(name.substr(2)) != 0) {
            fprintf(stderr, "usage: pathweave-collector %s\n", usage);
            return false;
        }
        options[name.substr(2)] = args[i + 1];
    }
    return true;
}

std::unique_ptr<Store> OpenForCommand(const std::string& database) {
    std::string error;
    std::unique_ptr<Store> store = Store::Open(database, error);
    if (!store) {
        CommandFailed("cannot open the store: " + error);
    }
    return store;
}

void CommandFailed(const std::string& message) {
    fprintf(stderr, "pathweave-collector: %s\n", message.c_str());
    STORE_LOG(CAppLog::Error, "%s", message.c_str());
}

}  // namespace collector
