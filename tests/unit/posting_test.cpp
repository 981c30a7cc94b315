// Posting of the outbound directory through the agent's own path (a new uploader per
// file) to the local feedback server, and the retry and stop behaviour around it.
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "AgentTestSupport.h"
#include "FeedbackServer.h"
#include "FileSystem.h"

namespace pwtest {
namespace {

const char kPosted[] = " File posted to PhoneHome server";
const char kGiveUp[] = "post failed, give up this time.";

class PostingTest : public AgentFixture {
protected:
    static std::string Outbound(const std::string& name) { return OutboundDir() + name; }

    // Entries of the outbound directory in the order the directory yields them (the order
    // of the agent's scan).
    static std::vector<std::string> DirectoryOrder() {
        std::vector<std::string> names;
        long rc = 0;
        Directory directory(rc, OutboundDir());
        std::string name;
        while (rc == 0 && directory.ReadDir(name) == 0) {
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        return names;
    }
};

TEST_F(PostingTest, PostsEveryFileExactlyAndDeletesIt) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    Prepare();
    const std::vector<std::string> contents = {"", std::string("d4:\0\x01\xffle", 8),
                                               std::string(65536, 'z'), "crash_report1.cef"};
    for (size_t i = 0; i < contents.size(); ++i) {
        ASSERT_TRUE(WriteFile(Outbound("feedback_data" + std::to_string(i) + ".cef"), contents[i]));
    }
    ASSERT_TRUE(WriteFile(Outbound("no-extension"), "x"));  // any name is posted

    EXPECT_TRUE(agent().ScanAndPostFile(1800));
    std::vector<std::string> bodies;
    for (const RecordedRequest& r : server.Requests()) {
        bodies.push_back(r.body);
        EXPECT_FALSE(r.HasHeader("Zip"));
    }
    std::vector<std::string> expected = {"data=x"};
    for (const std::string& content : contents) {
        expected.push_back("data=" + content);
    }
    std::sort(bodies.begin(), bodies.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, bodies);
    EXPECT_TRUE(DirectoryOrder().empty());
    EXPECT_EQ(5u, CountLogText(kPosted));
    EXPECT_EQ(std::to_string(kStartSeconds), agent().m_mapHistory["last_post"]);
    EXPECT_EQ(-1, Remaining(agent().m_pPostRetryTimer));
}

// An empty outbound directory posts nothing, silently; a missing one fails with one line.
TEST_F(PostingTest, EmptyOrMissingOutboundDirectory) {
    Prepare();
    EXPECT_TRUE(agent().ScanAndPostFile(1800));
    EXPECT_TRUE(CapturedLogs().empty()) << DumpLog();
    EXPECT_EQ(0u, agent().m_mapHistory.count("last_post"));

    RemoveTree(OutboundDir());
    EXPECT_FALSE(agent().ScanAndPostFile(1800));
    std::vector<LogRecord> logs = Failures("ScanAndPostFile");
    ASSERT_EQ(1u, logs.size()) << DumpLog();
    EXPECT_EQ(0, logs[0].result);  // the literal 0, not the directory's code
    EXPECT_EQ("Can't read Customer Experience Feedback outbound directory " + OutboundDir(),
              logs[0].text);
}

// A failed post stops the scan at that file; the retry timer is armed, or with 0 the scan
// gives up; the Post Retry timer counts its retries down.
TEST_F(PostingTest, FailureStopsTheScanAndRetries) {
    struct Case {
        unsigned int retrySeconds;
        long timerMs;
        size_t giveUps;
    };
    const Case cases[] = {{1800, 1800000, 0}, {0, -1, 1}};
    FeedbackServer server("server", "error");
    ASSERT_TRUE(server.Route());
    Prepare();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.retrySeconds);
        ClearCapturedLogs();
        ASSERT_TRUE(WriteFile(Outbound("a.cef"), "A"));
        ASSERT_TRUE(WriteFile(Outbound("b.cef"), "B"));
        size_t before = server.RequestCount();
        EXPECT_TRUE(agent().ScanAndPostFile(c.retrySeconds));
        EXPECT_EQ(before + 1, server.RequestCount()) << "only the first file is tried";
        EXPECT_EQ(2u, DirectoryOrder().size());
        EXPECT_EQ(c.timerMs, Remaining(agent().m_pPostRetryTimer));
        EXPECT_EQ(c.giveUps, CountLogText(kGiveUp));
        EXPECT_EQ(1u, CountLogText("Failed to post customer experence feedback data (" +
                                   Outbound(DirectoryOrder()[0]) + ")"));
        agent().m_pPostRetryTimer->StopTimer();
    }

    // Expiries of the retry timer: with retries left the count drops and the timer is
    // re-armed after another failure; at 0 the scan gives up.
    agent().m_uiPostRetryCount = 1;
    ClearCapturedLogs();
    agent().OnTimerExpired(nullptr, CPhoneHomeAgent::kPostRetryTimerId);
    EXPECT_EQ(0u, agent().m_uiPostRetryCount);
    EXPECT_EQ(1800000, Remaining(agent().m_pPostRetryTimer));
    agent().OnTimerExpired(nullptr, CPhoneHomeAgent::kPostRetryTimerId);
    EXPECT_EQ(1u, CountLogText(kGiveUp));

    server.SetMode("ok");
    agent().OnTimerExpired(nullptr, CPhoneHomeAgent::kPostRetryTimerId);
    EXPECT_TRUE(DirectoryOrder().empty());
}

// 16777216 bytes are posted, one more is refused unread and ends the scan there.
TEST_F(PostingTest, SixteenMebibyteBoundary) {
    FeedbackServer server("server", "ok", false);
    ASSERT_TRUE(server.Route());
    Prepare();
    ASSERT_TRUE(WriteFile(Outbound("exact.cef"), std::string(16777216, 'e')));
    ASSERT_TRUE(WriteFile(Outbound("over.cef"), std::string(16777217, 'o')));
    ASSERT_TRUE(WriteFile(Outbound("small.cef"), "s"));
    std::vector<std::string> order = DirectoryOrder();
    size_t overAt = std::find(order.begin(), order.end(), "over.cef") - order.begin();

    EXPECT_TRUE(agent().ScanAndPostFile(0));
    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(overAt, requests.size()) << "files after the refused one are not tried";
    for (const RecordedRequest& r : requests) {
        EXPECT_TRUE(r.length == 16777216 + 5 || r.length == 6) << r.length;
    }
    EXPECT_EQ(1u, CountLogText("File size exceeds maximum size limit (16777216)"));
    EXPECT_TRUE(FileExists(Outbound("over.cef")));
    EXPECT_EQ(1u, CountLogText(kGiveUp));
}

// Entries that cannot be posted: each is logged, stops the scan and stays in place.
TEST_F(PostingTest, UnpostableEntriesStayAndStopTheScan) {
    struct Case {
        const char* name;
        std::function<void(const std::string&)> make;
        std::vector<std::string> messages;  // one of them is logged for the path
    };
    const Case cases[] = {
        {"subdirectory",
         [](const std::string& p) { mkdir(p.c_str(), 0755); },
         {"Failed to seek in file (%)", "File size exceeds maximum size limit (16777216)",
          "Failed to read file (%) content"}},
        {"dangling symlink",
         [](const std::string& p) { ASSERT_EQ(0, symlink("/nonexistent/target", p.c_str())); },
         {"Unable to open file (%)"}},
        {"unreadable file",
         [](const std::string& p) {
             ASSERT_TRUE(WriteFile(p, "secret"));
             chmod(p.c_str(), 0);
         },
         {"Unable to open file (%)"}},
    };
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    Prepare();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ClearCapturedLogs();
        const std::string path = Outbound("entry");
        c.make(path);
        // Root reads any file: check the unreadable one under an unprivileged file-system
        // identity (this thread only), as the service would run.
        const bool dropRights = geteuid() == 0 && std::string(c.name) == "unreadable file";
        if (dropRights) {
            setfsuid(65534);
        }
        EXPECT_TRUE(agent().ScanAndPostFile(0));
        if (dropRights) {
            setfsuid(0);
        }
        size_t logged = 0;
        for (std::string message : c.messages) {
            size_t at = message.find('%');
            if (at != std::string::npos) {
                message.replace(at, 1, path);
            }
            logged += CountLogText(message);
        }
        EXPECT_EQ(1u, logged) << DumpLog();
        EXPECT_EQ(1u, CountLogText(kGiveUp));
        EXPECT_EQ(0u, server.RequestCount());
        struct stat st;
        EXPECT_EQ(0, lstat(path.c_str(), &st));
        RemoveTree(path);
    }
}

// A file that disappears after the scan saw it: the post of a vanished file fails at
// open, the removal of a file that vanished during its post is only logged.
TEST_F(PostingTest, FilesVanishingDuringTheScan) {
    FeedbackServer server;
    server.SetControl("mode=ok\ndelay=0.5");  // time for the deletions below
    ASSERT_TRUE(server.Route());
    Prepare();
    ASSERT_TRUE(WriteFile(Outbound("first.cef"), "1"));
    ASSERT_TRUE(WriteFile(Outbound("second.cef"), "2"));
    const std::vector<std::string> order = DirectoryOrder();
    std::thread remover([&] {
        ASSERT_TRUE(server.WaitForRequests(1));
        for (const std::string& name : order) {
            unlink(Outbound(name).c_str());
        }
    });
    EXPECT_TRUE(agent().ScanAndPostFile(0));
    remover.join();
    EXPECT_EQ(1u, server.RequestCount());
    EXPECT_EQ(1u, CountLogText("Can't remove " + Outbound(order[0])));
    EXPECT_EQ(1u, CountLogText(kPosted));
    EXPECT_EQ(1u, CountLogText("Unable to open file (" + Outbound(order[1]) + ")"));
    EXPECT_EQ(1u, CountLogText(kGiveUp));
}

TEST_F(PostingTest, CompressionWhenItShrinksTheData) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    Prepare();
    agent().m_bCompressData = true;
    const std::string compressible(4000, 'c');
    ASSERT_TRUE(WriteFile(Outbound("big.cef"), compressible));
    EXPECT_TRUE(agent().ScanAndPostFile(0));
    ASSERT_TRUE(WriteFile(Outbound("tiny.cef"), "ab"));  // does not shrink
    EXPECT_TRUE(agent().ScanAndPostFile(0));

    std::vector<RecordedRequest> requests = server.Requests();
    ASSERT_EQ(2u, requests.size());
    ASSERT_EQ("data=", requests[0].body.substr(0, 5));
    std::string unpacked(compressible.size(), '\0');
    uLongf unpackedLength = static_cast<uLongf>(unpacked.size());
    ASSERT_EQ(Z_OK, uncompress(reinterpret_cast<Bytef*>(&unpacked[0]), &unpackedLength,
                               reinterpret_cast<const Bytef*>(requests[0].body.data() + 5),
                               static_cast<uLong>(requests[0].body.size() - 5)));
    EXPECT_EQ(compressible, unpacked);
    EXPECT_EQ("data=ab", requests[1].body);
    EXPECT_EQ(1u, CountLogText("Can't compress feedback data"));
    for (const RecordedRequest& r : requests) {
        EXPECT_EQ("True", r.Header("Zip"));  // the header follows the setting, not the body
    }
}

// A failed uploader construction is logged and left in place until the next post.
TEST_F(PostingTest, FailedUploaderConstructionIsKept) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    Prepare();
    ASSERT_TRUE(WriteFile(Outbound("a.cef"), "A"));
    const std::string goodUrl = agent().m_tstrServerURL;
    agent().m_tstrServerURL = "https://[::1";
    EXPECT_FALSE(agent().PostDataFile(Outbound("a.cef")));
    EXPECT_NE(nullptr, agent().m_pFileUploader);
    EXPECT_EQ(1u, Failures("CFileUploader::CFileUploader").size()) << DumpLog();
    agent().m_tstrServerURL = goodUrl;
    EXPECT_TRUE(agent().PostDataFile(Outbound("a.cef")));
    EXPECT_EQ(nullptr, agent().m_pFileUploader);
}

// Stop() from another thread cuts a stalled upload short; the file stays.
TEST_F(PostingTest, StopDuringStalledUpload) {
    FeedbackServer server("server", "stall");
    ASSERT_TRUE(server.Route());
    ASSERT_TRUE(MakeSureDirectoryPathExists(OutboundDir().c_str()));
    ASSERT_TRUE(WriteFile(Outbound("stuck.cef"), std::string(65536, 's')));
    StartService();
    AdvanceManualClock(300000);  // the starter posts what is waiting
    ASSERT_TRUE(server.WaitForRequests(1)) << DumpLog();

    EXPECT_EQ(0, m_plugin->StopPhoneHome());
    EXPECT_TRUE(WaitUntil([this] { return m_runner->Finished(); })) << DumpLog();
    EXPECT_TRUE(FileExists(Outbound("stuck.cef")));
    EXPECT_EQ(nullptr, agent().m_pFileUploader);
    EXPECT_TRUE(HasLogText("Failed to post customer experence feedback data (" +
                           Outbound("stuck.cef") + ")"));
}

}  // namespace
}  // namespace pwtest
