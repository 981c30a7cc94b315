// The reports of the "Phone Home" timer: module files taken into the payload and deleted,
// locked files retried, bad files skipped and kept, the numbered outbound file and its
// sequence number; the payload's exact bytes, its identifiers, OS record and locale.
#include <sys/stat.h>

#include <cerrno>
#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#include "AgentTestSupport.h"

using namespace pwtest;

namespace {

typedef CPhoneHomeAgent A;
const char kVpnFailed[] = "Failed to internalize VpnModule Module data";
const long long kIntervalMs = 2592000000LL;

class CollectionTest : public AgentFixture {
protected:
    void SetUp() override {
        AgentFixture::SetUp();
        Prepare();  // every post fails at once: the outbound files stay
    }
    // A module file with `bytes`, and its setting.
    static Setting File(const char* key, const std::string& name, const std::string& bytes) {
        EXPECT_TRUE(WriteFile(ModuleDataDir() + name, bytes));
        return {key, ModuleDataDir() + name};
    }
    static std::string Data(unsigned int sequence) {
        return DataIn(Outbound("feedback_data", sequence));
    }
};

// A module file that cannot be read is reported, kept and skipped for the cycle (no retry);
// a missing one gives the module an empty dictionary.
TEST_F(CollectionTest, UnusableFilesAreSkippedForTheCycle) {
    const std::string vpn = ModuleDataDir() + "vpn.dat";
    // content: null for no file, "/" for a directory; setting: "#" for an integer
    // clang-format off
    struct Case { const char* content; std::string setting; bool failed, kept; const char* arrives; } cases[] = {
        {nullptr, "#", false, false, "d10:ModuleDatadee"},
        {nullptr, vpn, false, false, "d10:ModuleDatad9:VpnModuledeee"},
        {"", vpn, false, false, "d10:ModuleDatad9:VpnModuledeee"},
        {"d3:abc", vpn, true, true, "d10:ModuleDatadee"},
        {"li1ee", vpn, true, true, "d10:ModuleDatadee"},
        {"/", vpn, true, true, "d10:ModuleDatadee"},
        {nullptr, vpn + "/x", true, false, "d10:ModuleDatadee"},
    };
    // clang-format on
    unsigned int sequence = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.setting + (c.content ? c.content : "(none)"));
        RemoveTree(vpn);
        if (c.content != nullptr) {
            ASSERT_TRUE(*c.content == '/' ? mkdir(vpn.c_str(), 0700) == 0
                                          : WriteFile(vpn, c.content));
        }
        NewPlugin();  // the numbering goes on through the history
        Prepare();
        Deposit({c.setting == "#" ? Setting{"VpnPhoneHomeFile", "7", 'i'}
                                  : Setting{"VpnPhoneHomeFile", c.setting}});
        Expire(A::kPhoneHomeTimerId);
        EXPECT_EQ(c.failed ? 1u : 0u, CountLogText(kVpnFailed)) << DumpLog();
        EXPECT_EQ(kIntervalMs, Remaining(A::kPhoneHomeTimerId));
        EXPECT_EQ(c.arrives, Data(sequence++));
        EXPECT_EQ(c.kept, FileExists(vpn));
    }
}

// Every reported file is taken in whole under its module's name and deleted. A module file
// locked by its writer is tried again 20 s later, four times; then the report goes without
// it, and the next cycle takes it.
TEST_F(CollectionTest, LockedModuleIsRetriedFourTimesThenLeftForTheNextCycle) {
    Deposit({File("VpnPhoneHomeFile", "vpn.dat", "d4:lateli1eee"),
             File("TelemetryPhoneHomeFile", "tel.dat", "d4:seeni1ee"),
             File("OstraPhoneHomeFile", "ostra.dat", "d1:xli-2eee")});
    HeldLock writer(ModuleDataDir() + "vpn.dat");
    for (unsigned int attempt = 1; attempt <= 5; ++attempt) {
        SCOPED_TRACE(attempt);
        errno = ECONNREFUSED;  // as an earlier refused post leaves it
        Expire(A::kPhoneHomeTimerId);
        EXPECT_EQ(attempt, CountLogText(kVpnFailed));
        EXPECT_FALSE(FileExists(ModuleDataDir() + "tel.dat"));  // taken in at once
        EXPECT_EQ(attempt < 5 ? 20000 : kIntervalMs, Remaining(A::kPhoneHomeTimerId));
        EXPECT_EQ(attempt == 5, FileExists(Outbound("feedback_data", 1)));
    }
    EXPECT_EQ(1u, CountLogText("Failed to collect phoneHome data from all the components"));
    EXPECT_EQ("d10:ModuleDatad11:OstraModuled1:xli-2eee15:TelemetryModuled4:seeni1eeee", Data(1));
    writer.Release();
    Expire(A::kPhoneHomeTimerId);
    EXPECT_EQ("d10:ModuleDatad11:OstraModulede15:TelemetryModulede9:VpnModuled4:lateli1eeeee",
              Data(2));
    // A retry that cannot be armed ends the cycle uncounted, re-armed for the interval.
    HeldLock again(File("VpnPhoneHomeFile", "vpn.dat", "de").value);
    FailNext(Fault::StartTimer, PwResult(0xFE020003));
    Expire(A::kPhoneHomeTimerId);
    ASSERT_EQ(1u, Failures("StartTimer").size()) << DumpLog();
    EXPECT_TRUE(PwResultEquals(Failures("StartTimer")[0].result, 0xFE020003));
    EXPECT_EQ(kIntervalMs, Remaining(A::kPhoneHomeTimerId));
    EXPECT_FALSE(FileExists(Outbound("feedback_data", 3)));
}

// 99 is followed by 100, which is saved; in memory 100 is a valid number: it is used once,
// then the numbering wraps.
TEST_F(CollectionTest, SequenceNumbersWrapAfterOneHundred) {
    NewPlugin();
    WriteHistory("last_sequence_number:99\n");
    Prepare();
    for (const char* saved : {"100", "1", "2"}) {
        Expire(A::kPhoneHomeTimerId);
        EXPECT_EQ(saved, History("last_sequence_number"));
    }
    EXPECT_EQ((std::vector<std::string>{"feedback_data1.cef", "feedback_data100.cef",
                                        "feedback_data99.cef"}),
              OutboundFiles());
}

class PayloadTest : public AgentFixture {
protected:
    void TearDown() override {
        AgentFixture::TearDown();
        ClearOsVersionOverride();
        setlocale(LC_ALL, "C");
    }
    // The bytes of the first report, written a day after the start, on an OS record of the
    // largest versions and texts that fill their arrays.
    std::string FirstReport() {
        OS_VERSION_INFO record = {};
        record.dwOSVersionInfoSize = sizeof record;
        record.dwMajorVersion = 4294967295u;
        record.dwMinorVersion = 2147483648u;
        record.dwBuildNumber = 7;
        memset(record.szOSType, 'T', sizeof record.szOSType);
        memset(record.szVersionDetails, 'v', sizeof record.szVersionDetails);
        OverrideOsVersion(record);
        Prepare();
        SetManualUnixSeconds(kStartSeconds + 86400);
        Expire(A::kPhoneHomeTimerId);
        return ReadFileOrEmpty(Outbound("feedback_data", 1));
    }
};

// The SHA-1 of "DefaultMachineID" stands in for a device identifier the host cannot give.
// Versions are never negative; texts are taken up to the last byte of their arrays.
TEST_F(PayloadTest, ReferencePayloadByteForByte) {
    FailNext(Fault::DeviceId, PwResult(0xFE000001));
    const std::string version = PW_PRODUCT_VERSION_TEXT;
    EXPECT_EQ(
        "li7e40:a29d7ba62ff9e1dafe055e7c35f002cfac5f9afbi3eli1400000000ei1400086400ed"
        "10:CustomerId7:release9:MachineId40:a29d7ba62ff9e1dafe055e7c35f002cfac5f9afb"
        "9:OSDetailsd14:OSBuildVersioni7e8:OSLocale1:C14:OSMajorVersioni4294967295e"
        "14:OSMinorVersioni2147483648e6:OSName5:Linux6:OSType63:" +
            std::string(63, 'T') + "16:OSVersionDetails255:" + std::string(255, 'v') +
            "e9:PWVersion" + std::to_string(version.size()) + ":" + version +
            "22:PhoneHomeFormatVersion3:1.022:QualityImprovementDatad10:ModuleDatadeeeee",
        FirstReport());
}

// The locale reported is the environment's; the process keeps its own. A locale the
// process cannot switch to fails the initialisation.
TEST_F(PayloadTest, LocaleIsTheEnvironmentsAndTheProcessLocaleIsRestored) {
    // expected: null where the switch is refused
    // clang-format off
    const struct { const char* environment; const char* expected; } cases[] = {{"POSIX", "1:C"}, {"C.UTF-8", "7:C.UTF-8"}, {"xx.bogus", nullptr}};
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.environment);
        Fresh();
        ASSERT_NE(nullptr, setlocale(LC_ALL, "C.UTF-8"));
        setenv("LC_ALL", c.environment, 1);
        if (c.expected == nullptr) {
            EXPECT_FALSE(PhoneHomeAgentTestAccess::Prepare(agent()));
            EXPECT_TRUE(HasLogText("Failed to get System Locale information")) << DumpLog();
        } else {
            EXPECT_NE(std::string::npos, FirstReport().find(std::string("OSLocale") + c.expected));
        }
        EXPECT_STREQ("C.UTF-8", setlocale(LC_ALL, nullptr));
    }
}

}  // namespace
