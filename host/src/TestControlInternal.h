// Framework-internal access to the test overrides.
#pragma once

#include <string>

#include "OsVersion.h"

namespace pwhost {
bool OsVersionOverride(OS_VERSION_INFO& record);
bool DeviceIdOverride(std::string& deviceId);
}  // namespace pwhost
