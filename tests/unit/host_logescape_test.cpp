// Log escaping: one record is one line that shows what its text holds.
#include <string>

#include "../../host/src/LogEscape.h"
#include "TestSupport.h"

namespace {

TEST(LogEscapeTest, ControlsBidiAndMalformedUtf8AreEscapedValidUtf8IsNot) {
    const struct {
        std::string in;
        const char* out;  // nullptr: passes unchanged
    } cases[] = {
        // clang-format off
        {"ready: 3 files",                           nullptr},
        // well-formed 2-, 3- and 4-byte forms at their edges, and the neighbours of U+061C,
        // U+200E, U+202A..U+202E and U+2066..U+2069
        {"\xc2\xa0\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf", nullptr},
        {"\xf0\x90\x80\x80\xf0\x9d\x84\x9e\xf4\x8f\xbf\xbf", nullptr},
        {"\xd8\x9b\xe2\x80\x8d\xe2\x80\xaf\xe2\x81\xa5\xe2\x81\xaa", nullptr},
        {"a\\n\nE forged\r\t",                      "a\\\\n\\nE forged\\r\\t"},
        {std::string("\0\x01\x1b[31m\x1f\x7f", 9),   "\\x00\\x01\\x1b[31m\\x1f\\x7f"},
        {"\xc2\x80\xc2\x85\xc2\x9f",                 "\\u0080\\u0085\\u009f"},
        {"\xd8\x9c\xe2\x80\x8e\xe2\x80\x8f\xe2\x80\xaa\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa9",
         "\\u061c\\u200e\\u200f\\u202a\\u202e\\u2066\\u2069"},
        {"\xe2\x80\xa8\xe2\x80\xa9",                 "\\u2028\\u2029"},
        // overlong forms; surrogates, past U+10FFFF, a lead byte of overlong forms only
        {"\xc0\xaf\xe0\x9f\xbf\xf0\x8f\xbf\xbf",   "\\xc0\\xaf\\xe0\\x9f\\xbf\\xf0\\x8f\\xbf\\xbf"},
        {"\xed\xa0\x80\xed\xbf\xbf\xf4\x90\xf5\xc1",
         "\\xed\\xa0\\x80\\xed\\xbf\\xbf\\xf4\\x90\\xf5\\xc1"},
        // stray and cut sequences, Latin-1; a cut sequence does not swallow what follows
        {"\x80" "a\xe2\x82" "b\xe9\xf0\x9f\x98",      "\\x80a\\xe2\\x82b\\xe9\\xf0\\x9f\\x98"},
        {"\xe2\xc3\xa9\xe2\x82\xe2\x82\xac",         "\\xe2\xc3\xa9\\xe2\\x82\xe2\x82\xac"},
        // clang-format on
    };
    for (const auto& c : cases) {
        EXPECT_EQ(pwhost::EscapeLogText(c.in), c.out != nullptr ? c.out : c.in)
            << testing::PrintToString(c.in);
    }
}

}  // namespace
