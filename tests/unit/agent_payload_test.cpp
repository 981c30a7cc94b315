// The feedback payload: its exact bytes for a known machine, OS and period, the OS record's
// fields, the locale switch, and the machine identifier's digest.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <algorithm>
#include <string>

#include "AgentTestSupport.h"

using namespace pwtest;

namespace {

typedef CPhoneHomeAgent A;

class PayloadTest : public AgentFixture {
protected:
    void TearDown() override {
        AgentFixture::TearDown();
        ClearOsVersionOverride();
        setlocale(LC_ALL, "C");
    }
    // The bytes of the first report, written a day after the start, on this OS record (its
    // texts cut to their arrays).
    std::string FirstReport(unsigned int major = 2, unsigned int minor = 6, unsigned int build = 0,
                            const std::string& type = "Linux",
                            const std::string& details = "2.6.32") {
        OS_VERSION_INFO record = {};
        record.dwOSVersionInfoSize = sizeof record;
        record.dwMajorVersion = major;
        record.dwMinorVersion = minor;
        record.dwBuildNumber = build;
        memcpy(record.szOSType, type.data(), std::min(type.size(), sizeof record.szOSType));
        memcpy(record.szVersionDetails, details.data(),
               std::min(details.size(), sizeof record.szVersionDetails));
        OverrideOsVersion(record);
        Prepare();
        SetManualUnixSeconds(kStartSeconds + 86400);
        Expire(A::kPhoneHomeTimerId);
        return ReadFileOrEmpty(Outbound("feedback_data", 1));
    }
};

// The SHA-1 of "DefaultMachineID" stands in for a device identifier the host cannot give.
TEST_F(PayloadTest, ReferencePayloadByteForByte) {
    FailNext(Fault::DeviceId, PwResult(0xFE000001));
    const std::string version = PW_PRODUCT_VERSION_TEXT;
    EXPECT_EQ(
        "li7e40:a29d7ba62ff9e1dafe055e7c35f002cfac5f9afbi3eli1400000000ei1400086400ed"
        "10:CustomerId7:release9:MachineId40:a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb"
        "9:OSDetailsd14:OSBuildVersioni0e8:OSLocale1:C14:OSMajorVersioni2e"
        "14:OSMinorVersioni6e6:OSName5:Linux6:OSType5:Linux16:OSVersionDetails6:2.6.32e"
        "9:PWVersion" +
            std::to_string(version.size()) + ":" + version +
            "22:PhoneHomeFormatVersion3:1.022:QualityImprovementDatad10:ModuleDatadeeeee",
        FirstReport());
}

// The profile's customer identifier and the device identifier's digest go in as they are.
TEST_F(PayloadTest, CustomerAndMachineIdentifiers) {
    OverrideDeviceId("abc");
    WriteProfile("<CustomerID>acme-42</CustomerID>");
    EXPECT_NE(std::string::npos,
              FirstReport().find(
                  "10:CustomerId7:acme-429:MachineId40:a9993e364706816aba3e25717850c26c9cd0d89d"));
}

// Versions are never negative; texts that fill their arrays are taken up to the last byte.
TEST_F(PayloadTest, OsDetailsComeFromOneRecordAndAreNeverNegative) {
    EXPECT_NE(
        std::string::npos,
        FirstReport(4294967295u, 2147483648u, 7, std::string(64, 'T'), std::string(256, 'v'))
            .find("9:OSDetailsd14:OSBuildVersioni7e8:OSLocale1:C"
                  "14:OSMajorVersioni4294967295e14:OSMinorVersioni2147483648e"
                  "6:OSName5:Linux6:OSType63:" +
                  std::string(63, 'T') + "16:OSVersionDetails255:" + std::string(255, 'v') + "e"));
}

// The locale reported is the environment's; the process keeps its own. A locale the
// process cannot switch to fails the initialisation.
TEST_F(PayloadTest, LocaleIsTheEnvironmentsAndTheProcessLocaleIsRestored) {
    struct Case {
        const char* environment;
        const char* expected;  // null: the switch is refused
    } cases[] = {{"C", "1:C"}, {"POSIX", "1:C"}, {"C.UTF-8", "7:C.UTF-8"}, {"xx.bogus", nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.environment);
        NewPlugin();
        RemoveTree(OutboundDir());
        RemoveTree(HistoryPath());
        ASSERT_NE(nullptr, setlocale(LC_ALL, "C.UTF-8"));
        setenv("LC_ALL", c.environment, 1);
        ClearCapturedLogs();
        if (c.expected == nullptr) {
            EXPECT_FALSE(PhoneHomeAgentTestAccess::Prepare(agent()));
            EXPECT_EQ(1u, CountLogText("Failed to get System Locale information")) << DumpLog();
        } else {
            EXPECT_NE(std::string::npos,
                      FirstReport().find(std::string("8:OSLocale") + c.expected));
        }
        EXPECT_STREQ("C.UTF-8", setlocale(LC_ALL, nullptr));
    }
}

}  // namespace
