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
