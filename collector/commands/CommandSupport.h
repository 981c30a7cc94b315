// What the store's commands share: their options read, their store opened.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "store/Store.h"

namespace collector {

// Reads "--name VALUE" pairs of `args` into `options`; every name must be in `allowed`.
// False (the usage printed on stderr) on anything else.
bool ReadOptions(const std::vector<std::string>& args, const std::vector<std::string>& allowed,
                 const char* usage, std::map<std::string, std::string>& options);

// Opens `database`; null (logged and printed on stderr) when it cannot.
std::unique_ptr<Store> OpenForCommand(const std::string& database);

// The end of a bulk load (import, migrate) through `store`: builds the store's read
// indexes, those it deferred and any that a killed load left unbuilt, then makes what it
// stored durable. False (reported) when it cannot.
bool FinishBulkLoad(Store& store, bool deferred, const std::string& command);

// Prints on stderr and logs a command's failure.
void CommandFailed(const std::string& message);

}  // namespace collector
