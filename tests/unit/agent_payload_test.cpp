// The feedback payload: its exact bytes for a known machine, OS and period, the OS record's
// fields, the locale switch, and the machine identifier's digest.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

#include "AgentTestSupport.h"

using namespace pwtest;

namespace {

typedef CPhoneHomeAgent A;

OS_VERSION_INFO OsRecord(unsigned int major, unsigned int minor, unsigned int build,
                         const char* type, const char* details) {
    OS_VERSION_INFO record;
    memset(&record, 0, sizeof record);
    record.dwOSVersionInfoSize = sizeof record;
    record.dwMajorVersion = major;
    record.dwMinorVersion = minor;
    record.dwBuildNumber = build;
    strncpy(record.szOSType, type, sizeof record.szOSType);
    strncpy(record.szVersionDetails, details, sizeof record.szVersionDetails - 1);
    return record;
}

class PayloadTest : public AgentFixture {
protected:
    void SetUp() override {
        OverrideOsVersion(OsRecord(2, 6, 0, "Linux", "2.6.32"));
        AgentFixture::SetUp();
    }
    void TearDown() override {
        AgentFixture::TearDown();
        ClearOsVersionOverride();
        setlocale(LC_ALL, "C");
    }
    // The bytes of the first report, written a day after the start.
    std::string FirstReport() {
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
    struct Case {
        std::string deviceId, customer, expected;
    } cases[] = {
        // clang-format off
        {"abc", "acme-42", "10:CustomerId7:acme-429:MachineId40:a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"0123456789abcdef0123456789abcdef", "", "10:CustomerId7:release9:MachineId40:b1775a785f09a6ebaf2dc33d6eaeb98974d9cdb8"},
        // clang-format on
    };
    for (const Case& c : cases) {
        NewPlugin();
        RemoveTree(OutboundDir());
        RemoveTree(HistoryPath());
        OverrideDeviceId(c.deviceId);
        WriteProfile("<CustomerID>" + c.customer + "</CustomerID>");
        EXPECT_NE(std::string::npos, FirstReport().find(c.expected)) << c.deviceId;
    }
}

TEST_F(PayloadTest, OsDetailsComeFromOneRecordAndAreNeverNegative) {
    OS_VERSION_INFO record = OsRecord(4294967295u, 2147483648u, 7, "", "");
    // Texts that fill their arrays: only what precedes the last byte is taken.
    memset(record.szOSType, 'T', sizeof record.szOSType);
    memset(record.szVersionDetails, 'v', sizeof record.szVersionDetails);
    OverrideOsVersion(record);
    EXPECT_NE(std::string::npos,
              FirstReport().find("9:OSDetailsd14:OSBuildVersioni7e8:OSLocale1:C"
                                 "14:OSMajorVersioni4294967295e14:OSMinorVersioni2147483648e"
                                 "6:OSName5:Linux6:OSType63:" +
                                 std::string(63, 'T') +
                                 "16:OSVersionDetails255:" + std::string(255, 'v') + "e"));
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
        EXPECT_EQ(c.expected != nullptr, PhoneHomeAgentTestAccess::Prepare(agent()));
        EXPECT_STREQ("C.UTF-8", setlocale(LC_ALL, nullptr));
        if (c.expected == nullptr) {
            EXPECT_EQ(1u, CountLogText("Failed to get System Locale information")) << DumpLog();
            continue;
        }
        Expire(A::kPhoneHomeTimerId);
        EXPECT_NE(std::string::npos, ReadFileOrEmpty(Outbound("feedback_data", 1))
                                         .find(std::string("8:OSLocale") + c.expected));
    }
}

}  // namespace
