// The host's key=value settings file.
#include <gtest/gtest.h>

#include <string>

#include "AppLog.h"
#include "HostClock.h"
#include "HostSettings.h"
#include "HostTestControl.h"
#include "TestSupport.h"

namespace {

class HostSettingsTest : public pwtest::HostFixture {
protected:
    pwtest::TempDir m_dir;
};

struct SettingsCase {
    const char* name;
    std::string content;
    unsigned int sinks;
    std::string logFile, caFile, connectTo;
    double scale;
    size_t warnings;
};

TEST_F(HostSettingsTest, ParsesKnownKeysAndSkipsBadLines) {
    const unsigned int kDefaultSinks = 0;
    const SettingsCase cases[] = {
        {"empty", "", kDefaultSinks, "", "", "", 1.0, 0},
        {"everything, with comments, blanks and CR LF",
         "# host\r\n\r\nlog = stderr, file\r\nlog_file=/tmp/x.log\r\nca_file=/ca.pem\r\n"
         "connect_to=feedback.example:443:127.0.0.1:8443\r\ntime_scale=1000\r\n",
         CAppLog::SinkStderr | CAppLog::SinkFile, "/tmp/x.log", "/ca.pem",
         "feedback.example:443:127.0.0.1:8443", 1000.0, 0},
        {"bracketed IPv6 target", "connect_to=h:443:[::1]:8443", kDefaultSinks, "", "",
         "h:443:[::1]:8443", 1.0, 0},
        {"last line without a line end", "time_scale=2.5", kDefaultSinks, "", "", "", 2.5, 0},
        {"unknown sink skips the whole value", "log=stderr,carrier-pigeon", kDefaultSinks, "", "",
         "", 1.0, 1},
        {"bad scales", "time_scale=0\ntime_scale=-3\ntime_scale=fast\ntime_scale=nan\n",
         kDefaultSinks, "", "", "", 1.0, 4},
        {"bad connect_to",
         "connect_to=h:443\nconnect_to=h:x:a:1\nconnect_to=:443:a:1\nconnect_to=h:443:a:70000\n",
         kDefaultSinks, "", "", "", 1.0, 4},
        {"unknown key, no equals sign, empty values",
         "colour=blue\njust words\nca_file=\nlog_file=\n", kDefaultSinks, "", "", "", 1.0, 4},
        {"binary junk", std::string("\x00\x01=\xff\n\x7f\x80\n", 8), kDefaultSinks, "", "", "", 1.0,
         2},
    };
    for (const SettingsCase& c : cases) {
        SCOPED_TRACE(c.name);
        pwtest::ClearCapturedLogs();
        ASSERT_TRUE(pwtest::WriteFile(m_dir / "host.conf", c.content));
        pwhost::HostSettings settings;
        ASSERT_TRUE(pwhost::LoadHostSettings(m_dir / "host.conf", settings));
        EXPECT_EQ(settings.logSinks, c.sinks);
        EXPECT_EQ(settings.logFile, c.logFile);
        EXPECT_EQ(settings.caFile, c.caFile);
        EXPECT_EQ(settings.connectTo, c.connectTo);
        EXPECT_DOUBLE_EQ(settings.timeScale, c.scale);
        EXPECT_EQ(pwtest::CapturedLogs().size(), c.warnings) << DumpLog();
    }
}

TEST_F(HostSettingsTest, MissingFileFailsWithALogLine) {
    pwhost::HostSettings settings;
    EXPECT_FALSE(pwhost::LoadHostSettings(m_dir / "absent.conf", settings));
    EXPECT_EQ(pwtest::CapturedLogs().size(), 1u);
}

TEST_F(HostSettingsTest, ApplyKeepsTheSettingsAndLeavesAManualClockAlone) {
    pwhost::HostSettings settings;
    settings.caFile = "/ca.pem";
    settings.connectTo = "h:443:127.0.0.1:8443";
    settings.timeScale = 1000.0;
    settings.logSinks = CAppLog::SinkFile;
    settings.logFile = m_dir / "host.log";
    pwhost::ApplyHostSettings(settings);
    EXPECT_EQ(pwhost::CurrentHostSettings().connectTo, settings.connectTo);
    EXPECT_EQ(pwhost::CurrentHostSettings().caFile, settings.caFile);
    EXPECT_TRUE(pwhost::ClockIsManual());
    // The capture sink stays on beside the file.
    EXPECT_EQ(CAppLog::ConfiguredSinks(), CAppLog::SinkFile | CAppLog::SinkCapture);
    // A text longer than the formatter's first buffer arrives whole in both sinks.
    const std::string text = "to the file " + std::string(1000, 'x');
    CAppLog::LogDebugMessage("Test", "test", 1, CAppLog::Information, "%s", text.c_str());
    EXPECT_NE(pwtest::ReadFileOrEmpty(m_dir / "host.log").find(text), std::string::npos);
    EXPECT_TRUE(pwtest::HasLogText(text));

    pwtest::UseRealClock();
    pwhost::ApplyHostSettings(settings);
    EXPECT_DOUBLE_EQ(pwhost::ClockScale(), 1000.0);
    pwhost::ApplyHostSettings(pwhost::HostSettings());
    EXPECT_DOUBLE_EQ(pwhost::ClockScale(), 1.0);
    CAppLog::ConfigureSinks(CAppLog::SinkCapture);
}

}  // namespace
