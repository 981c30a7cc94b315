// The machine's identifier: systemd's machine-id, else D-Bus's copy of it.
#include "DeviceIDInfo.h"

#include <fcntl.h>

#include <cerrno>

#include "HostInternal.h"
#include "HostLogInternal.h"
#include "ResultCodes.h"
#include "TestControlInternal.h"
#include "UniqueFd.h"

namespace {

const char kLogSource[] = "host/src/DeviceIDInfo";
const size_t kMaxIdBytes = 4096;

std::string Trimmed(const std::string& text) {
    const char* blanks = " \t\r\n\v\f";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

}  // namespace

namespace pwhost {

bool ReadMachineId(const std::vector<std::string>& paths, std::string& id) {
    for (const std::string& path : paths) {
        UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd.Valid()) {
            if (errno != ENOENT) {  // an absent file is the usual reason to try the next
                PWHOST_LOG_ERRNO("open", pwresult::kFailure, errno);
            }
            continue;
        }
        std::string content;
        int read = ReadAll(fd.Get(), content, kMaxIdBytes);
        if (read < 0) {
            PWHOST_LOG_ERRNO("read", pwresult::kFailure, errno);
            continue;
        }
        if (read > 0) {
            PWHOST_LOG(CAppLog::Warning, "%s: larger than %zu bytes, ignored", path.c_str(),
                       kMaxIdBytes);
            continue;
        }
        std::string trimmed = Trimmed(content);
        if (!trimmed.empty()) {
            id = trimmed;
            return true;
        }
    }
    return false;
}

}  // namespace pwhost

DeviceIDInfo::DeviceIDInfo() {}

DeviceIDInfo::~DeviceIDInfo() {}

bool DeviceIDInfo::GetDeviceID(std::string& deviceId) {
    long code = 0;
    if (PWHOST_TEST_FAULT(DeviceId, code)) {
        return false;
    }
    if (PWHOST_DEVICE_ID_OVERRIDE(deviceId)) {
        return true;
    }
    static const std::vector<std::string> kSources = {"/etc/machine-id",
                                                      "/var/lib/dbus/machine-id"};
    if (pwhost::ReadMachineId(kSources, deviceId)) {
        return true;
    }
    PWHOST_LOG(CAppLog::Warning, "no machine identifier in %s or %s", kSources[0].c_str(),
               kSources[1].c_str());
    return false;
}
