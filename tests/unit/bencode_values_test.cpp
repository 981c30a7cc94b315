// Integer and string values: accessors, the overflow-guarded Add, NUL truncation, equality.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::CapturedLogs;

class BencodeValuesTest : public pwtest::HostFixture {};

const char kNotInteger[] = "Add function called for non-Integer bencode type";
const char kOverflow[] = "Add operation will cause integer overflow";

struct AddCase {
    long long start;
    long long delta;
    bool ok;
    long long expected;
};

TEST_F(BencodeValuesTest, AddReachesTheLimitsButNeverPassesThem) {
    const AddCase cases[] = {
        {5, 0, true, 5},
        {LLONG_MAX, 0, true, LLONG_MAX},
        {LLONG_MAX - 1, 1, true, LLONG_MAX},
        {LLONG_MAX, 1, false, LLONG_MAX},
        {0, LLONG_MAX, true, LLONG_MAX},
        {1, LLONG_MAX, false, 1},
        {LLONG_MIN, -1, false, LLONG_MIN},
        {LLONG_MIN, 1, true, LLONG_MIN + 1},
        {LLONG_MIN + 1, -1, true, LLONG_MIN},
        {0, LLONG_MIN, true, LLONG_MIN},
        {-1, LLONG_MIN, false, -1},
        {-5, 7, true, 2},
    };
    for (const AddCase& c : cases) {
        pwtest::ClearCapturedLogs();
        CBencode value(c.start);
        EXPECT_EQ(c.ok, value.Add(c.delta)) << c.start << " + " << c.delta;
        long long out = 0;
        ASSERT_TRUE(value.Get(out));
        EXPECT_EQ(c.expected, out) << c.start << " + " << c.delta;
        EXPECT_EQ(c.ok ? 0u : 1u, pwtest::CountLogText(kOverflow)) << c.start << " + " << c.delta;
    }
}

TEST_F(BencodeValuesTest, AccessorsOfTheWrongKindFailAndTouchNothing) {
    CBencode text(std::string("x"));
    CBencode number(42LL);

    long long integer = 7;
    EXPECT_FALSE(text.Get(integer));
    EXPECT_EQ(7, integer);
    EXPECT_FALSE(text.Set(9LL));
    EXPECT_FALSE(text.Add(0));

    std::string string = "unchanged";
    EXPECT_FALSE(number.Get(string));
    EXPECT_EQ("unchanged", string);
    EXPECT_FALSE(number.Set(std::string("y")));

    ASSERT_TRUE(text.Get(string));
    EXPECT_EQ("x", string);
    ASSERT_TRUE(number.Get(integer));
    EXPECT_EQ(42, integer);

    EXPECT_EQ(2u, pwtest::CountLogText("Bencode is not of type integer"));
    EXPECT_EQ(2u, pwtest::CountLogText("Bencode is not of type string"));
    EXPECT_EQ(1u, pwtest::CountLogText(kNotInteger));
    for (const pwtest::LogRecord& record : CapturedLogs()) {
        EXPECT_EQ("vpn/PhoneHome/Bencode", record.sourceFile);
        EXPECT_EQ(69, record.importance);
        EXPECT_TRUE(record.function == "Get" || record.function == "Set" ||
                    record.function == "Add")
            << record.function;
    }
}

TEST_F(BencodeValuesTest, StringsStopAtTheFirstNulByte) {
    const std::string withNul("ab\0cd", 5);
    CBencode value(withNul);
    std::string out;
    ASSERT_TRUE(value.Get(out));
    EXPECT_EQ("ab", out);

    ASSERT_TRUE(value.Set(std::string("\0xyz", 4)));
    ASSERT_TRUE(value.Get(out));
    EXPECT_EQ("", out);
}

TEST_F(BencodeValuesTest, EqualityComparesKindAndPayload) {
    struct Case {
        CBencode left;
        CBencode right;
        bool equal;
    };
    const Case cases[] = {
        {CBencode(5LL), CBencode(std::string("5")), false},
        {CBencode(std::string("a")), CBencode(std::string("a")), true},
        {CBencode(std::string("a")), CBencode(std::string("ab")), false},
        {CBencode(std::string("")), CBencode(std::string("")), true},
        {CBencode(-1LL), CBencode(-1LL), true},
        {CBencode(LLONG_MIN), CBencode(LLONG_MAX), false},
        {CBencode(CBencode::eBencodeInteger), CBencode(0LL), true},
        {CBencode(CBencode::eBencodeString), CBencode(std::string()), true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.equal, c.left == c.right);
        EXPECT_EQ(c.equal, c.right == c.left);
    }
    EXPECT_TRUE(CapturedLogs().empty());

    // A container kind reaching the base comparison is a fault.
    CBencode left(CBencode::eBencodeList);
    CBencode right(CBencode::eBencodeList);
    EXPECT_FALSE(left == right);
    ASSERT_EQ(1u, CapturedLogs().size());
    EXPECT_EQ("operator==", CapturedLogs()[0].function);
    EXPECT_EQ("Unexpected Bencode type", CapturedLogs()[0].text);
}

}  // namespace
