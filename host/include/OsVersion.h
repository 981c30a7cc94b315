// Operating-system description from uname.
#pragma once

struct OS_VERSION_INFO {
    unsigned int dwOSVersionInfoSize;  // sizeof the record
    unsigned int dwMajorVersion;       // from the kernel release, e.g. 6 of 6.1.0-18-amd64
    unsigned int dwMinorVersion;       // e.g. 1
    unsigned int dwBuildNumber;        // e.g. 0
    char szOSType[64];                 // the system name, e.g. "Linux"
    char szVersionDetails[256];        // the full release text, e.g. "6.1.0-18-amd64"
};

OS_VERSION_INFO GetOsVersion();

bool IsOs_LINUX();
bool IsOs_MAC();
bool IsOs_WINNT_XP_Only();
bool IsOs_WIN_VISTA_Only();
bool IsOs_WIN_7_Only();
bool IsOs_WIN_8_Only();
