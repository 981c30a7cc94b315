// The file stream: loading (missing files, the size limit, the lock, invalid content),
// flushing in place and in staging mode, and the file members of the containers.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::CapturedLogs;
using pwtest::FileExists;
using pwtest::HasLogText;
using pwtest::ReadFileOrEmpty;
using pwtest::WriteFile;

// The loader and the staging flush judge a file's existence by errno alone, so every file
// operation in these tests starts from a cleared errno unless a case sets it.
class BencodeFileTest : public pwtest::HostFixture {
protected:
    void SetUp() override {
        HostFixture::SetUp();
        errno = 0;
    }
    pwtest::TempDir m_dir;
};

// A list loaded from `path`, owning the stream that a list leaves to its creator.
struct CLoadedList {
    CLoadedList(const std::string& path, bool useTempFile)
        : list(path, result, useTempFile), stream(list.GetStream()) {}
    EBencodeResult result = eBencodeFileError;
    CBencodeList list;
    std::unique_ptr<CBencodeStream> stream;
};

TEST_F(BencodeFileTest, MissingFilesAreCreatedEmptyAndOpenFailuresReported) {
    const mode_t previous = umask(0);
    CLoadedList missing(m_dir / "list", false);
    EBencodeResult result = eBencodeFileError;
    CBencodeDictionary staging(m_dir / "dictionary", result, true);
    umask(previous);
    EXPECT_TRUE(missing.result == eBencodeSuccess && result == eBencodeSuccess);
    struct stat status;
    ASSERT_EQ(0, stat((m_dir / "list").c_str(), &status));
    EXPECT_EQ(0, status.st_size);
    EXPECT_EQ(0666u, status.st_mode & 0777u);
    EXPECT_TRUE(FileExists(m_dir / "dictionary.temp"));  // staging loads the staging file
    EXPECT_FALSE(FileExists(m_dir / "dictionary"));
    EXPECT_TRUE(CapturedLogs().empty());
    // Loading the empty file left the stream's state bits set; the save clears them.
    missing.list.Append(std::string("y"));
    EXPECT_EQ(eBencodeSuccess, missing.list.Externalize());
    EXPECT_EQ("l1:ye", ReadFileOrEmpty(m_dir / "list"));

    CBencodeDictionary unreachable(m_dir / "no-such-dir/file", result, false);
    EXPECT_EQ(eBencodeFileError, result);
    ASSERT_EQ(2u, CapturedLogs().size());
    EXPECT_EQ("File open failed", CapturedLogs()[0].text);
    EXPECT_EQ("LoadStream", CapturedLogs()[0].function);
    EXPECT_EQ(ENOENT, CapturedLogs()[0].result);
    EXPECT_EQ("Bencode dictionary internalize failed", CapturedLogs()[1].text);
    EXPECT_EQ("CBencodeDictionary", CapturedLogs()[1].function);
    unreachable.Insert("a", 1LL);
    EXPECT_EQ(eBencodeFileError, unreachable.Externalize());
    EXPECT_TRUE(HasLogText("Failed to flush stream to the file"));

    // Existence is judged by errno as the open leaves it, not cleared first: a stale error
    // fails the load of an existing file, a stale EEXIST sends a staging flush aside.
    errno = EACCES;
    CBencodeDictionary stale(m_dir / "list", result, false);
    EXPECT_EQ(eBencodeFileError, result);
    errno = EEXIST;
    staging.Insert("a", 1LL);
    EXPECT_EQ(eBencodeSuccess, staging.Externalize());
    EXPECT_EQ("d1:ai1ee", ReadFileOrEmpty(m_dir / "dictionary.temp"));
    EXPECT_EQ("", ReadFileOrEmpty(m_dir / "dictionary"));
}

TEST_F(BencodeFileTest, SizeLimitAndInvalidContent) {
    std::string largest = "li1ee";
    largest.resize(MAX_BENCODE_FILE_SIZE, 'x');  // padding after the value is never read
    // clang-format off
    const struct { bool dictionary; std::string content; EBencodeResult result; const char* message; } cases[] = {
        {false, largest, eBencodeSuccess, nullptr},
        {false, largest + "x", eBencodeInvalidData, "File size exceeds maximum limit"},
        {false, "li1ei2ex", eBencodeInvalidData, "CBencodeList Internalize failed"},
        {false, std::string("li1ei2\0ee", 9), eBencodeInvalidData, "CBencodeList Internalize failed"},
        {true, "le", eBencodeInvalidData, "Bencode dictionary internalize failed"},
        {true, "d1:ai1e1:b", eBencodeInvalidData, "Bencode dictionary internalize failed"},
    };
    // clang-format on
    const std::string path = m_dir / "file";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content.substr(0, 12));
        pwtest::ClearCapturedLogs();
        ASSERT_TRUE(WriteFile(path, c.content));
        errno = 0;
        EBencodeResult result = eBencodeFileError;
        if (c.dictionary) {
            CBencodeDictionary dictionary(path, result, false);
            EXPECT_EQ(0u, dictionary.Size());
            dictionary.Insert("k", 1LL);  // still bound: a save rewrites the file
            EXPECT_EQ(eBencodeSuccess, dictionary.Externalize());
        } else {
            CLoadedList loaded(path, false);
            result = loaded.result;
            EXPECT_EQ(result == eBencodeSuccess ? 1u : 0u, loaded.list.Size());
            loaded.list.Append(1LL);
            EXPECT_EQ(eBencodeSuccess, loaded.list.Externalize());
        }
        EXPECT_EQ(c.result, result);
        EXPECT_TRUE(c.message == nullptr ? CapturedLogs().empty() : HasLogText(c.message));
        // The save writes over the start of what was loaded.
        const std::string saved = c.dictionary                ? "d1:ki1ee"
                                  : result == eBencodeSuccess ? "li1ei1ee"
                                                              : "li1ee";
        EXPECT_EQ(saved, ReadFileOrEmpty(path).substr(0, saved.size()));
    }
}

TEST_F(BencodeFileTest, ALockHeldThroughAnotherDescriptorFailsLoadAndFlush) {
    const std::string path = m_dir / "locked";
    ASSERT_TRUE(WriteFile(path, "d1:ai1ee"));
    pwtest::HeldLock holder(path);
    EBencodeResult result = eBencodeSuccess;
    CBencodeDictionary dictionary(path, result, false);
    EXPECT_EQ(eBencodeLockError, result);
    ASSERT_FALSE(CapturedLogs().empty());
    EXPECT_EQ("Failed to acquire file lock", CapturedLogs()[0].text);
    EXPECT_EQ(EWOULDBLOCK, CapturedLogs()[0].result);
    pwtest::ClearCapturedLogs();
    dictionary.Insert("b", 2LL);
    EXPECT_EQ(eBencodeFileError, dictionary.Externalize());
    EXPECT_TRUE(HasLogText("Failed to acquire file lock"));
    EXPECT_EQ("", ReadFileOrEmpty(path));  // the open truncates before the lock is tried
    holder.Release();
    errno = 0;
    EXPECT_EQ(eBencodeSuccess, dictionary.Externalize());
    EXPECT_EQ("d1:bi2ee", ReadFileOrEmpty(path));
}

TEST_F(BencodeFileTest, FirstSaveAfterALoadOverwritesFromTheStart) {
    const std::string path = m_dir / "list";
    ASSERT_TRUE(WriteFile(path, "li1ei2ei3ee"));
    CLoadedList loaded(path, false);
    ASSERT_EQ(eBencodeSuccess, loaded.result);
    ASSERT_TRUE(loaded.list.Remove(2) && loaded.list.Remove(1));
    EXPECT_EQ(eBencodeSuccess, loaded.list.Externalize());
    EXPECT_EQ("li1ee2ei3ee", ReadFileOrEmpty(path));
    EXPECT_EQ(1u, loaded.list.Size());  // normal mode keeps the content
    errno = 0;
    CLoadedList again(path, false);
    EXPECT_EQ(1u, again.list.Size());
    // The save emptied the buffer: the next one writes only the new text.
    EXPECT_EQ(eBencodeSuccess, loaded.list.Externalize());
    EXPECT_EQ("li1ee", ReadFileOrEmpty(path));
}

TEST_F(BencodeFileTest, StagingHandsOverOnlyWhenTheMainFileIsGone) {
    const std::string path = m_dir / "module.cef";
    const std::string temp = path + ".temp";
    EBencodeResult result = eBencodeFileError;
    CBencodeDictionary depositor(path, result, true);
    ASSERT_EQ(eBencodeSuccess, result);
    depositor.Insert("a", 1LL);
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    EXPECT_EQ("d1:ai1ee", ReadFileOrEmpty(path));
    EXPECT_EQ(0u, depositor.Size());  // handed over: the container starts afresh
    // Main file present: staged beside it, content kept and accumulating.
    depositor.Insert("b", 2LL);
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    depositor.Insert("c", 3LL);
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    EXPECT_EQ("d1:ai1ee", ReadFileOrEmpty(path));
    EXPECT_EQ("d1:bi2e1:ci3ee", ReadFileOrEmpty(temp));
    EXPECT_EQ(2u, depositor.Size());
    // The consumer takes the main file away: the next save hands over everything.
    ASSERT_EQ(0, unlink(path.c_str()));
    errno = 0;
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    EXPECT_EQ("d1:bi2e1:ci3ee", ReadFileOrEmpty(path));
    EXPECT_EQ(0u, depositor.Size());
    EXPECT_EQ("d1:bi2e1:ci3ee", ReadFileOrEmpty(temp));  // never removed
    errno = 0;
    CBencodeDictionary restarted(path, result, true);  // picks up what was staged
    EXPECT_EQ(2u, restarted.Size());
}

TEST_F(BencodeFileTest, BindingAndSavesThatCannotHappen) {
    CBencodeList list(false);
    CBencodeDictionary dictionary(false);
    EXPECT_EQ(eBencodeStreamNotSet, dictionary.Externalize());
    EXPECT_EQ(eBencodeStreamNotSet, dictionary.Internalize());
    EXPECT_EQ(eBencodeStreamNotSet, list.Internalize());
    EXPECT_TRUE(CapturedLogs().empty());
    EXPECT_EQ(eBencodeStreamNotSet, list.Externalize());
    ASSERT_EQ(1u, CapturedLogs().size());
    EXPECT_EQ("Bencode stream should be set before calling Externalize", CapturedLogs()[0].text);

    dictionary.SetBencodeFileName(m_dir / "first");
    CBencodeStream* stream = dictionary.GetStream();
    dictionary.SetBencodeFileName(m_dir / "second");
    EXPECT_EQ(stream, dictionary.GetStream());
    dictionary.Insert("k", std::string("v"));
    EXPECT_EQ(eBencodeSuccess, dictionary.Externalize());
    EXPECT_FALSE(FileExists(m_dir / "first"));
    EXPECT_EQ("d1:k1:ve", ReadFileOrEmpty(m_dir / "second"));
    // A value that cannot be written leaves the file untouched.
    dictionary.Insert("n", static_cast<CBencode*>(nullptr));
    EXPECT_EQ(eBencodeFileError, dictionary.Externalize());
    EXPECT_TRUE(HasLogText("Dictionary item is NULL"));
    EXPECT_EQ("d1:k1:ve", ReadFileOrEmpty(m_dir / "second"));
}

}  // namespace
