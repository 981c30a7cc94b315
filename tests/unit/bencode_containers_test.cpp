// Lists and dictionaries in memory: ownership, index access, lookup with creation, key
// order and the two equality rules.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::CapturedLogs;
using pwtest::CountLogText;
using pwtest::HasLogText;

class BencodeContainersTest : public pwtest::HostFixture {};

// Counts its destructions, to prove that containers delete what they own.
class CCountedValue : public CBencode {
public:
    CCountedValue(long long value, int& deaths) : CBencode(value), m_deaths(deaths) {}
    ~CCountedValue() override { ++m_deaths; }

private:
    int& m_deaths;
};

long long IntegerAt(CBencodeList& list, unsigned int index) {
    long long value = -999;
    CBencode* item = list[index];
    if (item == nullptr || !item->Get(value)) {
        ADD_FAILURE() << "no integer at " << index;
    }
    return value;
}

TEST_F(BencodeContainersTest, RemoveDeletesTheItemAndClosesTheGap) {
    int deaths = 0;
    CBencodeList list(false);
    EXPECT_FALSE(list.Remove(0));
    EXPECT_EQ(nullptr, list[0]);
    ASSERT_EQ(2u, CapturedLogs().size());
    EXPECT_EQ("Remove", CapturedLogs()[0].function);
    EXPECT_EQ("operator[]", CapturedLogs()[1].function);
    EXPECT_EQ(2u, CountLogText("Out-of-bound bencode list item access"));

    list.Append(1LL);
    CBencodeDictionary* middle = nullptr;
    list.Append(middle);
    middle->Insert("v", new CCountedValue(2, deaths));
    list.Append(3LL);

    ASSERT_TRUE(list.Remove(1));
    EXPECT_EQ(1, deaths);
    ASSERT_EQ(2u, list.Size());
    EXPECT_EQ(1, IntegerAt(list, 0));
    EXPECT_EQ(3, IntegerAt(list, 1));
    EXPECT_FALSE(list.Remove(2));
}

TEST_F(BencodeContainersTest, AppendOfANullChildCreatesItAsTheLastItem) {
    CBencodeList list(false);
    list.Append(std::string("a\0b", 3));
    CBencodeList* childList = nullptr;
    ASSERT_TRUE(list.Append(childList));
    ASSERT_NE(nullptr, childList);
    EXPECT_EQ(childList, list[1]);
    EXPECT_EQ(0u, childList->Size());
    CBencodeDictionary* childDictionary = nullptr;
    ASSERT_TRUE(list.Append(childDictionary));
    ASSERT_NE(nullptr, childDictionary);
    EXPECT_EQ(childDictionary, list[2]);
    EXPECT_EQ(CBencode::eBencodeDictionary, list[2]->GetType());

    std::string text;
    ASSERT_TRUE(list[0]->Get(text));
    EXPECT_EQ("a", text);
}

TEST_F(BencodeContainersTest, ContainersDeleteTheirValuesOnResetReplaceAndDestruction) {
    int deaths = 0;
    {
        CBencodeDictionary dictionary(false);
        dictionary.Insert("k", new CCountedValue(1, deaths));
        dictionary.Insert("k", std::string("x"));  // replaces: the integer goes
        EXPECT_EQ(1, deaths);
        EXPECT_EQ(1u, dictionary.Size());
        std::string text;
        ASSERT_TRUE(dictionary.Get("k", text));
        EXPECT_EQ("x", text);

        dictionary.Insert("a", new CCountedValue(2, deaths));
        dictionary.Reset();
        EXPECT_EQ(2, deaths);
        EXPECT_EQ(0u, dictionary.Size());
        dictionary.Insert("b", new CCountedValue(3, deaths));
    }
    EXPECT_EQ(3, deaths);
    {
        CBencodeList list(false);
        list.Append(std::string("x"));
        CBencodeDictionary* child = nullptr;
        list.Append(child);
        child->Insert("c", new CCountedValue(4, deaths));
        list.Reset();
        EXPECT_EQ(4, deaths);
        EXPECT_EQ(0u, list.Size());
        child = nullptr;
        list.Append(child);
        child->Insert("d", new CCountedValue(5, deaths));
    }
    EXPECT_EQ(5, deaths);
}

TEST_F(BencodeContainersTest, AddCreatesAccumulatesAndRefusesOtherKinds) {
    CBencodeDictionary dictionary(false);
    long long value = 0;
    ASSERT_TRUE(dictionary.Add("n", 5));
    ASSERT_TRUE(dictionary.Get("n", value));
    EXPECT_EQ(5, value);
    ASSERT_TRUE(dictionary.Add("n", 5));
    ASSERT_TRUE(dictionary.Get("n", value));
    EXPECT_EQ(10, value);

    dictionary.Insert("s", std::string("text"));
    EXPECT_FALSE(dictionary.Add("s", 1));
    EXPECT_TRUE(HasLogText("Add function called for non-Integer bencode type"));

    dictionary.Insert("max", 9223372036854775807LL);
    EXPECT_FALSE(dictionary.Add("max", 1));
    EXPECT_TRUE(HasLogText("Add operation will cause integer overflow"));

    pwtest::ClearCapturedLogs();
    dictionary.Insert("null", static_cast<CBencode*>(nullptr));
    EXPECT_FALSE(dictionary.Add("null", 1));
    EXPECT_TRUE(CapturedLogs().empty());
}

TEST_F(BencodeContainersTest, TypedGetOnAnAbsentNullOrOtherKindValue) {
    CBencodeDictionary dictionary(false);
    dictionary.Insert("i", 1LL);
    dictionary.Insert("s", std::string("x"));
    dictionary.Insert("null", static_cast<CBencode*>(nullptr));

    long long integer = 7;
    std::string text = "keep";
    EXPECT_FALSE(dictionary.Get("absent", integer));
    EXPECT_FALSE(dictionary.Get("null", integer));
    EXPECT_FALSE(dictionary.Get("absent", text));
    EXPECT_FALSE(dictionary.Get("null", text));
    EXPECT_TRUE(CapturedLogs().empty());

    EXPECT_FALSE(dictionary.Get("s", integer));
    EXPECT_FALSE(dictionary.Get("i", text));
    EXPECT_EQ(7, integer);
    EXPECT_EQ("keep", text);
    EXPECT_TRUE(HasLogText("Bencode is not of type integer"));
    EXPECT_TRUE(HasLogText("Bencode is not of type string"));
}

TEST_F(BencodeContainersTest, GetListWithAndWithoutCreation) {
    CBencodeDictionary dictionary(false);
    CBencodeList* sentinel = reinterpret_cast<CBencodeList*>(&dictionary);
    CBencodeList* list = sentinel;
    EXPECT_FALSE(dictionary.Get("m", list, false));
    EXPECT_EQ(sentinel, list);
    EXPECT_EQ(0u, dictionary.Size());
    EXPECT_TRUE(CapturedLogs().empty());

    ASSERT_TRUE(dictionary.Get("m", list, true));
    ASSERT_NE(nullptr, list);
    CBencode::EContentType type = CBencode::eBencodeInteger;
    ASSERT_TRUE(dictionary.GetContentType("m", type));
    EXPECT_EQ(CBencode::eBencodeList, type);
    CBencodeList* again = nullptr;
    ASSERT_TRUE(dictionary.Get("m", again, false));
    EXPECT_EQ(list, again);
    EXPECT_FALSE(dictionary.GetContentType("absent", type));
}

TEST_F(BencodeContainersTest, GetOfTheWrongContainerKindNullsTheOutput) {
    struct Case {
        const char* key;
        bool wantList;
    };
    const Case cases[] = {{"int", true},  {"dict", true},  {"null", true},
                          {"int", false}, {"list", false}, {"null", false}};
    for (const Case& c : cases) {
        pwtest::ClearCapturedLogs();
        CBencodeDictionary dictionary(false);
        dictionary.Insert("int", 1LL);
        dictionary.Insert("null", static_cast<CBencode*>(nullptr));
        CBencodeList* list = nullptr;
        CBencodeDictionary* child = nullptr;
        dictionary.Get("list", list, true);
        dictionary.Get("dict", child, true);
        const unsigned int before = dictionary.Size();

        if (c.wantList) {
            CBencodeList* out = list;
            EXPECT_FALSE(dictionary.Get(c.key, out, true)) << c.key;
            EXPECT_EQ(nullptr, out) << c.key;
            EXPECT_TRUE(HasLogText("Dictionary item is not a list")) << c.key;
        } else {
            CBencodeDictionary* out = child;
            EXPECT_FALSE(dictionary.Get(c.key, out, true)) << c.key;
            EXPECT_EQ(nullptr, out) << c.key;
            EXPECT_TRUE(HasLogText("Dictionary item is not a dictionary")) << c.key;
        }
        EXPECT_EQ(before, dictionary.Size());
        long long integer = 0;
        ASSERT_TRUE(dictionary.Get("int", integer));
        EXPECT_EQ(1, integer);
    }
}

TEST_F(BencodeContainersTest, KeysAreKeptInByteWiseOrder) {
    CBencodeDictionary dictionary(false);
    const char* keys[] = {"ab", "a", "", "B", "\xff", "a\x80"};
    for (const char* key : keys) {
        dictionary.Insert(key, 1LL);
    }
    std::vector<std::string> order;
    for (const CBencodeDictionary::EntryMap::value_type& entry : dictionary.Entries()) {
        order.push_back(entry.first);
    }
    const std::vector<std::string> expected = {"", "B", "a", "ab", "a\x80", "\xff"};
    EXPECT_EQ(expected, order);
}

TEST_F(BencodeContainersTest, ListEqualityIsOrderedAndDeep) {
    CBencodeList a(false);
    CBencodeList b(true);
    EXPECT_TRUE(a == b);  // both empty
    a.Append(1LL);
    a.Append(2LL);
    b.Append(2LL);
    b.Append(1LL);
    EXPECT_FALSE(a == b);

    CBencodeList c(false);
    c.Append(1LL);
    c.Append(2LL);
    EXPECT_TRUE(a == c);

    CBencodeList* nestedA = nullptr;
    CBencodeList* nestedC = nullptr;
    a.Append(nestedA);
    c.Append(nestedC);
    nestedA->Append(std::string("x"));
    nestedC->Append(std::string("y"));
    EXPECT_FALSE(a == c);

    CBencodeDictionary emptyDictionary(false);
    CBencodeList emptyList(false);
    EXPECT_FALSE(emptyList == emptyDictionary);
    EXPECT_FALSE(emptyDictionary == emptyList);
    EXPECT_FALSE(emptyList == CBencode(CBencode::eBencodeList));
}

TEST_F(BencodeContainersTest, DictionaryEqualityIgnoresKeys) {
    struct Case {
        const char* leftKey;
        long long leftValue;
        const char* rightKey;
        long long rightValue;
        bool equal;
    };
    const Case cases[] = {
        {"a", 1, "b", 1, true},
        {"a", 1, "a", 2, false},
        {"a", 1, "a", 1, true},
    };
    for (const Case& c : cases) {
        CBencodeDictionary left(false);
        CBencodeDictionary right(false);
        left.Insert(c.leftKey, c.leftValue);
        right.Insert(c.rightKey, c.rightValue);
        EXPECT_EQ(c.equal, left == right) << c.leftKey << c.leftValue << c.rightKey;
    }

    CBencodeDictionary one(false);
    CBencodeDictionary two(false);
    one.Insert("a", 1LL);
    two.Insert("a", 1LL);
    two.Insert("b", 1LL);
    EXPECT_FALSE(one == two);

    CBencodeDictionary withNull(false);
    CBencodeDictionary withNullToo(false);
    withNull.Insert("a", static_cast<CBencode*>(nullptr));
    withNullToo.Insert("a", static_cast<CBencode*>(nullptr));
    EXPECT_FALSE(withNull == withNullToo);
}

}  // namespace
