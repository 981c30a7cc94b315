// The OS record, UI texts, kernel release numbers, the machine identifier, the bounded copy.
#include <sys/utsname.h>

#include <cstring>
#include <string>
#include <vector>

#include "../../host/src/HostInternal.h"
#include "DeviceIDInfo.h"
#include "OsVersion.h"
#include "SafeString.h"
#include "UITranslator.h"
#include "TestSupport.h"

namespace {

class SystemInfoTest : public pwtest::HostFixture {
protected:
    pwtest::TempDir m_dir;
};

TEST_F(SystemInfoTest, OsRecordAndDeviceIdComeFromTheSystem) {
    struct utsname names;
    ASSERT_EQ(uname(&names), 0);
    OS_VERSION_INFO record = GetOsVersion();
    EXPECT_EQ(record.dwOSVersionInfoSize, sizeof(OS_VERSION_INFO));
    EXPECT_STREQ(record.szOSType, "Linux");
    EXPECT_STREQ(record.szVersionDetails, names.release);
    EXPECT_TRUE(IsOs_LINUX() && !IsOs_MAC());
    std::string machineId, id;
    if (pwhost::ReadMachineId({"/etc/machine-id", "/var/lib/dbus/machine-id"}, machineId)) {
        EXPECT_TRUE(DeviceIDInfo().GetDeviceID(id));
        EXPECT_EQ(id, machineId);
    }
}

// Known keys have their English text (no catalogue is installed here); others stay keys.
TEST_F(SystemInfoTest, UiTextsByKey) {
    UITranslator translator;
    EXPECT_STREQ(translator.translate(UITranslator::PhoneHomeComponentName),
                 "Customer Experience Feedback");
    EXPECT_STREQ(translator.translate("NoSuchKey"), "NoSuchKey");
}

TEST_F(SystemInfoTest, KernelReleaseNumbers) {
    const struct {
        const char* release;
        unsigned int major, minor, build;
    } cases[] = {
        // clang-format off
        {"6.1.0-18-amd64",                    6,           1,  0},
        {"5.15.90.1-microsoft-standard-WSL2", 5,           15, 90},
        {"3",                                 3,           0,  0},
        {"v6.1",                              0,           0,  0},
        {"6..1",                              6,           0,  0},
        {"99999999999.1.2",                   0xFFFFFFFFu, 1,  2},
        // clang-format on
    };
    for (const auto& c : cases) {
        unsigned int major = 7, minor = 7, build = 7;
        pwhost::ParseKernelRelease(c.release, major, minor, build);
        EXPECT_EQ(std::vector<unsigned int>({major, minor, build}),
                  std::vector<unsigned int>({c.major, c.minor, c.build}))
            << c.release;
    }
}

TEST_F(SystemInfoTest, MachineIdComesFromTheFirstFileThatHoldsOne) {
    const std::string first = m_dir / "first", second = m_dir / "second";
    const struct {
        const char *firstContent, *secondContent, *id;  // null: file absent, no id found
    } cases[] = {
        // clang-format off
        {"aaaa\n",          "bbbb\n", "aaaa"},
        {nullptr,           "bbbb\n", "bbbb"},
        {"\t cccc \r\n",    nullptr,  "cccc"},
        {nullptr,           "",       nullptr},
        // clang-format on
    };
    for (const auto& c : cases) {
        unlink(first.c_str());
        unlink(second.c_str());
        ASSERT_TRUE(c.firstContent == nullptr || pwtest::WriteFile(first, c.firstContent));
        ASSERT_TRUE(c.secondContent == nullptr || pwtest::WriteFile(second, c.secondContent));
        std::string id = "untouched";
        EXPECT_EQ(pwhost::ReadMachineId({first, second}, id), c.id != nullptr);
        EXPECT_EQ(id, c.id != nullptr ? c.id : "untouched");
    }
}

TEST_F(SystemInfoTest, BoundedCopyAlwaysTerminates) {
    const struct {
        const char* source;
        unsigned int size;
        const char* copied;
        size_t returned;
    } cases[] = {
        // clang-format off
        {"hello", 6, "hello", 5},
        {"hello", 5, "hell",  5},
        {"hello", 0, "",      5},
        {nullptr, 4, "",      0},
        // clang-format on
    };
    for (const auto& c : cases) {
        char buffer[8];
        memset(buffer, 'X', sizeof buffer);
        buffer[0] = '\0';
        EXPECT_EQ(safe_strlcpyA(buffer, c.source, c.size), c.returned);
        EXPECT_STREQ(buffer, c.copied);
        EXPECT_EQ(buffer[c.size == 0 ? 1 : c.size], 'X') << "wrote past the size";
    }
    EXPECT_EQ(safe_strlcpyA(nullptr, "abc", 4), 0u);
}

}  // namespace
