// Module data collection on the "Phone Home" timer: module files taken into the payload and
// deleted, locked files retried, bad files skipped and kept, the numbered outbound file and
// its sequence number.
#include <sys/stat.h>

#include <cerrno>
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
        return ReportIn(Outbound("feedback_data", sequence)).data;
    }
};

TEST_F(CollectionTest, EveryReportedFileIsTakenInWholeAndDeleted) {
    const std::string ostra = "d6:countsli1ei-2ee4:named1:x0:ee";
    const std::string vpn = "d5:bytes1000:" + std::string(1000, '\xff') + "7:tunnels3:ikee";
    Deposit({File("OstraPhoneHomeFile", "ostra.dat", ostra),
             File("WebSecurityPhoneHomeFile", "websec.dat", "de"),
             File("VpnPhoneHomeFile", "vpn.dat", vpn),
             File("TelemetryPhoneHomeFile", "telemetry.dat", "d1:ai0ee")});
    errno = ECONNREFUSED;  // as an earlier refused post leaves it
    Expire(A::kPhoneHomeTimerId);
    EXPECT_EQ("d10:ModuleDatad11:OstraModule" + ostra + "15:TelemetryModuled1:ai0ee9:VpnModule" +
                  vpn + "17:WebSecurityModuledeee",
              Data(1));
    for (const char* name : {"ostra.dat", "websec.dat", "vpn.dat", "telemetry.dat"}) {
        EXPECT_FALSE(FileExists(ModuleDataDir() + name)) << name;
    }
    EXPECT_EQ(kIntervalMs, Remaining(A::kPhoneHomeTimerId));
    EXPECT_EQ("2", ReadHistory()["last_sequence_number"]);
    EXPECT_EQ(std::to_string(kStartSeconds), ReadHistory()["last_feedback"]);
    EXPECT_EQ(1800000, Remaining(A::kPostRetryTimerId));  // the post was refused
}

// A module file that cannot be read is reported, kept and skipped for the cycle (no retry);
// a missing one gives the module an empty dictionary.
TEST_F(CollectionTest, UnusableFilesAreSkippedForTheCycle) {
    const std::string vpn = ModuleDataDir() + "vpn.dat";
    struct Case {
        const char* content;  // null: no file; "/": a directory
        std::string setting;  // "#": an integer
        bool failed, kept;
        const char* arrives;
    } cases[] = {
        // clang-format off
        {nullptr, "#", false, false, "d10:ModuleDatadee"},
        {nullptr, vpn, false, false, "d10:ModuleDatad9:VpnModuledeee"},
        {"", vpn, false, false, "d10:ModuleDatad9:VpnModuledeee"},
        {"d3:abc", vpn, true, true, "d10:ModuleDatadee"},
        {"li1ee", vpn, true, true, "d10:ModuleDatadee"},
        {"/", vpn, true, true, "d10:ModuleDatadee"},
        {nullptr, vpn + "/x", true, false, "d10:ModuleDatadee"},
        // clang-format on
    };
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

// A module file locked by its writer is tried again 20 s later, four times; then the
// report goes without it, and the next cycle takes it, with four retries again.
TEST_F(CollectionTest, LockedModuleIsRetriedFourTimesThenLeftForTheNextCycle) {
    Deposit({File("VpnPhoneHomeFile", "vpn.dat", "d4:lateli1eee"),
             File("TelemetryPhoneHomeFile", "tel.dat", "d4:seeni1ee")});
    HeldLock writer(ModuleDataDir() + "vpn.dat");
    for (unsigned int attempt = 1; attempt <= 5; ++attempt) {
        SCOPED_TRACE(attempt);
        Expire(A::kPhoneHomeTimerId);
        EXPECT_EQ(attempt, CountLogText(kVpnFailed));
        EXPECT_FALSE(FileExists(ModuleDataDir() + "tel.dat"));  // taken in at once
        EXPECT_EQ(attempt < 5 ? 20000 : kIntervalMs, Remaining(A::kPhoneHomeTimerId));
        EXPECT_EQ(attempt == 5, FileExists(Outbound("feedback_data", 1)));
    }
    EXPECT_EQ(1u, CountLogText("Failed to collect phoneHome data from all the components"));
    EXPECT_EQ("d10:ModuleDatad15:TelemetryModuled4:seeni1eeee", Data(1));
    writer.Release();
    Expire(A::kPhoneHomeTimerId);
    EXPECT_EQ("d10:ModuleDatad15:TelemetryModulede9:VpnModuled4:lateli1eeeee", Data(2));
    HeldLock again(File("VpnPhoneHomeFile", "vpn.dat", "de").value);
    for (unsigned int attempt = 1; attempt <= 5; ++attempt) {
        Expire(A::kPhoneHomeTimerId);
    }
    EXPECT_EQ(2u, CountLogText("Failed to collect phoneHome data from all the components"));
}

TEST_F(CollectionTest, RetryThatCannotBeArmedEndsTheCycleUncounted) {
    Deposit({File("VpnPhoneHomeFile", "vpn.dat", "de")});
    HeldLock writer(ModuleDataDir() + "vpn.dat");
    FailNext(Fault::StartTimer, PwResult(0xFE020003));
    Expire(A::kPhoneHomeTimerId);
    std::vector<LogRecord> failed = Failures("StartTimer");
    ASSERT_EQ(1u, failed.size()) << DumpLog();
    EXPECT_TRUE(PwResultEquals(failed[0].result, 0xFE020003));
    EXPECT_EQ(kIntervalMs, Remaining(A::kPhoneHomeTimerId));  // the feedback interval instead
    EXPECT_FALSE(FileExists(Outbound("feedback_data", 1)));
}

// Each report covers the time since the previous one (the first, since initialisation).
// 99 is followed by 100, which is saved; in memory 100 is a valid number: it is used once,
// then the numbering wraps.
TEST_F(CollectionTest, ConsecutiveReportsAndTheSequenceNumbersWrap) {
    NewPlugin();
    WriteHistory("last_sequence_number:99\n");
    Prepare();
    const struct {
        unsigned int now, sequence;
        const char* saved;
    } reports[] = {{kStartSeconds + 600, 99, "100"},
                   {kStartSeconds + 600, 100, "1"},
                   {kStartSeconds + 2592600, 1, "2"}};
    long long previousEnd = kStartSeconds;
    for (const auto& r : reports) {
        SCOPED_TRACE(r.sequence);
        SetManualUnixSeconds(r.now);
        Expire(A::kPhoneHomeTimerId);
        Report report = ReportIn(Outbound("feedback_data", r.sequence));
        EXPECT_EQ(previousEnd, report.start);
        EXPECT_EQ(r.now, report.end);
        previousEnd = report.end;
        EXPECT_EQ(r.saved, ReadHistory()["last_sequence_number"]);
    }
}

// A failed write loses what was gathered, posts nothing and keeps the number for the next
// report, which covers the time since the failed attempt. An unwritable history is
// reported, and nothing is posted either.
TEST_F(CollectionTest, FailedWritesPostNothing) {
    Deposit({File("VpnPhoneHomeFile", "vpn.dat", "d1:ai1ee")});
    ASSERT_EQ(0, mkdir(Outbound("feedback_data", 1).c_str(), 0700));  // in the way
    SetManualUnixSeconds(kStartSeconds + 50);
    Expire(A::kPhoneHomeTimerId);
    EXPECT_EQ(1u, Failures("CBencodeList::Externalize").size()) << DumpLog();
    EXPECT_FALSE(FileExists(ModuleDataDir() + "vpn.dat"));
    EXPECT_EQ(-1, Remaining(A::kPostRetryTimerId));
    EXPECT_EQ(kIntervalMs, Remaining(A::kPhoneHomeTimerId));

    RemoveTree(Outbound("feedback_data", 1));
    ASSERT_EQ(0, mkdir(HistoryPath().c_str(), 0700));
    SetManualUnixSeconds(kStartSeconds + 80);
    Expire(A::kPhoneHomeTimerId);
    Report next = ReportIn(Outbound("feedback_data", 1));
    EXPECT_EQ("d10:ModuleDatad9:VpnModuledeee", next.data);
    EXPECT_EQ(kStartSeconds + 50, next.start);
    EXPECT_EQ(kStartSeconds + 80, next.end);
    EXPECT_EQ(1u, CountLogText("SaveHistoryFile Failed")) << DumpLog();
    EXPECT_EQ(-1, Remaining(A::kPostRetryTimerId));
}

}  // namespace
