// Fault switches and overrides of the host's test-control interface.
#include <array>
#include <mutex>
#include <string>

#include "HostTestControl.h"
#include "TestControlInternal.h"

#ifdef PW_TEST_HOOKS

namespace {

struct PendingFault {
    unsigned int count = 0;
    long code = 0;
};

struct ControlState {
    std::mutex mutex;
    std::array<PendingFault, static_cast<size_t>(pwtest::Fault::FaultCount)> faults;
    bool osOverridden = false;
    OS_VERSION_INFO os{};
    std::string deviceId;
};

ControlState& State() {
    static ControlState* state = new ControlState;
    return *state;
}

}  // namespace

namespace pwtest {

void FailNext(Fault fault, long code, unsigned int count) {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    PendingFault& pending = s.faults[static_cast<size_t>(fault)];
    pending.count = count;
    pending.code = code;
}

void ClearFaults() {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (PendingFault& pending : s.faults) {
        pending = PendingFault();
    }
}

bool TakeFault(Fault fault, long& code) {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    PendingFault& pending = s.faults[static_cast<size_t>(fault)];
    if (pending.count == 0) {
        return false;
    }
    --pending.count;
    code = pending.code;
    return true;
}

void OverrideOsVersion(const OS_VERSION_INFO& record) {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.osOverridden = true;
    s.os = record;
}

void ClearOsVersionOverride() {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.osOverridden = false;
}

void OverrideDeviceId(const std::string& deviceId) {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.deviceId = deviceId;
}

void ClearDeviceIdOverride() {
    OverrideDeviceId(std::string());
}

}  // namespace pwtest

namespace pwhost {

bool OsVersionOverride(OS_VERSION_INFO& record) {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.osOverridden) {
        record = s.os;
    }
    return s.osOverridden;
}

bool DeviceIdOverride(std::string& deviceId) {
    ControlState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.deviceId.empty()) {
        deviceId = s.deviceId;
    }
    return !s.deviceId.empty();
}

}  // namespace pwhost

#endif  // PW_TEST_HOOKS
