// The settings adapter: argument checks, the key bound, and the mapping onto the
// dictionary (replace, append to a list, kind conflicts).
#include <gtest/gtest.h>

#include <string>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::CapturedLogs;
using pwtest::HasLogText;

class BencodeSettingsTest : public pwtest::HostFixture {
protected:
    CBencodeDictionary m_dictionary{false};
    CBencodeSettings m_settings{m_dictionary};
    IBencodeSettings& m_interface = m_settings;
};

std::string Written(CBencode& value) {
    CBencodeStream out("", false);
    return value.Externalize(out) ? std::string(out.Data(), out.Size()) : "<write failed>";
}

TEST_F(BencodeSettingsTest, KeyLengthBound) {
    struct Case {
        size_t keyLength;
        bool asInteger;
        bool ok;
        const char* message;
    };
    const Case cases[] = {
        {256, false, true, nullptr},
        {256, true, true, nullptr},
        {257, false, false, "Key size greater than maximum permitted limit (256)"},
        {257, true, false, "Keysize greater than maximum permitted limit (256)"},
        {2000, false, false, "Key size greater than maximum permitted limit (256)"},
        {0, false, true, nullptr},
    };
    for (const Case& c : cases) {
        pwtest::ClearCapturedLogs();
        m_dictionary.Reset();
        const std::string key(c.keyLength, 'k');
        const bool ok = c.asInteger ? m_interface.Insert(key.c_str(), 1LL)
                                    : m_interface.Insert(key.c_str(), "v", false);
        EXPECT_EQ(c.ok, ok) << c.keyLength << (c.asInteger ? " integer" : " string");
        EXPECT_EQ(c.ok ? 1u : 0u, m_dictionary.Size());
        if (c.message != nullptr) {
            ASSERT_EQ(1u, CapturedLogs().size());
            EXPECT_EQ(c.message, CapturedLogs()[0].text);
            EXPECT_EQ("Insert", CapturedLogs()[0].function);
            EXPECT_EQ("vpn/PhoneHome/PhoneHomeAgent", CapturedLogs()[0].sourceFile);
            EXPECT_EQ(69, CapturedLogs()[0].importance);
        } else {
            EXPECT_TRUE(CapturedLogs().empty());
        }
    }
}

TEST_F(BencodeSettingsTest, NullArgumentsAreRefused) {
    EXPECT_FALSE(m_interface.Insert(nullptr, "v", false));
    EXPECT_FALSE(m_interface.Insert("k", nullptr, true));
    EXPECT_FALSE(m_interface.Insert(nullptr, 1LL));
    EXPECT_EQ(3u, pwtest::CountLogText("NULL parameter passed"));
    EXPECT_EQ(0u, m_dictionary.Size());
}

TEST_F(BencodeSettingsTest, LongValuesAreAcceptedAndCutAtNul) {
    const std::string value(5000, 'v');
    ASSERT_TRUE(m_interface.Insert("k", value.c_str(), false));
    std::string stored;
    ASSERT_TRUE(m_dictionary.Get("k", stored));
    EXPECT_EQ(value, stored);
    EXPECT_TRUE(CapturedLogs().empty());
}

TEST_F(BencodeSettingsTest, MappingOntoTheDictionary) {
    struct Step {
        const char* key;
        bool isInteger;
        long long integer;
        const char* text;
        bool appendToList;
        bool ok;
    };
    struct Case {
        const char* name;
        std::vector<Step> steps;
        std::string written;
        const char* message;
    };
    const Case cases[] = {
        {"append collects a list",
         {{"k", false, 0, "a", true, true}, {"k", false, 0, "b", true, true}},
         "d1:kl1:a1:bee",
         nullptr},
        {"append onto an integer fails",
         {{"k", true, 1, nullptr, false, true}, {"k", false, 0, "x", true, false}},
         "d1:ki1ee",
         "Failed to get CBencodeList instance with key (k)"},
        {"integer replaces a string",
         {{"k", false, 0, "x", false, true}, {"k", true, 7, nullptr, false, true}},
         "d1:ki7ee",
         nullptr},
        {"string replaces a list",
         {{"k", false, 0, "a", true, true}, {"k", false, 0, "s", false, true}},
         "d1:k1:se",
         nullptr},
    };
    for (const Case& c : cases) {
        pwtest::ClearCapturedLogs();
        m_dictionary.Reset();
        for (const Step& step : c.steps) {
            const bool ok = step.isInteger
                                ? m_interface.Insert(step.key, step.integer)
                                : m_interface.Insert(step.key, step.text, step.appendToList);
            EXPECT_EQ(step.ok, ok) << c.name;
        }
        EXPECT_EQ(c.written, Written(m_dictionary)) << c.name;
        if (c.message != nullptr) {
            EXPECT_TRUE(HasLogText("Dictionary item is not a list")) << c.name;
            EXPECT_TRUE(HasLogText(c.message)) << c.name;
        }
    }
}

// The adapter reaches the dictionary through its virtual operations.
class CRecordingDictionary : public CBencodeDictionary {
public:
    CRecordingDictionary() : CBencodeDictionary(false) {}
    using CBencodeDictionary::Get;
    using CBencodeDictionary::Insert;
    bool Insert(std::string const& key, long long value) override {
        m_calls += "int;";
        return CBencodeDictionary::Insert(key, value);
    }
    bool Insert(std::string const& key, std::string const& value) override {
        m_calls += "string;";
        return CBencodeDictionary::Insert(key, value);
    }
    bool Get(std::string const& key, CBencodeList*& out, bool create) override {
        m_calls += create ? "list+;" : "list;";
        return CBencodeDictionary::Get(key, out, create);
    }
    std::string m_calls;
};

TEST_F(BencodeSettingsTest, ReachesTheDictionaryThroughItsVirtualOperations) {
    CRecordingDictionary dictionary;
    CBencodeSettings settings(dictionary);
    EXPECT_TRUE(settings.Insert("a", 1LL));
    EXPECT_TRUE(settings.Insert("b", "x", false));
    EXPECT_TRUE(settings.Insert("c", "y", true));
    EXPECT_EQ("int;string;list+;", dictionary.m_calls);
}

}  // namespace
