// A stable per-machine identifier: the content of /etc/machine-id, else of
// /var/lib/dbus/machine-id (trimmed of its line end). Fails when neither holds one.
#pragma once

#include <string>

class DeviceIDInfo {
public:
    DeviceIDInfo();
    ~DeviceIDInfo();
    // true with `deviceId` filled; false (deviceId untouched) when no identifier exists.
    bool GetDeviceID(std::string& deviceId);
};
