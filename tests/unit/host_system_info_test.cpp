// OS record, device identifier, UI texts and the bounded copy.
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <cstring>
#include <string>
#include <vector>

#include "../../host/src/HostInternal.h"
#include "DeviceIDInfo.h"
#include "HostTestControl.h"
#include "OsVersion.h"
#include "ResultCodes.h"
#include "SafeString.h"
#include "TestSupport.h"

namespace {

class SystemInfoTest : public pwtest::HostFixture {
protected:
    void TearDown() override {
        pwtest::ClearOsVersionOverride();
        pwtest::ClearDeviceIdOverride();
        HostFixture::TearDown();
    }
    pwtest::TempDir m_dir;
};

TEST_F(SystemInfoTest, KernelReleaseNumbers) {
    struct Case {
        const char* release;
        unsigned int major, minor, build;
    };
    const Case cases[] = {
        {"6.1.0-18-amd64", 6, 1, 0},
        {"5.15.90.1-microsoft-standard-WSL2", 5, 15, 90},
        {"4.19", 4, 19, 0},
        {"3", 3, 0, 0},
        {"6.18.44-fc-v769", 6, 18, 44},
        {"2.6.32-rc1", 2, 6, 32},
        {"", 0, 0, 0},
        {"v6.1", 0, 0, 0},
        {"6..1", 6, 0, 0},
        {"99999999999.1.2", 0xFFFFFFFFu, 1, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.release);
        unsigned int major = 7, minor = 7, build = 7;
        pwhost::ParseKernelRelease(c.release, major, minor, build);
        EXPECT_EQ(major, c.major);
        EXPECT_EQ(minor, c.minor);
        EXPECT_EQ(build, c.build);
    }
}

TEST_F(SystemInfoTest, OsRecordComesFromUnameUnlessOverridden) {
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    OS_VERSION_INFO record = GetOsVersion();
    EXPECT_EQ(record.dwOSVersionInfoSize, sizeof(OS_VERSION_INFO));
    EXPECT_STREQ(record.szOSType, "Linux");
    EXPECT_STREQ(record.szVersionDetails, names.release);
    EXPECT_TRUE(IsOs_LINUX());
    EXPECT_FALSE(IsOs_MAC() || IsOs_WINNT_XP_Only() || IsOs_WIN_VISTA_Only() || IsOs_WIN_7_Only() ||
                 IsOs_WIN_8_Only());

    OS_VERSION_INFO fake = {};
    fake.dwMajorVersion = 10;
    fake.dwBuildNumber = 19045;
    strcpy(fake.szOSType, "TestOS");
    pwtest::OverrideOsVersion(fake);
    record = GetOsVersion();
    EXPECT_EQ(record.dwMajorVersion, 10u);
    EXPECT_EQ(record.dwBuildNumber, 19045u);
    EXPECT_STREQ(record.szOSType, "TestOS");
}

TEST_F(SystemInfoTest, MachineIdComesFromTheFirstFileThatHoldsOne) {
    const std::string first = m_dir / "first", second = m_dir / "second";
    struct Case {
        const char* name;
        const char* firstContent;  // null: file absent
        const char* secondContent;
        bool found;
        const char* id;
    };
    const Case cases[] = {
        {"first wins", "aaaa\n", "bbbb\n", true, "aaaa"},
        {"first absent", nullptr, "bbbb\n", true, "bbbb"},
        {"first blank", " \n", "bbbb", true, "bbbb"},
        {"white space trimmed", "\t cccc \r\n", nullptr, true, "cccc"},
        {"none", nullptr, "", false, "untouched"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(first.c_str());
        unlink(second.c_str());
        if (c.firstContent != nullptr) {
            ASSERT_TRUE(pwtest::WriteFile(first, c.firstContent));
        }
        if (c.secondContent != nullptr) {
            ASSERT_TRUE(pwtest::WriteFile(second, c.secondContent));
        }
        std::string id = "untouched";
        EXPECT_EQ(pwhost::ReadMachineId({first, second}, id), c.found);
        EXPECT_EQ(id, c.id);
    }
    ASSERT_TRUE(pwtest::WriteFile(first, std::string(5000, 'f')));
    std::string id;
    EXPECT_FALSE(pwhost::ReadMachineId({first}, id));
}

TEST_F(SystemInfoTest, DeviceIdOverrideFaultAndMachineFile) {
    DeviceIDInfo info;
    std::string id = "untouched";
    std::string machineId;
    if (pwhost::ReadMachineId({"/etc/machine-id", "/var/lib/dbus/machine-id"}, machineId)) {
        EXPECT_TRUE(info.GetDeviceID(id));
        EXPECT_EQ(id, machineId);
    }
    pwtest::OverrideDeviceId("device-42");
    EXPECT_TRUE(info.GetDeviceID(id));
    EXPECT_EQ(id, "device-42");
    pwtest::FailNext(pwtest::Fault::DeviceId, pwresult::kFaultInjected);
    id = "untouched";
    EXPECT_FALSE(info.GetDeviceID(id));
    EXPECT_EQ(id, "untouched");
}

TEST_F(SystemInfoTest, BoundedCopyAlwaysTerminates) {
    struct Case {
        const char* source;
        unsigned int size;
        const char* copied;
        size_t returned;
    };
    const Case cases[] = {
        {"hello", 6, "hello", 5}, {"hello", 5, "hell", 5}, {"hello", 1, "", 5},
        {"", 4, "", 0},           {nullptr, 4, "", 0},
    };
    for (const Case& c : cases) {
        char buffer[8];
        memset(buffer, 'X', sizeof buffer);
        EXPECT_EQ(safe_strlcpyA(buffer, c.source, c.size), c.returned);
        EXPECT_STREQ(buffer, c.copied);
        EXPECT_EQ(buffer[c.size], 'X') << "wrote past the size";
    }
    char untouched = 'X';
    EXPECT_EQ(safe_strlcpyA(&untouched, "abc", 0), 3u);
    EXPECT_EQ(untouched, 'X');
    EXPECT_EQ(safe_strlcpyA(nullptr, "abc", 4), 0u);
}

}  // namespace
