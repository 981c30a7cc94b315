// The byte format: the reader's tolerances, limits and messages, the writer's output, the
// integer scan against the C library's "%lld", and the stream buffer against
// std::stringstream.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::Written;

using pwtest::CapturedLogs;
using Logs = std::vector<std::string>;

class BencodeWireTest : public pwtest::HostFixture {};

Logs LogTexts() {
    Logs texts;
    for (const pwtest::LogRecord& record : CapturedLogs()) {
        texts.push_back(record.text);
    }
    return texts;
}

const char kReadInt[] = "Failed to read integer value";
const char kIntValue[] = "Failed to internalize integer value";
const char kIllegal[] = "Illegal bencode string";
const char kKey[] = "Failed to internalize key string";
const char kItemInt[] = "Failed to internalize list item of type integer";
const char kItemString[] = "Failed to internalize list item of type string";

// Each input is read by a list ('l') or a dictionary ('d'), which is then written back.
TEST_F(BencodeWireTest, ReaderTolerancesLimitsAndMessages) {
    const std::string body(MAX_BENCODE_STRING_LENGTH, 'z');
    // clang-format off
    const struct { char kind; std::string input; bool ok; std::string written; Logs logs; } cases[] = {
        {'l', "li0ei-0ei007ei12abei 7ei+5ee", true, "li0ei0ei7ei12ei7ei5ee", {}},
        {'l', "li00000000000000000042ei-9223372036854775808ei99999999999999999999ee", true, "li42ei-9223372036854775808ei9223372036854775807ee", {}},
        {'l', "liee", false, "le", {kReadInt, kIntValue, kItemInt}},
        {'l', "li000000000000000000042ee", false, "le", {kReadInt, kIntValue, kItemInt}},
        {'l', "li1", false, "le", {kReadInt, kIntValue, kItemInt}},
        {'l', "li1:e", false, "le", {"Integer internalize failed", kItemInt}},
        {'l', "l0:4:spam3x:abc +3:abce", true, "l0:4:spam3:abc3:abce", {}},
        {'l', std::string("l3:a\0b1:\0e", 10), true, "l1:a0:e", {}},
        {'l', "l524288:" + body + "e", true, "l524288:" + body + "e", {}},
        {'l', "l524289:" + body + "ze", false, "le", {kIllegal, kItemString}},
        {'l', "l-1:e", false, "le", {kIllegal, kItemString}},
        {'l', "l3:ab", false, "le", {kIllegal, kItemString}},
        {'l', "l3eabce", false, "le", {kIllegal, kItemString}},
        {'l', "li1ei2ex", false, "li1ei2ee", {kReadInt, kIllegal, kItemString}},
        {'l', "", true, "le", {}},
        {'d', "", true, "de", {}},
        {'l', "li1ei2eeXYZ", true, "li1ei2ee", {}},
        {'d', "d1:bi1e1:ai2e0:lee", true, "d0:le1:ai2e1:bi1ee", {}},
        {'l', "x", false, "le", {"Failed to internalize list type identifier"}},
        {'d', "l", false, "de", {"Failed to internalize dictionary type identifier"}},
        {'l', "l", false, "le", {"Failed to internalize list item identifier"}},
        {'d', "d1:a", false, "de", {"Failed to internalize value type identifier"}},
        {'d', "d1:ai1e", false, "d1:ai1ee", {kReadInt, kIllegal, kKey}},
        {'d', "d1:a3:ab", false, "de", {kIllegal, "Failed to internalize value of type string"}},
        // A value that fails leaves no entry behind; every enclosing container logs its kind.
        {'d', "d1:bi1e1:ai", false, "d1:bi1ee", {kReadInt, kIntValue, "Failed to internalize value of type integer"}},
        {'d', "d1:ad", false, "de", {kReadInt, kIllegal, kKey, "Failed to internalize value of type dictionary"}},
        {'l', "ld1:ali1ei", false, "le", {kReadInt, kIntValue, kItemInt, "Failed to internalize value of type list", "Failed to internalize list item of type dictionary"}},
        {'l', "lli", false, "le", {kReadInt, kIntValue, kItemInt, "Failed to internalize list item of type list"}},
        // A duplicate key ends its dictionary with success; the rest no longer lines up.
        {'d', "d1:bi1e1:ai2e1:bi3ee", true, "d1:ai2e1:bi1ee", {kKey}},
        {'l', "ld1:xi1e1:xi2eee", true, "ld1:xi1eei2ee", {kKey}},
        {'d', "d1:bd1:xi1e1:xi2ee1:ai1ee", false, "d1:bd1:xi1eee", {kKey, kReadInt, kIllegal, kKey}},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kind << " <" << c.input.substr(0, 60) << ">");
        pwtest::ClearCapturedLogs();
        CBencodeStream in("", false);
        ASSERT_TRUE(in.Write(c.input.data(), static_cast<unsigned int>(c.input.size())));
        CBencodeList list(false);
        CBencodeDictionary dictionary(false);
        CBencode& container = c.kind == 'l' ? static_cast<CBencode&>(list) : dictionary;
        EXPECT_EQ(c.ok, container.Internalize(in));
        EXPECT_EQ(c.logs, LogTexts());
        EXPECT_EQ(c.written, Written(container));
    }
}

// A list that can hold a null item, which the public operations never store.
class CListWithNull : public CBencodeList {
public:
    CListWithNull() : CBencodeList(false) { m_items.push_back(nullptr); }
};

TEST_F(BencodeWireTest, WriterOutputAndFailures) {
    CBencodeDictionary dictionary(false);
    dictionary.Insert("ab", 4LL);
    dictionary.Insert("a", std::string("x"));
    dictionary.Insert("", std::string(""));
    CBencodeList* list = nullptr;
    dictionary.Get("l", list, true);
    list->Append(9223372036854775807LL);
    list->Append(-9223372036854775807LL - 1);
    EXPECT_EQ("d0:0:1:a1:x2:abi4e1:lli9223372036854775807ei-9223372036854775808eee",
              Written(dictionary));
    // Integers and lengths at every digit-count boundary, as "%lld" writes them.
    for (long long value : {0LL, 9LL, 10LL, 99LL, 100LL, 999LL, 1000LL, 99999LL, -1LL, -10LL}) {
        const size_t length = value < 0 ? 0 : static_cast<size_t>(value);
        CBencode integer(value), string(std::string(length, 'x'));
        EXPECT_EQ("i" + std::to_string(value) + "e", Written(integer));
        EXPECT_EQ(std::to_string(length) + ":" + std::string(length, 'x'), Written(string));
    }
    // A key's length counts all of it, its body stops at a NUL byte: every key length the
    // writer copies in words, with the NUL at every place and nowhere.
    for (size_t length = 1; length <= 24; ++length) {
        for (size_t nul = 0; nul <= length; ++nul) {
            std::string key = std::string("abcdefghijklmnopqrstuvwxyz").substr(0, length);
            if (nul < length) {
                key[nul] = '\0';
            }
            CBencodeDictionary nulKey(false);
            nulKey.Insert(key, 1LL);
            EXPECT_EQ("d" + std::to_string(length) + ":" + key.substr(0, nul) + "i1ee",
                      Written(nulKey));
        }
    }
    EXPECT_TRUE(CapturedLogs().empty());

    CListWithNull withNull;
    EXPECT_EQ("<write failed>", Written(withNull));
    EXPECT_EQ(Logs{"NULL item stored in list"}, LogTexts());
    pwtest::ClearCapturedLogs();
    CBencodeList outer(false);
    CBencodeDictionary* inner = nullptr;
    outer.Append(inner);
    inner->Insert("k", static_cast<CBencode*>(nullptr));
    CBencodeStream out("", false);
    EXPECT_FALSE(outer.Externalize(out));
    EXPECT_EQ((Logs{"Dictionary item is NULL", "Failed to externalize list item"}), LogTexts());
    EXPECT_EQ("ld", std::string(out.Data(), out.Size()));

    // A stream that is not good refuses every writer.
    pwtest::ClearCapturedLogs();
    CBencodeStream refusing("", false);
    char byte = 0;
    EXPECT_FALSE(refusing.Read(&byte, 1));  // end of data: eof and fail
    CBencode number(1LL);
    EXPECT_FALSE(outer.Externalize(refusing) || dictionary.Externalize(refusing) ||
                 number.Externalize(refusing) || inner->Externalize(refusing));
    EXPECT_EQ(0u, refusing.Size());
    EXPECT_EQ((Logs{"Failed to externalize list type identifier",
                    "Failed to externalize dictionary type identifier",
                    "Failed to externalize dictionary type identifier"}),
              LogTexts());
}

// The integer scan against "%lld" is checked on every fuzz regression input (the
// case-scan-* inputs hold the tolerances); a stream that is not good is not read.
TEST_F(BencodeWireTest, IntegerScanOfANotGoodStream) {
    CBencodeStream stream("", false);
    stream.Write("5e", 2);
    stream.Seekg(5, std::ios_base::beg);  // out of range: fail
    long long value = 1;
    stream >> value;
    EXPECT_EQ(1, value);
    EXPECT_EQ(Logs{kReadInt}, LogTexts());
    EXPECT_EQ("operator>>", CapturedLogs()[0].function);
}

// The stream buffer follows std::stringstream: the same operations in the same order give
// the same results, positions, state bits and content.
TEST_F(BencodeWireTest, StreamBufferBehavesLikeAStringStream) {
    pwtest::TempDir dir;
    const std::string path = dir / "load";
    unsigned int seed = 12345;
    auto next = [&seed](unsigned int range) {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) % range;
    };
    const std::ios_base::seekdir directions[] = {std::ios_base::beg, std::ios_base::cur,
                                                 std::ios_base::end};
    for (int run = 0; run < 200; ++run) {
        CBencodeStream mine(path, false);
        std::stringstream model(std::ios_base::in | std::ios_base::out);
        for (int step = 0; step < 60; ++step) {
            const unsigned int operation = next(12), count = next(7);
            const unsigned int offset = next(4) == 0 ? 0 : next(10);
            const std::ios_base::seekdir direction = directions[next(3)];
            SCOPED_TRACE(testing::Message()
                         << "run " << run << " step " << step << " op " << operation);
            char data[8], theirs[8];
            for (unsigned int i = 0; i < count; ++i) {
                data[i] = static_cast<char>('a' + next(26));
            }
            const std::string text(data, count);
            // clang-format off
            switch (operation) {
                case 0: model.write(data, count); EXPECT_EQ(model.good(), mine.Write(data, count)); break;
                case 1: model.read(theirs, count);
                        EXPECT_EQ(model.good(), mine.Read(data, count));
                        EXPECT_TRUE(!model.good() || std::string(data, count) == std::string(theirs, count)); break;
                case 2: EXPECT_EQ(model.peek(), mine.Peek()); break;
                case 3: model.seekg(offset, direction); EXPECT_EQ(model.good(), mine.Seekg(offset, direction)); break;
                case 4: model.seekp(offset, direction); EXPECT_EQ(model.good(), mine.Seekp(offset, direction)); break;
                case 5: EXPECT_EQ(static_cast<int>(model.tellg()), mine.Tellg()); break;
                case 6: EXPECT_EQ(static_cast<int>(model.tellp()), mine.Tellp()); break;
                case 7: if (count < 3) { model.clear(); mine.Clear(); } break;
                case 8: if (count < 2) { model.str(""); mine.ResetStream(); } break;
                case 9: model << offset * 137LL - 500; mine << offset * 137LL - 500; break;
                case 10: model << text; mine << text; break;
                case 11: if (offset < 2) {
                             ASSERT_TRUE(pwtest::WriteFile(path, text));
                             errno = 0;
                             ASSERT_EQ(0, mine.LoadStream());
                             model.str(text);
                         } break;
            }
            // clang-format on
            ASSERT_EQ((model.eof() ? 1 : 0) | (model.fail() ? 2 : 0),
                      (mine.Eof() ? 1 : 0) | (mine.Fail() ? 2 : 0));
            ASSERT_EQ(model.str(), std::string(mine.Data(), mine.Size()));
        }
    }
}

}  // namespace
