// Posting of the outbound directory through the agent's own path (a new uploader per
// file) to the local feedback server, and the retry and stop behaviour around it.
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <functional>

#include "AgentTestSupport.h"
#include "FeedbackServer.h"
#include "FileSystem.h"

namespace pwtest {
namespace {

typedef CPhoneHomeAgent A;
const char kPosted[] = " File posted to PhoneHome server";
const char kGiveUp[] = "post failed, give up this time.";

class PostingTest : public AgentFixture {
protected:
    // One scan that gives up at the first failure (the retry timer with no retry left).
    void Scan() { Expire(A::kPostRetryTimerId); }
    // Routes posts to `server` and prepares the agent.
    void Serve(const FeedbackServer& server) {
        ASSERT_TRUE(server.Route());
        Prepare();
    }
};

// A failed post stops the scan at that file; a report arms the retry timer three times,
// then the scan gives up until the next report. Posted files are deleted; a missing
// outbound directory is one line.
TEST_F(PostingTest, FailureStopsTheScanAndRetries) {
    FeedbackServer server("server", "error");
    Serve(server);
    ASSERT_TRUE(WriteFile(OutboundDir() + "a.cef", "A"));
    Expire(A::kPhoneHomeTimerId);  // writes feedback_data1.cef and posts
    for (unsigned int scan = 1; scan <= 5; ++scan) {
        SCOPED_TRACE(scan);
        EXPECT_EQ(scan, server.RequestCount()) << "only the first file is tried";
        EXPECT_EQ(2u, OutboundFiles().size());
        EXPECT_EQ(scan, Failures("CFileUploader::PostDataGetResponse").size());
        EXPECT_EQ(scan < 5 ? 0u : 1u, CountLogText(kGiveUp));
        if (scan < 5) {
            EXPECT_EQ(1800000, Remaining(A::kPostRetryTimerId));
        }
        Scan();
    }
    server.SetMode("ok");
    Scan();
    EXPECT_TRUE(OutboundFiles().empty());
    EXPECT_EQ(2u, CountLogText(kPosted));
    RemoveTree(OutboundDir());
    Scan();
    EXPECT_EQ(1u, CountLogText("Can't read Customer Experience Feedback outbound directory " +
                               OutboundDir()));
}

// 16777216 bytes are posted, one more is refused unread and ends the scan there.
TEST_F(PostingTest, SixteenMebibyteBoundary) {
    FeedbackServer server("server", "ok", false);
    Serve(server);
    ASSERT_TRUE(WriteFile(OutboundDir() + "exact.cef", std::string(16777216, 'e')));
    Scan();
    ASSERT_EQ(1u, server.RequestCount());
    EXPECT_EQ(16777216u + 5, server.Requests()[0].length);
    ASSERT_TRUE(WriteFile(OutboundDir() + "over.cef", std::string(16777217, 'o')));
    Scan();
    EXPECT_EQ(1u, server.RequestCount());
    EXPECT_EQ(1u, CountLogText("File size exceeds maximum size limit (16777216)"));
    EXPECT_EQ(std::vector<std::string>{"over.cef"}, OutboundFiles());
}

// Entries that cannot be posted: each is logged, stops the scan at once (a FIFO must not
// block it) and stays in place.
TEST_F(PostingTest, UnpostableEntriesStayAndStopTheScan) {
    const std::string path = OutboundDir() + "entry";
    const std::function<void()> makers[] = {
        [&] { mkdir(path.c_str(), 0755); },
        [&] { ASSERT_EQ(0, mkfifo(path.c_str(), 0600)); },
        [&] { ASSERT_EQ(0, symlink("/dev/zero", path.c_str())); },
        [&] { WriteFile(path, "s") && chmod(path.c_str(), 0); },
    };
    FeedbackServer server;
    Serve(server);
    // The outbound directory is its owner's alone: the service's identity owns it.
    ASSERT_EQ(0, chown(OutboundDir().c_str(), geteuid() == 0 ? 65534 : geteuid(), -1));
    for (const auto& make : makers) {
        ClearCapturedLogs();
        make();
        // Root reads any file: scan under an unprivileged file-system identity (this thread
        // only), as the service would run.
        setfsuid(geteuid() == 0 ? 65534 : geteuid());
        Scan();
        setfsuid(geteuid());
        EXPECT_EQ(1u, CountLogText("Unable to open file (" + path + ")")) << DumpLog();
        EXPECT_EQ(1u, CountLogText(kGiveUp));
        EXPECT_EQ(std::vector<std::string>{"entry"}, OutboundFiles());
        RemoveTree(path);
    }
    EXPECT_EQ(0u, server.RequestCount());
}

// A stop requested before the next file ends the scan: the rest waits, with no retry and
// no give-up.
TEST_F(PostingTest, StopEndsTheScan) {
    FeedbackServer server;
    Serve(server);
    ASSERT_TRUE(WriteFile(OutboundDir() + "a.cef", "A"));
    PhoneHomeAgentTestAccess::RequestStop(agent());
    Expire(A::kPhoneHomeTimerId);  // writes a second file, posts with retries allowed
    EXPECT_EQ(0u, server.RequestCount());
    EXPECT_EQ(2u, OutboundFiles().size());
    EXPECT_EQ(-1, Remaining(A::kPostRetryTimerId));
    EXPECT_FALSE(HasLogText(kGiveUp));
}

}  // namespace
}  // namespace pwtest
