// Build constants of the plug-in: installation directory, product version, default
// feedback server. The installation directory comes from the build (test and demo builds
// point it into the build tree).
#pragma once

namespace phonehome {
extern const char* const kInstallDir;        // e.g. /opt/norvek/pathweave
extern const char* const kProductVersion;    // e.g. 5.1.00123
extern const char* const kDefaultServerURL;  // https URL of the feedback server
}  // namespace phonehome
