// The feedback payload: its exact bytes for a known machine, OS and period, the collection
// period stamps, the optional customer identifier, the locale switch, and the machine
// identifier's digest.
#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <regex>
#include <string>

#include "AgentTestSupport.h"

using namespace pwtest;

namespace {

const char kDefaultMachineId[] = "a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb";

// The bytes of a freshly built payload for machine kDefaultMachineId, the period
// 1400000000 to 1400086400, no customer, nothing collected, a Linux 2.6.32 kernel and the
// C locale; `PRODUCT` stands for the product version with its length prefix.
const char kReferencePayload[] =
    "li7e40:a29d7ba62ff9e1dafe055e7c35f002cfac5f9afbi3eli1400000000ei1400086400ed"
    "9:MachineId40:a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb"
    "9:OSDetailsd14:OSBuildVersioni0e8:OSLocale1:C14:OSMajorVersioni2e14:OSMinorVersioni6e"
    "6:OSName5:Linux6:OSType5:Linux16:OSVersionDetails6:2.6.32e"
    "9:PWVersionPRODUCT22:PhoneHomeFormatVersion3:1.022:QualityImprovementDatadeeee";

std::string ReferencePayload() {
    std::string bytes = kReferencePayload;
    std::string version = PW_PRODUCT_VERSION_TEXT;
    bytes.replace(bytes.find("PRODUCT"), 7, std::to_string(version.size()) + ":" + version);
    return bytes;
}

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
    static constexpr unsigned int kStart = kStartSeconds;
};

TEST_F(PayloadTest, ReferencePayloadByteForByte) {
    FailNext(Fault::DeviceId, PwResult(0xFE000001));
    ASSERT_TRUE(agent().InitPhoneHomeAgent()) << DumpLog();
    EXPECT_EQ(kDefaultMachineId, agent().m_tstrMachineID);
    EXPECT_TRUE(HasLogText(std::string("Unable to retrieve machineID, using default: ") +
                           kDefaultMachineId))
        << DumpLog();

    // No customer identifier: the payload is rebuilt without one.
    agent().m_tstrCustomerID.clear();
    ASSERT_TRUE(agent().InitPhoneHomePayload()) << DumpLog();
    SetManualUnixSeconds(1400086400u);
    ASSERT_TRUE(agent().CreateBencodeFile(OutboundDir() + "feedback_data")) << DumpLog();

    // The product version is ours: two numbers and a five-digit build number.
    EXPECT_TRUE(
        std::regex_match(PW_PRODUCT_VERSION_TEXT, std::regex("[0-9]+\\.[0-9]+\\.[0-9]{5}")));
    const std::string expected = ReferencePayload();
    if (strlen(PW_PRODUCT_VERSION_TEXT) == 9) {
        EXPECT_EQ(355u, expected.size());
    }
    EXPECT_EQ(expected, ReadFileOrEmpty(OutboundDir() + "feedback_data1.cef"));
    // The data container was empty already: the tree in memory still gives the same bytes.
    EXPECT_EQ(expected, Wire(agent().m_PhoneHomePayload));
}

TEST_F(PayloadTest, CustomerIdKeyOnlyWhenThereIsOne) {
    struct Case {
        std::string customer;
        const char* entry;  // null: no key at all
    } cases[] = {{"", nullptr}, {"release", "10:CustomerId7:release"}, {"a", "10:CustomerId1:a"}};
    for (const Case& c : cases) {
        agent().m_tstrCustomerID = c.customer;
        ASSERT_TRUE(agent().InitPhoneHomePayload());
        std::string bytes = Wire(agent().m_PhoneHomePayload);
        // The first key of level 3, right after the period, when it is there at all.
        std::string key = c.entry == nullptr ? "CustomerId" : std::string("ed") + c.entry;
        EXPECT_EQ(c.entry != nullptr, bytes.find(key) != std::string::npos) << bytes;
    }
}

TEST_F(PayloadTest, OsDetailsComeFromOneRecordAndAreNeverNegative) {
    OS_VERSION_INFO record = OsRecord(4294967295u, 2147483648u, 7, "", "");
    // Texts that fill their arrays: only what precedes the last byte is taken.
    memset(record.szOSType, 'T', sizeof record.szOSType);
    memset(record.szVersionDetails, 'v', sizeof record.szVersionDetails);
    OverrideOsVersion(record);
    CBencodeDictionary dict(false);
    ASSERT_TRUE(agent().InsertOSDetails(dict));
    EXPECT_EQ(
        "d9:OSDetailsd14:OSBuildVersioni7e8:OSLocale1:C14:OSMajorVersioni4294967295e"
        "14:OSMinorVersioni2147483648e6:OSName5:Linux6:OSType63:" +
            std::string(63, 'T') + "16:OSVersionDetails255:" + std::string(255, 'v') + "ee",
        Wire(dict));
}

TEST_F(PayloadTest, LocaleIsTheEnvironmentsAndTheProcessLocaleIsRestored) {
    struct Case {
        const char* environment;
        const char* expected;  // null: the switch is refused
    } cases[] = {
        {"C", "C"},
        {"POSIX", "C"},
        {"C.UTF-8", "C.UTF-8"},
        {"xx_NOWHERE.bogus", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.environment);
        ClearCapturedLogs();
        // The process runs in a locale of its own that differs from the environment's.
        ASSERT_NE(nullptr, setlocale(LC_ALL, "C.UTF-8"));
        setenv("LC_ALL", c.environment, 1);
        agent().m_tstrCustomerID = "release";
        bool built = agent().InitPhoneHomePayload();
        EXPECT_STREQ("C.UTF-8", setlocale(LC_ALL, nullptr));
        const std::string bytes = Wire(agent().m_PhoneHomePayload);
        EXPECT_EQ(c.expected != nullptr, built) << DumpLog();
        if (c.expected != nullptr) {
            const std::string locale = c.expected;
            EXPECT_NE(std::string::npos,
                      bytes.find("8:OSLocale" + std::to_string(locale.size()) + ":" + locale));
            continue;
        }
        EXPECT_EQ(1u, CountLogText("Failed to get System Locale information")) << DumpLog();
        EXPECT_EQ(1u, CountLogText("Failed to insert OS details to level 3 dictionary"));
        EXPECT_FALSE(HasLogText("Failed to restore Locale"));
        // Nothing after the OS details went in.
        EXPECT_NE(std::string::npos, bytes.find("9:OSDetailsd")) << bytes;
        EXPECT_EQ(std::string::npos, bytes.find("PhoneHomeFormatVersion")) << bytes;
        EXPECT_EQ(std::string::npos, bytes.find("MachineId")) << bytes;
    }
}

// The recorded start and the clock become the period's stamps, and the clock the next
// start; a period too short or of the wrong kind fails at the stamp it cannot replace.
TEST_F(PayloadTest, RestampingAShortOrMistypedPeriodFails) {
    const char* const kLast = "Failed to update timestamp of the last report sent";
    const char* const kCurrent = "Failed to update timestamp of the current report sent";
    const struct {
        const char* period;   // the level-2 list, as bencode
        const char* message;  // null: succeeds
        bool startAdvanced;
    } cases[] = {
        {"le", kLast, false},        {"li1ee", kCurrent, true},   {"l1:xi2ee", kLast, false},
        {"li1elee", kCurrent, true}, {"li1ei2ee", nullptr, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.period);
        CBencodeStream in("", false);
        in.Write(c.period, static_cast<unsigned int>(strlen(c.period)));
        CBencodeList level2(false);
        ASSERT_TRUE(level2.Internalize(in));
        ClearCapturedLogs();
        agent().m_uiCollectionPeriodStart = kStart - 100;
        SetManualUnixSeconds(kStart + 5);
        EXPECT_EQ(c.message == nullptr, agent().UpdateLevel2Payload(level2));
        if (c.message != nullptr) {
            EXPECT_EQ(1u, CountLogText(c.message)) << DumpLog();
        } else {
            EXPECT_EQ("li1399999900ei1400000005ee", Wire(level2));
        }
        EXPECT_EQ(c.startAdvanced ? kStart + 5 : kStart - 100, agent().m_uiCollectionPeriodStart);
    }
}

TEST_F(PayloadTest, MachineIdIsTheLowerCaseSha1OfTheDeviceId) {
    struct Case {
        std::string in;
        const char* digest;
    } cases[] = {
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"DefaultMachineID", kDefaultMachineId},
        {std::string("a\0b", 3), "4a3dec2d1f8245280855c42db0ee4239f917fdb8"},
    };
    for (const Case& c : cases) {
        std::string out = "untouched";
        EXPECT_TRUE(agent().SHA1Hash(c.in, out));
        EXPECT_EQ(c.digest, out);
    }

    std::string id;
    EXPECT_TRUE(agent().GetMachineID(id));
    EXPECT_EQ("b1775a785f09a6ebaf2dc33d6eaeb98974d9cdb8", id);  // of kTestDeviceId

    FailNext(Fault::DeviceId, PwResult(0xFE000001));
    id = "kept";
    EXPECT_FALSE(agent().GetMachineID(id));
    EXPECT_EQ("kept", id);
}

}  // namespace
