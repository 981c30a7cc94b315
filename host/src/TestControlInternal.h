// The test hooks inside the framework. They exist only in the test build of the library
// (libpwhost_test, compiled with PW_TEST_HOOKS); in the production library every hook is a
// constant and no product code path checks a test switch.
#pragma once

#include <string>

#include "OsVersion.h"

#ifdef PW_TEST_HOOKS
#include "HostTestControl.h"

namespace pwhost {
bool OsVersionOverride(OS_VERSION_INFO& record);
bool DeviceIdOverride(std::string& deviceId);
}  // namespace pwhost

// True (with `code` set) when a test asked the next call of this kind to fail.
#define PWHOST_TEST_FAULT(fault, code) pwtest::TakeFault(pwtest::Fault::fault, code)
#define PWHOST_OS_VERSION_OVERRIDE(record) pwhost::OsVersionOverride(record)
#define PWHOST_DEVICE_ID_OVERRIDE(id) pwhost::DeviceIdOverride(id)
#else
#define PWHOST_TEST_FAULT(fault, code) ((void)(code), false)
#define PWHOST_OS_VERSION_OVERRIDE(record) ((void)(record), false)
#define PWHOST_DEVICE_ID_OVERRIDE(id) ((void)(id), false)
#endif
