// Framework-internal pieces with contracts of their own, reachable by the unit tests.
#pragma once

#include <string>
#include <vector>

namespace pwhost {

// Major, minor and build numbers of a kernel release text ("6.1.0-18-amd64" gives 6, 1, 0):
// the leading dot-separated decimal numbers, a missing one 0, each saturated at the
// largest unsigned value.
void ParseKernelRelease(const char* release, unsigned int& major, unsigned int& minor,
                        unsigned int& build);

// The first non-empty identifier among the files in `paths` (surrounding white space
// removed). false when none holds one.
bool ReadMachineId(const std::vector<std::string>& paths, std::string& id);

}  // namespace pwhost
