// Values, lists and dictionaries in memory (accessors, the overflow guard, NUL truncation,
// ownership, lookup, key order, equality) and the settings adapter over a dictionary.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::Written;

using pwtest::CapturedLogs;
using pwtest::CountLogText;
using pwtest::HasLogText;

class BencodeValuesTest : public pwtest::HostFixture {};

TEST_F(BencodeValuesTest, AddReachesTheLimitsButNeverPassesThem) {
    // clang-format off
    const struct { long long start, delta; bool ok; long long result; } cases[] = {
        {5, 0, true, 5},                     {LLONG_MAX - 1, 1, true, LLONG_MAX},
        {LLONG_MAX, 1, false, LLONG_MAX},    {1, LLONG_MAX, false, 1},
        {LLONG_MIN, -1, false, LLONG_MIN},   {LLONG_MIN, 1, true, LLONG_MIN + 1},
        {0, LLONG_MIN, true, LLONG_MIN},     {-1, LLONG_MIN, false, -1},
    };
    // clang-format on
    for (const auto& c : cases) {
        pwtest::ClearCapturedLogs();
        CBencode value(c.start);
        EXPECT_EQ(c.ok, value.Add(c.delta)) << c.start << " + " << c.delta;
        long long out = 0;
        ASSERT_TRUE(value.Get(out));
        EXPECT_EQ(c.result, out) << c.start << " + " << c.delta;
        EXPECT_EQ(c.ok ? 0u : 1u, CountLogText("Add operation will cause integer overflow"));
    }
}

TEST_F(BencodeValuesTest, AccessorsOfTheWrongKindFailAndTouchNothing) {
    CBencode text(std::string("ab\0cd", 5));
    CBencode number(42LL);
    long long integer = 7;
    std::string string = "unchanged";
    EXPECT_FALSE(text.Get(integer) || text.Set(9LL) || text.Add(0));
    EXPECT_FALSE(number.Get(string) || number.Set(std::string("y")));
    EXPECT_EQ(7, integer);
    EXPECT_EQ("unchanged", string);
    EXPECT_EQ(2u, CountLogText("Bencode is not of type integer"));
    EXPECT_EQ(2u, CountLogText("Bencode is not of type string"));
    EXPECT_EQ(1u, CountLogText("Add function called for non-Integer bencode type"));
    for (const pwtest::LogRecord& record : CapturedLogs()) {
        EXPECT_EQ("vpn/PhoneHome/Bencode", record.sourceFile);
        EXPECT_EQ(69, record.importance);
    }
    // Strings stop at their first NUL byte.
    ASSERT_TRUE(text.Get(string));
    EXPECT_EQ("ab", string);
    ASSERT_TRUE(text.Set(std::string("\0xyz", 4)) && text.Get(string));
    EXPECT_EQ("", string);
}

TEST_F(BencodeValuesTest, Equality) {
    CBencodeList list12(false), list21(false), nested(false), emptyList(false);
    CBencodeDictionary a1(false), b1(false), a2(false), nullValue(false), emptyDictionary(false);
    list12.Append(1LL), list12.Append(2LL), list21.Append(2LL), list21.Append(1LL);
    CBencodeList* child = nullptr;
    nested.Append(1LL), nested.Append(child), child->Append(2LL);
    a1.Insert("a", 1LL), b1.Insert("b", 1LL), a2.Insert("a", 2LL);
    nullValue.Insert("a", static_cast<CBencode*>(nullptr));
    CBencode five(5LL), fiveText(std::string("5")), a(std::string("a")), ab(std::string("ab"));
    // clang-format off
    const struct { CBencode& left; CBencode& right; bool equal; } cases[] = {
        {five, fiveText, false}, {a, a, true}, {a, ab, false},
        {list12, list21, false}, {list12, list12, true}, {list12, nested, false},
        {a1, b1, true},  // keys are not compared
        {a1, a2, false}, {nullValue, nullValue, false}, {emptyList, emptyDictionary, false},
    };
    // clang-format on
    for (const auto& c : cases) {
        EXPECT_EQ(c.equal, c.left == c.right) << Written(c.left) << " " << Written(c.right);
        EXPECT_EQ(c.equal, c.right == c.left) << Written(c.left) << " " << Written(c.right);
    }
    EXPECT_TRUE(CapturedLogs().empty());
    // A container kind reaching the base comparison is a fault.
    CBencode listKind(CBencode::eBencodeList);
    EXPECT_FALSE(listKind == listKind);
    EXPECT_FALSE(emptyList == listKind);
    ASSERT_EQ(1u, CapturedLogs().size());
    EXPECT_EQ("operator==", CapturedLogs()[0].function);
    EXPECT_EQ("Unexpected Bencode type", CapturedLogs()[0].text);
}

// Out-of-bound list access is refused and logged (what containers own, the sanitizer row's
// leak check sees in every test).
TEST_F(BencodeValuesTest, OutOfBoundListAccess) {
    CBencodeList list(false);
    EXPECT_FALSE(list.Remove(0));
    EXPECT_EQ(nullptr, list[0]);
    ASSERT_EQ(2u, CountLogText("Out-of-bound bencode list item access"));
    EXPECT_EQ("Remove", CapturedLogs()[0].function);
    EXPECT_EQ("operator[]", CapturedLogs()[1].function);
}

TEST_F(BencodeValuesTest, DictionaryLookupAndAdd) {
    CBencodeDictionary dictionary(false);
    dictionary.Insert("i", 1LL);
    dictionary.Insert("s", std::string("x"));
    dictionary.Insert("null", static_cast<CBencode*>(nullptr));
    long long integer = 7;
    std::string text = "keep";
    CBencodeList* list = reinterpret_cast<CBencodeList*>(&dictionary);
    EXPECT_FALSE(dictionary.Get("absent", integer) || dictionary.Get("null", integer) ||
                 dictionary.Get("absent", text) || dictionary.Get("null", text) ||
                 dictionary.Get("m", list, false) || dictionary.Add("null", 1));
    EXPECT_EQ(reinterpret_cast<CBencodeList*>(&dictionary), list);  // untouched
    EXPECT_TRUE(CapturedLogs().empty());
    EXPECT_FALSE(dictionary.Get("s", integer) || dictionary.Get("i", text));
    EXPECT_TRUE(integer == 7 && text == "keep");

    ASSERT_TRUE(dictionary.Add("n", 5) && dictionary.Add("n", 5) && dictionary.Get("n", integer));
    EXPECT_EQ(10, integer);
    EXPECT_FALSE(dictionary.Add("s", 1));
    ASSERT_TRUE(dictionary.Get("m", list, true));
    CBencode::EContentType type = CBencode::eBencodeInteger;
    ASSERT_TRUE(dictionary.GetContentType("m", type));
    EXPECT_EQ(CBencode::eBencodeList, type);
    EXPECT_FALSE(dictionary.GetContentType("absent", type));

    // The wrong kind of container (or a null value) nulls the output and creates nothing.
    CBencodeDictionary* child = nullptr;
    for (const char* key : {"i", "null", "m"}) {
        list = reinterpret_cast<CBencodeList*>(&dictionary);
        child = reinterpret_cast<CBencodeDictionary*>(&dictionary);
        EXPECT_TRUE(std::string(key) == "m" || (!dictionary.Get(key, list, true) && !list));
        EXPECT_FALSE(dictionary.Get(key, child, true) || child) << key;
    }
    EXPECT_EQ(2u, CountLogText("Dictionary item is not a list"));
    EXPECT_EQ(3u, CountLogText("Dictionary item is not a dictionary"));
    EXPECT_EQ(5u, dictionary.Size());
    CBencodeDictionary* created = nullptr;
    ASSERT_TRUE(dictionary.Get("dd", created, true) && dictionary.Get("dd", child, false));
    EXPECT_TRUE(created != nullptr && child == created && created->Size() == 0);

    CBencodeDictionary ordered(false);
    for (const char* key : {"ab", "a", "", "B", "\xff", "a\x80"}) {
        ordered.Insert(key, 1LL);
    }
    EXPECT_EQ("d0:i1e1:Bi1e1:ai1e2:abi1e2:a\x80i1e1:\xffi1ee", Written(ordered));
}

TEST_F(BencodeValuesTest, SettingsAdapter) {
    const std::string k256(256, 'k'), k257(257, 'k'), value(5000, 'v');
    const char* keySize = "Key size greater than maximum permitted limit (256)";
    const char* listFailed = "Failed to get CBencodeList instance with key (k)";
    // Each row: integer (text null) or string inserts under `key`, then the dictionary.
    // clang-format off
    const struct { const char* key; const char* text; bool append; bool ok; const char* written; const char* message; } steps[] = {
        {"k", value.c_str(), false, true, nullptr, nullptr},
        {"k", "a", true, false, nullptr, listFailed},
        {"l", "a", true, true, nullptr, nullptr},
        {"k", nullptr, false, true, "d1:ki7e1:ll1:aee", nullptr},
        {"k", "a", true, false, "d1:ki7e1:ll1:aee", listFailed},
        {"l", "s", false, true, "d1:ki7e1:l1:se", nullptr},
        {nullptr, "v", false, false, nullptr, "NULL parameter passed"},
        {nullptr, nullptr, false, false, nullptr, "NULL parameter passed"},
        {k256.c_str(), "v", false, true, nullptr, nullptr},
        {k257.c_str(), "v", false, false, nullptr, keySize},
        {k257.c_str(), nullptr, false, false, nullptr, "Keysize greater than maximum permitted limit (256)"},
    };
    // clang-format on
    CBencodeDictionary dictionary(false);
    CBencodeSettings settings(dictionary);
    IBencodeSettings& adapter = settings;
    for (const auto& step : steps) {
        pwtest::ClearCapturedLogs();
        const bool asString = step.text != nullptr || step.append;
        const bool ok = asString ? adapter.Insert(step.key, step.text, step.append)
                                 : adapter.Insert(step.key, 7LL);
        const std::string name = step.key == nullptr ? "(null)" : std::string(step.key, 0, 8);
        EXPECT_EQ(step.ok, ok) << name;
        if (step.written != nullptr) {
            EXPECT_EQ(step.written, Written(dictionary)) << name;
        }
        if (step.message != nullptr) {
            EXPECT_TRUE(HasLogText(step.message)) << name;
        } else {
            EXPECT_TRUE(CapturedLogs().empty()) << name;
        }
    }
}

}  // namespace
