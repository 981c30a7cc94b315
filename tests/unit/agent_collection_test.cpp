// Module data collection on the "Phone Home" timer: module files taken into the payload and
// deleted, locked files retried, bad files skipped and kept, the numbered outbound file and
// its sequence number, and modules that keep writing while a cycle runs.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AgentTestSupport.h"
#include "FeedbackServer.h"
#include "FileSystem.h"

using namespace pwtest;

namespace {

const char kVpnFailed[] = "Failed to internalize VpnModule Module data";
const char kGaveUp[] = "Failed to collect phoneHome data from all the components";
const long long kIntervalMs = 2592000000LL;

// The exclusive lock of `path` held, as a module's writer holds it, through a descriptor of
// its own: flock() locks of two open files conflict within one process too.
class HeldLock {
public:
    explicit HeldLock(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        EXPECT_EQ(0, flock(m_fd, LOCK_EX | LOCK_NB)) << "lock " << path;
    }
    ~HeldLock() { Release(); }
    void Release() {
        if (m_fd >= 0) {
            close(m_fd);
            m_fd = -1;
        }
    }

private:
    int m_fd;
};

class CollectionTest : public AgentFixture {
protected:
    // Writes a module file and reports its path under `key`.
    std::string Deposit(const char* key, const std::string& name, const std::string& bytes) {
        std::string path = ModuleDataDir() + name;
        EXPECT_TRUE(WriteFile(path, bytes));
        agent().m_ModuleSettings.Insert(key, path);
        return path;
    }
    static std::string Outbound(unsigned int sequence) {
        return OutboundDir() + "feedback_data" + std::to_string(sequence) + ".cef";
    }
    static Report ReportOf(unsigned int sequence) {
        return FileExists(Outbound(sequence)) ? ParseReport(ReadFileOrEmpty(Outbound(sequence)))
                                              : Report();
    }
};

TEST_F(CollectionTest, EveryReportedFileIsTakenInWholeAndDeleted) {
    Prepare();
    const std::string ostra = "d6:countsli1ei-2ee4:named1:x0:ee";
    const std::string vpn = "d5:bytes1000:" + std::string(1000, '\xff') + "7:tunnels3:ikee";
    std::vector<std::string> paths = {
        Deposit("OstraPhoneHomeFile", "ostra.dat", ostra),
        Deposit("WebSecurityPhoneHomeFile", "websec.dat", "de"),
        Deposit("VpnPhoneHomeFile", "vpn.dat", vpn),
        Deposit("TelemetryPhoneHomeFile", "telemetry.dat", "d1:ai0ee"),
    };
    errno = ECONNREFUSED;  // as an earlier refused post leaves it
    PhoneHomeExpires();

    EXPECT_EQ("d10:ModuleDatad11:OstraModule" + ostra + "15:TelemetryModuled1:ai0ee9:VpnModule" +
                  vpn + "17:WebSecurityModuledeee",
              ReportOf(1).data);
    for (const std::string& path : paths) {
        EXPECT_FALSE(FileExists(path)) << path;
    }
    EXPECT_TRUE(agent().m_mapPendingModules.empty());
    EXPECT_EQ(0u, agent().m_pQualityImprovementData->Size());
    EXPECT_EQ(kIntervalMs, Remaining(agent().m_pPhoneHomeTimer));
    std::map<std::string, std::string> history = ReadHistory();
    EXPECT_EQ("2", history["last_sequence_number"]);
    EXPECT_EQ(std::to_string(kStartSeconds), history["last_feedback"]);
    // The post was refused: the file waits for the retry, which is armed.
    EXPECT_EQ(3u, agent().m_uiPostRetryCount);
    EXPECT_EQ(1800000, Remaining(agent().m_pPostRetryTimer));
}

TEST_F(CollectionTest, UnusableReportsAreSkippedForTheCycleAndBadFilesKept) {
    Prepare();
    const std::string vpn = ModuleDataDir() + "vpn.dat";
    struct Case {
        const char* name;
        std::function<void()> make;  // writes the file and reports it (or not)
        bool failed;                 // reported as unreadable
        const char* arrives;         // ModuleData's bytes in the report
        bool kept;                   // the file stays as it was
    } cases[] = {
        {"nothing reported", [] {}, false, "d10:ModuleDatadee", false},
        {"an integer reported",
         [this] { agent().m_ModuleSettings.Insert("VpnPhoneHomeFile", 7LL); }, false,
         "d10:ModuleDatadee", false},
        {"file missing", [&] { agent().m_ModuleSettings.Insert("VpnPhoneHomeFile", vpn); }, false,
         "d10:ModuleDatad9:VpnModuledeee", false},
        {"empty file", [this] { Deposit("VpnPhoneHomeFile", "vpn.dat", ""); }, false,
         "d10:ModuleDatad9:VpnModuledeee", false},
        {"truncated", [this] { Deposit("VpnPhoneHomeFile", "vpn.dat", "d3:abc"); }, true,
         "d10:ModuleDatadee", true},
        {"a list", [this] { Deposit("VpnPhoneHomeFile", "vpn.dat", "li1ee"); }, true,
         "d10:ModuleDatadee", true},
        {"too large",
         [this] {
             Deposit("VpnPhoneHomeFile", "vpn.dat",
                     "d1:x" + std::to_string(MAX_BENCODE_FILE_SIZE) + ":" +
                         std::string(MAX_BENCODE_FILE_SIZE, 'x') + "e");
         },
         true, "d10:ModuleDatadee", true},
        {"a directory",
         [&] {
             mkdir(vpn.c_str(), 0700);
             agent().m_ModuleSettings.Insert("VpnPhoneHomeFile", vpn);
         },
         true, "d10:ModuleDatadee", true},
        {"directory missing",
         [&] { agent().m_ModuleSettings.Insert("VpnPhoneHomeFile", vpn + "/no/such"); }, true,
         "d10:ModuleDatadee", false},
    };
    unsigned int sequence = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ClearCapturedLogs();
        RemoveTree(vpn);
        agent().m_ModuleSettings.Reset();
        c.make();
        std::string before = ReadFileOrEmpty(vpn);
        PhoneHomeExpires();
        EXPECT_EQ(c.failed ? 1u : 0u, CountLogText(kVpnFailed)) << DumpLog();
        // No retry in the same cycle: the report went out at once.
        EXPECT_EQ(kIntervalMs, Remaining(agent().m_pPhoneHomeTimer));
        EXPECT_EQ(c.arrives, ReportOf(sequence++).data);
        EXPECT_EQ(c.kept, FileExists(vpn));
        if (c.kept) {
            EXPECT_EQ(before, ReadFileOrEmpty(vpn));
        }
    }
}

TEST_F(CollectionTest, LockedModuleIsRetriedFourTimesThenLeftForTheNextCycle) {
    // The host reports two module files at the starter; the VPN module's writer keeps its
    // file locked.
    ModuleSettingsCallback callback({{"VpnPhoneHomeFile", ModuleDataDir() + "vpn.dat"},
                                     {"TelemetryPhoneHomeFile", ModuleDataDir() + "tel.dat"}});
    m_plugin->SetPhoneHomePluginCB(&callback);
    ASSERT_NE(0, MakeSureDirectoryPathExists(ModuleDataDir().c_str()));
    ASSERT_TRUE(WriteFile(ModuleDataDir() + "vpn.dat", "d4:lateli1eee"));
    ASSERT_TRUE(WriteFile(ModuleDataDir() + "tel.dat", "d4:seeni1ee"));
    HeldLock writer(ModuleDataDir() + "vpn.dat");

    StartService();
    AdvanceManualClock(300000);  // the starter asks for the settings
    ASSERT_TRUE(WaitUntil([&callback] { return callback.calls == 1; }));
    ASSERT_TRUE(m_runner->WaitUntilWaiting());
    AdvanceManualClock(300000);  // the first "Phone Home"
    for (unsigned int attempt = 1; attempt <= 5; ++attempt) {
        SCOPED_TRACE(attempt);
        if (attempt > 1) {
            AdvanceManualClock(20000);
        }
        ASSERT_TRUE(WaitUntil([attempt] { return CountLogText(kVpnFailed) == attempt; }))
            << DumpLog();
        ASSERT_TRUE(m_runner->WaitUntilWaiting());
        EXPECT_FALSE(FileExists(ModuleDataDir() + "tel.dat"));  // taken in at once
        if (attempt < 5) {
            EXPECT_EQ(4 - attempt, agent().m_uiCollectRetryCount);
            EXPECT_EQ(20000, Remaining(agent().m_pPhoneHomeTimer));
            EXPECT_FALSE(FileExists(Outbound(1)));
        }
    }
    EXPECT_EQ(1u, CountLogText(kGaveUp));
    EXPECT_EQ(4u, agent().m_uiCollectRetryCount);
    EXPECT_EQ(kIntervalMs, Remaining(agent().m_pPhoneHomeTimer));
    EXPECT_EQ("d10:ModuleDatad15:TelemetryModuled4:seeni1eeee", ReportOf(1).data);
    EXPECT_EQ("d4:lateli1eee", ReadFileOrEmpty(ModuleDataDir() + "vpn.dat"));

    // Once its writer is done, the file goes out with the next cycle.
    writer.Release();
    AdvanceManualClock(kIntervalMs);
    ASSERT_TRUE(WaitUntil([] { return FileExists(Outbound(2)); })) << DumpLog();
    ASSERT_TRUE(m_runner->WaitUntilWaiting());
    m_runner->Stop();
    // The telemetry module has not written again: its path gives an empty dictionary.
    EXPECT_EQ("d10:ModuleDatad15:TelemetryModulede9:VpnModuled4:lateli1eeeee", ReportOf(2).data);
    EXPECT_FALSE(FileExists(ModuleDataDir() + "vpn.dat"));
    EXPECT_EQ(5u, CountLogText(kVpnFailed));
    EXPECT_EQ(1u, CountLogText(kGaveUp));
}

TEST_F(CollectionTest, RetryThatCannotBeArmedEndsTheCycleUncounted) {
    Prepare();
    std::string vpn = Deposit("VpnPhoneHomeFile", "vpn.dat", "de");
    HeldLock writer(vpn);
    FailNext(Fault::StartTimer, PwResult(0xFE020003));
    PhoneHomeExpires();

    std::vector<LogRecord> failed = Failures("StartTimer");
    ASSERT_EQ(1u, failed.size()) << DumpLog();
    EXPECT_TRUE(PwResultEquals(failed[0].result, 0xFE020003));
    EXPECT_EQ("Failure in starting phoneHome timer", failed[0].text);
    EXPECT_TRUE(HasLogText("Failed to collect phoneHome data from modules"));
    EXPECT_EQ(4u, agent().m_uiCollectRetryCount);
    EXPECT_EQ(1u, agent().m_mapPendingModules.count("VpnModule"));
    // The caller falls back to the feedback interval; nothing was written.
    EXPECT_EQ(kIntervalMs, Remaining(agent().m_pPhoneHomeTimer));
    EXPECT_FALSE(FileExists(Outbound(1)));
}

// Each report covers the time since the previous one (the first, since initialisation).
// 99 is followed by 100, which is saved (and refused when the history is loaded again); in
// memory 100 is a valid number: it is used once, then the numbering wraps.
TEST_F(CollectionTest, ConsecutiveReportsAndTheSequenceNumbersWrap) {
    Prepare();
    ASSERT_TRUE(WriteFile(Outbound(1), "an earlier report"));
    agent().m_uiSequenceNumber = 99;
    const struct {
        unsigned int now, sequence;
        const char* saved;  // the sequence number in the history afterwards
    } reports[] = {{kStartSeconds + 600, 99, "100"},
                   {kStartSeconds + 600, 100, "1"},
                   {kStartSeconds + 2592600, 1, "2"}};
    long long previousEnd = kStartSeconds;
    for (const auto& r : reports) {
        SCOPED_TRACE(r.sequence);
        SetManualUnixSeconds(r.now);
        PhoneHomeExpires();
        Report report = ReportOf(r.sequence);
        EXPECT_EQ(previousEnd, report.start);
        EXPECT_EQ(r.now, report.end);
        previousEnd = report.end;
        EXPECT_EQ(r.saved, ReadHistory()["last_sequence_number"]);
        EXPECT_EQ(std::to_string(r.now), ReadHistory()["last_feedback"]);
    }
    EXPECT_FALSE(FileExists(Outbound(101)));
    EXPECT_EQ(2u, agent().m_uiSequenceNumber);
}

TEST_F(CollectionTest, FailedOutboundWriteDropsTheDataButKeepsTheNumber) {
    Prepare();
    std::string vpn = Deposit("VpnPhoneHomeFile", "vpn.dat", "d1:ai1ee");
    CBencodeDictionary* crashes = nullptr;
    ASSERT_TRUE(agent().m_pQualityImprovementData->Get("CrashReports", crashes, true));
    crashes->Insert("dump", std::string("bytes"));
    ASSERT_EQ(0, mkdir(Outbound(1).c_str(), 0700));  // in the way of the file
    SetManualUnixSeconds(kStartSeconds + 50);
    PhoneHomeExpires();

    std::vector<LogRecord> failed = Failures("CBencodeList::Externalize");
    ASSERT_EQ(1u, failed.size()) << DumpLog();
    EXPECT_EQ("Failed to externalize phoneHome payload", failed[0].text);
    EXPECT_TRUE(HasLogText("Failure to create phoneHome bencode file"));
    EXPECT_EQ(0u, agent().m_pQualityImprovementData->Size());
    EXPECT_FALSE(FileExists(vpn));  // taken in, and lost with the failed write
    EXPECT_EQ(1u, agent().m_uiSequenceNumber);
    EXPECT_EQ(0u, agent().m_uiPostRetryCount);
    EXPECT_EQ(std::to_string(kStartSeconds + 50), agent().m_mapHistory["last_feedback"]);
    EXPECT_EQ(kIntervalMs, Remaining(agent().m_pPhoneHomeTimer));

    // The next report reuses the number and covers the time since the failed attempt. The
    // module's data are gone; its reported path now gives an empty dictionary.
    RemoveTree(Outbound(1));
    SetManualUnixSeconds(kStartSeconds + 80);
    PhoneHomeExpires();
    Report next = ReportOf(1);
    EXPECT_EQ("d10:ModuleDatad9:VpnModuledeee", next.data);
    EXPECT_EQ(kStartSeconds + 50, next.start);
    EXPECT_EQ(kStartSeconds + 80, next.end);
}

TEST_F(CollectionTest, BrokenPayloadOrHistoryStopsTheReport) {
    struct Case {
        const char* name;
        std::function<void(CPhoneHomeAgent&)> breakIt;
        const char* message;
        bool written;
    } cases[] = {
        {"ModuleData is not a dictionary",
         [](CPhoneHomeAgent& a) { a.m_pQualityImprovementData->Insert("ModuleData", 5LL); },
         "Failed to get \"ModuleData\" dictionary", false},
        {"payload ends in an integer", [](CPhoneHomeAgent& a) { a.m_PhoneHomePayload.Append(1LL); },
         "Failure in retrieving Bencoded phoneHome payload structure", false},
        {"period cut short",
         [](CPhoneHomeAgent& a) { static_cast<CBencodeList*>(a.m_PhoneHomePayload[3])->Remove(1); },
         "Failure in updating current time in Bencoded phoneHome payload structure", false},
        {"history not writable", [](CPhoneHomeAgent&) { mkdir(HistoryPath().c_str(), 0700); },
         "SaveHistoryFile Failed", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        NewPlugin();
        RemoveTree(OutboundDir());
        RemoveTree(HistoryPath());
        Prepare();
        c.breakIt(agent());
        PhoneHomeExpires();
        EXPECT_EQ(1u, CountLogText(c.message)) << DumpLog();
        EXPECT_TRUE(HasLogText("Failed to collect phoneHome data from modules"));
        EXPECT_EQ(c.written, FileExists(Outbound(1)));
        EXPECT_EQ(0u, agent().m_uiPostRetryCount);  // nothing was posted
        EXPECT_EQ(kIntervalMs, Remaining(agent().m_pPhoneHomeTimer));
    }
}

TEST_F(CollectionTest, ModuleWritingInStagingModeDuringACycle) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    Prepare();
    const std::string vpn = ModuleDataDir() + "vpn.dat";
    const std::string ostra = ModuleDataDir() + "ostra.dat";
    agent().m_ModuleSettings.Insert("VpnPhoneHomeFile", vpn);
    agent().m_ModuleSettings.Insert("OstraPhoneHomeFile", ostra);
    ASSERT_TRUE(WriteFile(ostra, "d1:oi1ee"));

    // The VPN module deposits in staging mode: a flush creates the file when it is absent,
    // and otherwise keeps what it has in "<file>.temp" and in memory. The stream tells an
    // existing file by errno alone: each flush starts from a clean one.
    auto flush = [](CBencodeDictionary& module) {
        errno = 0;
        return module.Externalize() == eBencodeSuccess;
    };
    EBencodeResult loaded = eBencodeFileError;
    CBencodeDictionary module(vpn, loaded, true);
    ASSERT_EQ(eBencodeSuccess, loaded);
    module.Insert("first", 1LL);
    ASSERT_TRUE(flush(module));
    module.Insert("second", 2LL);
    ASSERT_TRUE(flush(module));
    EXPECT_EQ("d6:secondi2ee", ReadFileOrEmpty(vpn + ".temp"));
    std::unique_ptr<HeldLock> busy(new HeldLock(ostra));  // the other module is writing

    PhoneHomeExpires();  // takes the VPN file, waits for the other module's lock
    EXPECT_EQ(20000, Remaining(agent().m_pPhoneHomeTimer));
    EXPECT_FALSE(FileExists(vpn));
    module.Insert("third", 3LL);  // the VPN module flushes again meanwhile
    busy.reset();
    ASSERT_TRUE(flush(module));
    PhoneHomeExpires();  // the retry
    SetManualUnixSeconds(kStartSeconds + 2592000);
    PhoneHomeExpires();  // the next cycle

    ASSERT_TRUE(server.WaitForRequests(2)) << DumpLog();
    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    std::vector<std::string> arrived;
    for (const RecordedRequest& request : requests) {
        ASSERT_EQ(0u, request.body.compare(0, 5, "data="));
        arrived.push_back(ParseReport(request.body.substr(5)).data);
    }
    EXPECT_EQ("d10:ModuleDatad11:OstraModuled1:oi1ee9:VpnModuled5:firsti1eeee", arrived[0]);
    // The other module's path gives an empty dictionary until it writes again.
    EXPECT_EQ("d10:ModuleDatad11:OstraModulede9:VpnModuled6:secondi2e5:thirdi3eeee", arrived[1]);
    EXPECT_FALSE(FileExists(vpn));
    // The staging file is the module's own: the agent neither reads nor removes it.
    EXPECT_EQ("d6:secondi2ee", ReadFileOrEmpty(vpn + ".temp"));
    EXPECT_FALSE(FileExists(Outbound(1)));
    EXPECT_FALSE(FileExists(Outbound(2)));
}

}  // namespace
