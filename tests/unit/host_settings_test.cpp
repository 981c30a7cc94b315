// The host's key=value settings file.
#include <string>

#include "AppLog.h"
#include "HostClock.h"
#include "HostSettings.h"
#include "TestSupport.h"

namespace {

class HostSettingsTest : public pwtest::HostFixture {
protected:
    pwtest::TempDir m_dir;
};

TEST_F(HostSettingsTest, ParsesKnownKeysAndSkipsBadLines) {
    const unsigned int kDefault = 0;
    const std::string kTwoRoutes = "a:443:127.0.0.1:8443,b:443:[::1]:8443";
    const struct {
        std::string content;
        unsigned int sinks;
        std::string logFile, caFile, connectTo;
        double scale;
        unsigned int timeoutMs;
        size_t warnings;
    } cases[] = {
        // clang-format off
        {"",                                        kDefault, "", "", "", 1.0, 300000, 0},
        {"# host\r\n\r\nlog = stderr, file\r\nlog_file=/x.log\r\n", CAppLog::SinkStderr | CAppLog::SinkFile, "/x.log", "", "", 1.0, 300000, 0},
        {"connect_to=" + kTwoRoutes,                kDefault, "", "", kTwoRoutes, 1.0, 300000, 0},
        {"request_timeout=0.25\n",                  kDefault, "", "", "", 1.0, 250, 0},
        {"request_timeout=0\nrequest_timeout=-1\nrequest_timeout=86401\nrequest_timeout=soon\n", kDefault, "", "", "", 1.0, 300000, 4},
        {"log=stderr,carrier-pigeon",               kDefault, "", "", "", 1.0, 300000, 1},
        {"time_scale=0\ntime_scale=-3\ntime_scale=fast\ntime_scale=nan\n", kDefault, "", "", "", 1.0, 300000, 4},
        {"connect_to=h:443\nconnect_to=h:x:a:1\nconnect_to=:443:a:1\nconnect_to=h:443:a:70000\nconnect_to=h:1:a:1,h:2\n", kDefault, "", "", "", 1.0, 300000, 5},
        {"colour=blue\njust words\nca_file=\nlog_file=\n", kDefault, "", "", "", 1.0, 300000, 4},
        {std::string("\x00\x01=\xff\n\x7f\x80\n", 8), kDefault, "", "", "", 1.0, 300000, 2},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        pwtest::ClearCapturedLogs();
        ASSERT_TRUE(pwtest::WriteFile(m_dir / "host.conf", c.content));
        pwhost::HostSettings settings;
        ASSERT_TRUE(pwhost::LoadHostSettings(m_dir / "host.conf", settings));
        EXPECT_EQ(settings.logSinks, c.sinks);
        EXPECT_EQ(settings.logFile + "|" + settings.caFile + "|" + settings.connectTo,
                  c.logFile + "|" + c.caFile + "|" + c.connectTo);
        EXPECT_DOUBLE_EQ(settings.timeScale, c.scale);
        EXPECT_EQ(settings.requestTimeoutMs, c.timeoutMs);
        EXPECT_EQ(pwtest::CapturedLogs().size(), c.warnings) << DumpLog();
    }
    pwhost::HostSettings untouched;
    EXPECT_FALSE(pwhost::LoadHostSettings(m_dir / "absent.conf", untouched));
    EXPECT_EQ(pwhost::ConnectToMappings(kTwoRoutes + ","),
              (std::vector<std::string>{"a:443:127.0.0.1:8443", "b:443:[::1]:8443"}));
}

TEST_F(HostSettingsTest, ApplyKeepsTheSettingsAndLeavesAManualClockAlone) {
    pwhost::HostSettings settings;
    settings.caFile = "/ca.pem";
    settings.timeScale = 1000.0;
    settings.logSinks = CAppLog::SinkFile;
    settings.logFile = m_dir / "host.log";
    pwhost::ApplyHostSettings(settings);
    EXPECT_EQ(pwhost::CurrentHostSettings().caFile, settings.caFile);
    EXPECT_TRUE(pwhost::ClockIsManual());
    // The capture sink stays on beside the file.
    EXPECT_EQ(CAppLog::ConfiguredSinks(), CAppLog::SinkFile | CAppLog::SinkCapture);
    // A text longer than the formatter's first buffer arrives whole in both sinks.
    const std::string text = "to the file " + std::string(1000, 'x');
    CAppLog::LogDebugMessage("Test", "test", 1, CAppLog::Information, "%s", text.c_str());
    EXPECT_NE(pwtest::ReadFileOrEmpty(m_dir / "host.log").find(text), std::string::npos);
    EXPECT_TRUE(pwtest::HasLogText(text));
    CAppLog::ConfigureSinks(CAppLog::SinkCapture);
}

}  // namespace
