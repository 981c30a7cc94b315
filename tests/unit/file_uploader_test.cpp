// CFileUploader against the local feedback server: one post per uploader, the result-code
// mapping (certificates that do not verify are the end-to-end suite's).
#include <memory>

#include "AppLog.h"
#include "FeedbackServer.h"
#include "FileUploader.h"

namespace pwtest {
namespace {

const char kUrl[] = "https://feedback.pathweave.example/cef/upload";

// The agent's construction arguments, with `closeOnSendFailure` as given.
std::unique_ptr<CFileUploader> MakeUploader(bool closeOnSendFailure = true) {
    long rc = 0;
    std::unique_ptr<CFileUploader> uploader(new CFileUploader(
        rc, "Pathweave", kUrl, true, "", "", "", "", "", false, closeOnSendFailure, 443, true));
    EXPECT_EQ(0, rc);
    return uploader;
}

long Post(CFileUploader& uploader, std::string& reply, const std::string& body = "data=") {
    return uploader.PostDataGetResponse(kUrl, body.data(), static_cast<int>(body.size()), reply,
                                        false);
}

class FileUploaderTest : public HostFixture {
protected:
    void TearDown() override {
        ClearRoute();
        HostFixture::TearDown();
    }
};

// The body goes as it is (bytes after a NUL too) to the path of the URL, with the client's
// name; a reply larger than the one read, or none at all, is no failure.
TEST_F(FileUploaderTest, PostsBodyAsItIs) {
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    const std::string body("data=\x00\x01\x02 bencode", 16);
    for (const char* control : {"mode=ok\nreply_size=20000", "mode=nobody"}) {
        server.SetControl(control);
        std::string reply;
        EXPECT_EQ(0, Post(*MakeUploader(), reply, body)) << control;
    }
    ASSERT_TRUE(server.WaitForRequests(2));
    for (const RecordedRequest& request : server.Requests()) {
        EXPECT_EQ(body, request.body);
        EXPECT_EQ("/cef/upload", request.path);
        EXPECT_EQ("Pathweave", request.Header("User-Agent"));
        EXPECT_FALSE(request.HasHeader("Zip"));
    }
}

// How each failure of the session reaches the caller, and the line that reports it.
TEST_F(FileUploaderTest, SendFailuresMapToUploaderCodes) {
    // injected 0: the server answers 500; reported: by the uploader's own line.
    // clang-format off
    const struct { const char* name; bool closeOnSendFailure; uint32_t injected; long expected; bool reported; } cases[] = {
        {"500 reply", true, 0, PwResult(0xFE450015), true},
        {"secure channel", true, 0xFE450017, PwResult(0xFE87000C), true},
        {"secure channel, no close", false, 0xFE450017, PwResult(0xFE87000C), true},
        {"closed, close on failure", true, 0xFE45001C, PwResult(0xFE45001C), true},
        {"closed, no close", false, 0xFE45001C, PwResult(0xFE870010), false},
        {"other code passes", false, 0xFE450013, PwResult(0xFE450013), true},
    };
    // clang-format on
    FeedbackServer server("server", "error");
    ASSERT_TRUE(server.Route());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ClearCapturedLogs();
        if (c.injected != 0) {
            FailNext(Fault::HttpSend, PwResult(c.injected));
        }
        std::string reply;
        EXPECT_EQ(c.expected, Post(*MakeUploader(c.closeOnSendFailure), reply));
        EXPECT_EQ("", reply);
        EXPECT_EQ(c.reported ? 1u : 0u, Failures("CFileUploader::SendHttpRequest").size())
            << DumpLog();
    }
}

}  // namespace
}  // namespace pwtest
