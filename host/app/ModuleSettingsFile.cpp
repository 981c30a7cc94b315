#include "ModuleSettingsFile.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

bool LoadModuleSettingsFile(const std::string& path, std::vector<ModuleSetting>& settings,
                            std::string& error) {
    std::ifstream in(path);
    if (!in.is_open()) {
        error = "cannot open module settings file " + path;
        return false;
    }
    std::string line;
    unsigned int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        size_t equals = line.find('=');
        if (equals == std::string::npos || equals == 0) {
            error = path + ":" + std::to_string(number) + ": expected KEY=VALUE";
            return false;
        }
        ModuleSetting setting;
        setting.kind = ModuleSetting::String;
        size_t keyEnd = equals;
        if (line[equals - 1] == '+') {
            setting.kind = ModuleSetting::ListItem;
            keyEnd = equals - 1;
        } else if (line[equals - 1] == '#') {
            setting.kind = ModuleSetting::Integer;
            keyEnd = equals - 1;
        }
        setting.key = line.substr(0, keyEnd);
        setting.value = line.substr(equals + 1);
        if (setting.key.empty()) {
            error = path + ":" + std::to_string(number) + ": empty key";
            return false;
        }
        if (setting.kind == ModuleSetting::Integer) {
            char* end = nullptr;
            errno = 0;
            setting.number = strtoll(setting.value.c_str(), &end, 10);
            if (errno != 0 || end == setting.value.c_str() || *end != '\0') {
                error = path + ":" + std::to_string(number) + ": not an integer: " + setting.value;
                return false;
            }
        }
        settings.push_back(setting);
    }
    return true;
}

unsigned int InsertModuleSettings(const std::vector<ModuleSetting>& settings,
                                  IBencodeSettings& target) {
    unsigned int refused = 0;
    for (const ModuleSetting& setting : settings) {
        bool ok = false;
        switch (setting.kind) {
            case ModuleSetting::String:
                ok = target.Insert(setting.key.c_str(), setting.value.c_str(), false);
                break;
            case ModuleSetting::ListItem:
                ok = target.Insert(setting.key.c_str(), setting.value.c_str(), true);
                break;
            case ModuleSetting::Integer:
                ok = target.Insert(setting.key.c_str(), setting.number);
                break;
        }
        if (!ok) {
            ++refused;
        }
    }
    return refused;
}
