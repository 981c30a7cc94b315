// The byte format: the reader's tolerances, limits and messages, the writer's output, the
// integer scan against the C library's "%lld", and the stream buffer against
// std::stringstream.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::CapturedLogs;
using Logs = std::vector<std::string>;

class BencodeWireTest : public pwtest::HostFixture {};

std::string Written(CBencode& value) {
    CBencodeStream out("", false);
    if (!value.Externalize(out)) {
        return "<write failed>";
    }
    return std::string(out.Data(), out.Size());
}

Logs LogTexts() {
    Logs texts;
    for (const pwtest::LogRecord& record : CapturedLogs()) {
        texts.push_back(record.text);
    }
    return texts;
}

struct ReadCase {
    char kind;  // 'l' or 'd': the top-level container that reads the input
    std::string input;
    bool ok;
    std::string written;  // the container written back after the read
    Logs logs;
};

void CheckRead(const ReadCase& c) {
    SCOPED_TRACE(testing::Message() << c.kind << " <" << c.input << ">");
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

const char kReadInt[] = "Failed to read integer value";
const char kIntValue[] = "Failed to internalize integer value";
const char kIllegal[] = "Illegal bencode string";
const char kKey[] = "Failed to internalize key string";

TEST_F(BencodeWireTest, IntegerTextTolerancesAndLimits) {
    const ReadCase cases[] = {
        {'l', "li0ei-0ei007ee", true, "li0ei0ei7ee", {}},
        {'l', "li12abee", true, "li12ee", {}},
        {'l', "li 7ei\t-3ei+5ei\n\v\f\r9ee", true, "li7ei-3ei5ei9ee", {}},
        {'l', "li00000000000000000042ee", true, "li42ee", {}},
        {'l', "li-0000000000000000042ee", true, "li-42ee", {}},
        {'l',
         "li9223372036854775807ei-9223372036854775808ee",
         true,
         "li9223372036854775807ei-9223372036854775808ee",
         {}},
        {'l',
         "li99999999999999999999ei-9999999999999999999ei9223372036854775808ee",
         true,
         "li9223372036854775807ei-9223372036854775808ei9223372036854775807ee",
         {}},
        {'l',
         "liee",
         false,
         "le",
         {kReadInt, kIntValue, "Failed to internalize list item of type integer"}},
        {'l',
         "li-ee",
         false,
         "le",
         {kReadInt, kIntValue, "Failed to internalize list item of type integer"}},
        {'l',
         "li000000000000000000042ee",
         false,
         "le",
         {kReadInt, kIntValue, "Failed to internalize list item of type integer"}},
        {'l',
         "li1",
         false,
         "le",
         {kReadInt, kIntValue, "Failed to internalize list item of type integer"}},
        {'l',
         "li1:e",
         false,
         "le",
         {"Integer internalize failed", "Failed to internalize list item of type integer"}},
        {'d',
         "d1:aie",
         false,
         "de",
         {kReadInt, kIntValue, "Failed to internalize value of type integer"}},
    };
    for (const ReadCase& c : cases) {
        CheckRead(c);
    }
}

TEST_F(BencodeWireTest, StringLengthAndBody) {
    const ReadCase cases[] = {
        {'l', "l0:e", true, "l0:e", {}},
        {'l', "l4:spame", true, "l4:spame", {}},
        {'l', "l3x:abce", true, "l3:abce", {}},
        {'l', "l +3:abce", true, "l3:abce", {}},
        {'l', std::string("l3:a\0be", 7), true, "l1:ae", {}},
        {'l', std::string("l1:\0e", 5), true, "l0:e", {}},
        {'l', "l-1:e", false, "le", {kIllegal, "Failed to internalize list item of type string"}},
        {'l', "l3:ab", false, "le", {kIllegal, "Failed to internalize list item of type string"}},
        {'l', "l3eabce", false, "le", {kIllegal, "Failed to internalize list item of type string"}},
        {'l',
         "lx",
         false,
         "le",
         {kReadInt, kIllegal, "Failed to internalize list item of type string"}},
        {'d', "d1:a3:ab", false, "de", {kIllegal, "Failed to internalize value of type string"}},
    };
    for (const ReadCase& c : cases) {
        CheckRead(c);
    }
}

TEST_F(BencodeWireTest, StringLengthLimitIsInclusive) {
    const std::string body(MAX_BENCODE_STRING_LENGTH, 'z');
    CheckRead({'l', "l524288:" + body + "e", true, "l524288:" + body + "e", {}});
    CheckRead({'l',
               "l524289:" + body + "ze",
               false,
               "le",
               {kIllegal, "Failed to internalize list item of type string"}});
}

TEST_F(BencodeWireTest, ContainerStructure) {
    const ReadCase cases[] = {
        {'l', "", true, "le", {}},
        {'d', "", true, "de", {}},
        {'l', "li1ei2eeXYZ", true, "li1ei2ee", {}},
        {'l', "ld1:ald1:bleeeee", true, "ld1:ald1:bleeeee", {}},
        {'d', "d1:bi1e1:ai2ee", true, "d1:ai2e1:bi1ee", {}},
        {'d', "d0:lee", true, "d0:lee", {}},
        {'l', "x", false, "le", {"Failed to internalize list type identifier"}},
        {'d', "l", false, "de", {"Failed to internalize dictionary type identifier"}},
        {'l', "l", false, "le", {"Failed to internalize list item identifier"}},
        {'l',
         "li1ei2ex",
         false,
         "li1ei2ee",
         {kReadInt, kIllegal, "Failed to internalize list item of type string"}},
        {'d', "d1:a", false, "de", {"Failed to internalize value type identifier"}},
        {'d', "di1ei2ee", false, "de", {kReadInt, kIllegal, kKey}},
        {'d', "d1:ai1e", false, "d1:ai1ee", {kReadInt, kIllegal, kKey}},
        // A value that fails leaves no entry behind, also when its key sorts before others.
        {'d',
         "d1:ai1e1:bli1ei",
         false,
         "d1:ai1ee",
         {kReadInt, kIntValue, "Failed to internalize list item of type integer",
          "Failed to internalize value of type list"}},
        {'d',
         "d1:bi1e1:ai",
         false,
         "d1:bi1ee",
         {kReadInt, kIntValue, "Failed to internalize value of type integer"}},
        {'d',
         "d1:ad",
         false,
         "de",
         {kReadInt, kIllegal, kKey, "Failed to internalize value of type dictionary"}},
        {'l',
         "ld1:ali1ei",
         false,
         "le",
         {kReadInt, kIntValue, "Failed to internalize list item of type integer",
          "Failed to internalize value of type list",
          "Failed to internalize list item of type dictionary"}},
        {'l',
         "lli",
         false,
         "le",
         {kReadInt, kIntValue, "Failed to internalize list item of type integer",
          "Failed to internalize list item of type list"}},
    };
    for (const ReadCase& c : cases) {
        CheckRead(c);
    }
}

TEST_F(BencodeWireTest, DuplicateKeyEndsTheDictionaryWithSuccess) {
    const ReadCase cases[] = {
        {'d', "d1:ai1e1:ai2e1:bi3ee", true, "d1:ai1ee", {kKey}},
        {'d', "d1:bi1e1:ai2e1:bi3ee", true, "d1:ai2e1:bi1ee", {kKey}},
        // Inside a list the rest of the input no longer lines up: the duplicate's value is
        // read as the next list item and the list then meets the outer keys.
        {'l', "ld1:xi1e1:xi2eee", true, "ld1:xi1eei2ee", {kKey}},
        // Inside a dictionary the duplicate's value is taken for the next key.
        {'d',
         "d1:bd1:xi1e1:xi2ee1:ai1ee",
         false,
         "d1:bd1:xi1eee",
         {kKey, kReadInt, kIllegal, kKey}},
    };
    for (const ReadCase& c : cases) {
        CheckRead(c);
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
    dictionary.Insert("B", -7LL);
    dictionary.Insert("", std::string(""));
    CBencodeList* list = nullptr;
    dictionary.Get("l", list, true);
    list->Append(9223372036854775807LL);
    list->Append(-9223372036854775807LL - 1);
    EXPECT_EQ("d0:0:1:Bi-7e1:a1:x2:abi4e1:lli9223372036854775807ei-9223372036854775808eee",
              Written(dictionary));

    // Integers and lengths at every digit-count boundary read as "%lld" writes them.
    for (long long value : {0LL, 9LL, 10LL, 99LL, 100LL, 999LL, 1000LL, 9999LL, 10000LL, 99999LL,
                            -1LL, -10LL, -10000LL, 1402000000LL}) {
        char text[32];
        snprintf(text, sizeof(text), "i%llde", value);
        CBencode integer(value);
        EXPECT_EQ(text, Written(integer));
        const std::string body(static_cast<size_t>(value < 0 ? 0 : value % 20000), 'x');
        snprintf(text, sizeof(text), "%zu:", body.size());
        CBencode string(body);
        EXPECT_EQ(text + body, Written(string));
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
}

TEST_F(BencodeWireTest, WritersRefuseAStreamThatIsNotGood) {
    CBencodeList list(false);
    CBencodeDictionary dictionary(false);
    CBencode number(1LL);
    CBencode text(std::string("t"));
    CBencodeStream out("", false);
    char byte = 0;
    EXPECT_FALSE(out.Read(&byte, 1));  // end of data: eof and fail
    EXPECT_FALSE(list.Externalize(out));
    EXPECT_FALSE(dictionary.Externalize(out));
    EXPECT_FALSE(number.Externalize(out));
    EXPECT_FALSE(text.Externalize(out));
    EXPECT_EQ(0u, out.Size());
    EXPECT_EQ((Logs{"Failed to externalize list type identifier",
                    "Failed to externalize dictionary type identifier"}),
              LogTexts());
}

// The integer text scan agrees with the C library's "%lld" on everything up to the
// terminator.
TEST_F(BencodeWireTest, IntegerScanMatchesScanf) {
    const char* texts[] = {"0",
                           "-0",
                           "007",
                           "+5",
                           " \t\n\v\f\r5",
                           "12ab",
                           "-",
                           "+",
                           "",
                           "   ",
                           "--1",
                           "+-1",
                           "- 1",
                           "0x1f",
                           "1 2",
                           "9223372036854775807",
                           "9223372036854775808",
                           "-9223372036854775808",
                           "-9223372036854775809",
                           "99999999999999999999",
                           "-9999999999999999999",
                           "18446744073709551616",
                           "00000000000000000001",
                           "\x80"
                           "1",
                           "a1"};
    for (const char* text : texts) {
        long long expected = 0;
        const bool scanned = sscanf(text, "%lld", &expected) == 1;
        CBencodeStream stream("", false);
        const std::string input = std::string(text) + "e";
        stream.Write(input.data(), static_cast<unsigned int>(input.size()));
        long long value = 12345;
        stream >> value;
        EXPECT_EQ(scanned, stream.Good()) << "<" << text << ">";
        EXPECT_EQ(scanned ? expected : 12345, value) << "<" << text << ">";
        if (scanned) {
            EXPECT_EQ('e', stream.Peek()) << "<" << text << ">";  // the terminator stays
        }
    }
}

TEST_F(BencodeWireTest, IntegerScanFailsOnANotGoodStream) {
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
// the same results, positions and state bits.
class CStringStreamModel {
public:
    std::stringstream stream{std::ios_base::in | std::ios_base::out};
    unsigned int State() const {
        return (stream.eof() ? 1u : 0u) | (stream.rdstate() & std::ios_base::failbit ? 2u : 0u) |
               (stream.bad() ? 4u : 0u);
    }
};

unsigned int State(CBencodeStream& stream) {
    // Good/Eof/Fail cannot tell fail from bad; the buffer never goes bad in these runs.
    return (stream.Eof() ? 1u : 0u) | (stream.Fail() ? 2u : 0u);
}

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
        CStringStreamModel model;
        for (int step = 0; step < 60; ++step) {
            const unsigned int operation = next(12);
            SCOPED_TRACE(testing::Message()
                         << "run " << run << " step " << step << " op " << operation);
            char data[8];
            char theirs[8];
            const unsigned int count = next(7);
            for (unsigned int i = 0; i < count; ++i) {
                data[i] = static_cast<char>('a' + next(26));
            }
            switch (operation) {
                case 0:
                    model.stream.write(data, count);
                    EXPECT_EQ(model.stream.good(), mine.Write(data, count));
                    break;
                case 1: {
                    model.stream.read(theirs, count);
                    const bool good = model.stream.good();
                    EXPECT_EQ(good, mine.Read(data, count));
                    if (good) {
                        EXPECT_EQ(std::string(theirs, count), std::string(data, count));
                    }
                    break;
                }
                case 2:
                    EXPECT_EQ(model.stream.peek(), mine.Peek());
                    break;
                case 3: {
                    const unsigned int offset = next(4) == 0 ? 0 : next(10);
                    const std::ios_base::seekdir direction = directions[next(3)];
                    model.stream.seekg(offset, direction);
                    EXPECT_EQ(model.stream.good(), mine.Seekg(offset, direction));
                    break;
                }
                case 4: {
                    const unsigned int offset = next(4) == 0 ? 0 : next(10);
                    const std::ios_base::seekdir direction = directions[next(3)];
                    model.stream.seekp(offset, direction);
                    EXPECT_EQ(model.stream.good(), mine.Seekp(offset, direction));
                    break;
                }
                case 5:
                    EXPECT_EQ(static_cast<int>(model.stream.tellg()), mine.Tellg());
                    break;
                case 6:
                    EXPECT_EQ(static_cast<int>(model.stream.tellp()), mine.Tellp());
                    break;
                case 7:
                    if (next(3) == 0) {
                        model.stream.clear();
                        mine.Clear();
                    }
                    break;
                case 8:
                    if (next(4) == 0) {
                        model.stream.str("");
                        mine.ResetStream();
                    }
                    break;
                case 9: {
                    const long long value = static_cast<long long>(next(2000)) - 1000;
                    model.stream << value;
                    mine << value;
                    break;
                }
                case 10: {
                    const std::string text(data, count);
                    model.stream << text;
                    mine << text;
                    break;
                }
                case 11: {
                    if (next(4) != 0) {
                        break;
                    }
                    const std::string content(data, count);
                    ASSERT_TRUE(pwtest::WriteFile(path, content));
                    errno = 0;
                    ASSERT_EQ(0, mine.LoadStream());
                    model.stream.str(content);
                    break;
                }
            }
            ASSERT_EQ(model.State(), State(mine));
            ASSERT_EQ(model.stream.str(), std::string(mine.Data(), mine.Size()));
        }
    }
}

}  // namespace
