#include "ProcessMemory.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace pwsupport {

namespace {

long StatusKiB(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, strlen(key), key) == 0) {
            return strtol(line.c_str() + strlen(key), nullptr, 10);
        }
    }
    return -1;
}

}  // namespace

long ResidentKiB() {
    return StatusKiB("VmRSS:");
}

long PeakResidentKiB() {
    return StatusKiB("VmHWM:");
}

bool ResetResidentPeak() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return static_cast<bool>(clear);
}

}  // namespace pwsupport
