// The host's module settings file: what the client's modules report to the feedback
// service when it asks for their settings.
//
//   KEY=VALUE      a string setting (replaces)
//   KEY+=VALUE     a string appended to the list under KEY
//   KEY#=NUMBER    an integer setting
//
// Blank lines and lines starting with "#" are ignored.
#pragma once

#include <string>
#include <vector>

#include "IBencodeSettings.h"

struct ModuleSetting {
    enum Kind { String, ListItem, Integer } kind;
    std::string key;
    std::string value;
    long long number = 0;
};

// false with `error` naming the file and line when the file cannot be read or a line is bad.
bool LoadModuleSettingsFile(const std::string& path, std::vector<ModuleSetting>& settings,
                            std::string& error);

// Inserts every setting; returns the number that the adapter refused.
unsigned int InsertModuleSettings(const std::vector<ModuleSetting>& settings,
                                  IBencodeSettings& target);
