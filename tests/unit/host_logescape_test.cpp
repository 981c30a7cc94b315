// Log escaping: one record is one line that shows what its text holds.
#include <string>

#include "../../host/src/LogEscape.h"
#include "AppLog.h"
#include "TestSupport.h"

namespace {

class LogEscapeTest : public pwtest::HostFixture {};

TEST_F(LogEscapeTest, ControlsBidiAndMalformedUtf8AreEscapedValidTextIsNot) {
    const struct {
        const char* name;
        std::string in, out;
    } cases[] = {
        // clang-format off
        {"plain",            "ready: 3 files",       "ready: 3 files"},
        {"backslash",        "a\\n",                 "a\\\\n"},
        {"forged line",      "x\nE forged: done",    "x\\nE forged: done"},
        {"cr, tab",          "a\rb\tc",              "a\\rb\\tc"},
        {"C0, ESC, DEL",     std::string("\0\x01\x1b[31m\x1f\x7f", 9),
                             "\\x00\\x01\\x1b[31m\\x1f\\x7f"},
        {"2-byte",           "\xc2\xa0\xc3\xa9\xdf\xbf", "\xc2\xa0\xc3\xa9\xdf\xbf"},
        {"3-byte edges",     "\xe0\xa0\x80\xe2\x82\xac\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf",
                             "\xe0\xa0\x80\xe2\x82\xac\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf"},
        {"4-byte edges",     "\xf0\x90\x80\x80\xf0\x9d\x84\x9e\xf4\x8f\xbf\xbf",
                             "\xf0\x90\x80\x80\xf0\x9d\x84\x9e\xf4\x8f\xbf\xbf"},
        {"bidi neighbours",  "\xe2\x80\x8d\xe2\x80\xa9\xe2\x80\xaf\xe2\x81\xa5\xe2\x81\xaa",
                             "\xe2\x80\x8d\\u2029\xe2\x80\xaf\xe2\x81\xa5\xe2\x81\xaa"},
        {"C1",               "\xc2\x80\xc2\x85\xc2\x9f", "\\u0080\\u0085\\u009f"},
        {"bidi",             "\xd8\x9c\xe2\x80\x8e\xe2\x80\x8f\xe2\x80\xaa\xe2\x80\xae"
                             "\xe2\x81\xa6\xe2\x81\xa9\xe2\x80\xa8",
                             "\\u061c\\u200e\\u200f\\u202a\\u202e\\u2066\\u2069\\u2028"},
        {"overlong",         "\xc0\xaf\xc1\xbf\xe0\x80\xaf\xe0\x9f\xbf\xf0\x8f\xbf\xbf",
                             "\\xc0\\xaf\\xc1\\xbf\\xe0\\x80\\xaf\\xe0\\x9f\\xbf"
                             "\\xf0\\x8f\\xbf\\xbf"},
        {"surrogates",       "\xed\xa0\x80\xed\xbf\xbf", "\\xed\\xa0\\x80\\xed\\xbf\\xbf"},
        {"past U+10FFFF",    "\xf4\x90\x80\x80\xf5\xff", "\\xf4\\x90\\x80\\x80\\xf5\\xff"},
        {"stray, cut",       "\x80" "a\xe2\x82" "b\xf0\x9f\x98", "\\x80a\\xe2\\x82b\\xf0\\x9f\\x98"},
        {"cut, then valid",  "\xe2\xc3\xa9\xe2\x82\xe2\x82\xac", "\\xe2\xc3\xa9\\xe2\\x82\xe2\x82\xac"},
        {"latin-1",          "caf\xe9 \\x41",        "caf\\xe9 \\\\x41"},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(pwhost::EscapeLogText(c.in), c.out);
    }
}

// The file sink writes the escaped record; the capture sink keeps what the caller wrote.
TEST_F(LogEscapeTest, FileSinkWritesOneLinePerRecord) {
    pwtest::TempDir dir;
    const unsigned int sinks = CAppLog::ConfiguredSinks();
    CAppLog::ConfigureSinks(CAppLog::SinkFile | CAppLog::SinkCapture, dir / "host.log");
    const char name[] = "core\n2026-11-26T00:00:00Z pathweave-host[1]: E x: forged\x1b[2K";
    CAppLog::LogDebugMessage("Check", "vpn/x", 7, CAppLog::Warning, "no time of %s", name);
    CAppLog::ConfigureSinks(sinks);
    const std::string log = pwtest::ReadFileOrEmpty(dir / "host.log");
    EXPECT_NE(log.find(" W vpn/x:7 Check: no time of core\\n2026-11-26T00:00:00Z "
                       "pathweave-host[1]: E x: forged\\x1b[2K\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find('\n'), log.size() - 1) << log;
    EXPECT_TRUE(pwtest::HasLogText(std::string("no time of ") + name));
}

}  // namespace
