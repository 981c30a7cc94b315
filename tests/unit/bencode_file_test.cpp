// The file stream: loading (missing files, the size limit, the lock, invalid content),
// flushing in place and in staging mode, and the file members of the containers.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Bencode.h"
#include "TestSupport.h"

namespace {

using pwtest::CapturedLogs;
using pwtest::FileExists;
using pwtest::HasLogText;
using pwtest::ReadFileOrEmpty;
using pwtest::WriteFile;

// The loader and the staging flush judge a file's existence by errno alone, so every
// file operation in these tests starts from a cleared errno unless a case sets it.
class BencodeFileTest : public pwtest::HostFixture {
protected:
    void SetUp() override {
        HostFixture::SetUp();
        errno = 0;
    }
    pwtest::TempDir m_dir;
};

std::string Written(CBencode& value) {
    CBencodeStream out("", false);
    return value.Externalize(out) ? std::string(out.Data(), out.Size()) : "<write failed>";
}

// Holds an exclusive flock on a file through a descriptor of its own.
class CHeldLock {
public:
    explicit CHeldLock(const std::string& path)
        : m_fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        EXPECT_GE(m_fd, 0);
        EXPECT_EQ(0, flock(m_fd, LOCK_EX | LOCK_NB));
    }
    ~CHeldLock() { close(m_fd); }

private:
    int m_fd;
};

// A second process that holds an exclusive flock on a file until it is released.
class CLockingProcess {
public:
    explicit CLockingProcess(const std::string& path) {
        int ready[2];
        int release[2];
        EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(release, O_CLOEXEC));
        m_pid = fork();
        if (m_pid == 0) {
            // Only the parent may hold the write end, or the release would never arrive.
            close(release[1]);
            close(ready[0]);
            int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            char status = (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) ? 'L' : 'F';
            ssize_t ignored = write(ready[1], &status, 1);
            char byte;
            ignored = read(release[0], &byte, 1);  // returns when the parent says so
            (void)ignored;
            _exit(0);
        }
        close(ready[1]);
        close(release[0]);
        m_release = release[1];
        char status = 0;
        EXPECT_EQ(1, read(ready[0], &status, 1));
        EXPECT_EQ('L', status);
        close(ready[0]);
    }
    ~CLockingProcess() { Release(); }
    void Release() {
        if (m_pid > 0) {
            close(m_release);
            int status = 0;
            EXPECT_EQ(m_pid, waitpid(m_pid, &status, 0));
            m_pid = -1;
        }
    }

private:
    pid_t m_pid;
    int m_release;
};

TEST_F(BencodeFileTest, LoadingAMissingFileCreatesItEmpty) {
    const mode_t previous = umask(0);
    EBencodeResult listResult = eBencodeFileError;
    EBencodeResult dictionaryResult = eBencodeFileError;
    CBencodeList list(m_dir / "list", listResult, false);
    CBencodeDictionary dictionary(m_dir / "dictionary", dictionaryResult, true);
    umask(previous);

    EXPECT_EQ(eBencodeSuccess, listResult);
    EXPECT_EQ(eBencodeSuccess, dictionaryResult);
    EXPECT_EQ(0u, list.Size());
    EXPECT_EQ(0u, dictionary.Size());
    struct stat status;
    ASSERT_EQ(0, stat((m_dir / "list").c_str(), &status));
    EXPECT_EQ(0u, static_cast<unsigned int>(status.st_size));
    EXPECT_EQ(0666u, status.st_mode & 0777u);
    // Staging mode loads the staging file, not the main one.
    EXPECT_TRUE(FileExists(m_dir / "dictionary.temp"));
    EXPECT_FALSE(FileExists(m_dir / "dictionary"));
    EXPECT_TRUE(CapturedLogs().empty());

    // Loading the empty file left the stream's state bits set; the save clears them.
    list.Append(std::string("y"));
    EXPECT_EQ(eBencodeSuccess, list.Externalize());
    EXPECT_EQ("l1:ye", ReadFileOrEmpty(m_dir / "list"));
    delete list.GetStream();
}

TEST_F(BencodeFileTest, OpenFailuresAreFileErrors) {
    EBencodeResult result = eBencodeSuccess;
    CBencodeDictionary dictionary(m_dir / "no-such-dir/file", result, false);
    EXPECT_EQ(eBencodeFileError, result);
    ASSERT_EQ(2u, CapturedLogs().size());
    EXPECT_EQ("File open failed", CapturedLogs()[0].text);
    EXPECT_EQ("LoadStream", CapturedLogs()[0].function);
    EXPECT_EQ(ENOENT, CapturedLogs()[0].result);
    EXPECT_EQ("Bencode dictionary internalize failed", CapturedLogs()[1].text);
    EXPECT_EQ("CBencodeDictionary", CapturedLogs()[1].function);
    EXPECT_EQ(eBencodeFileError, CapturedLogs()[1].result);

    pwtest::ClearCapturedLogs();
    dictionary.Insert("a", 1LL);
    EXPECT_EQ(eBencodeFileError, dictionary.Externalize());
    EXPECT_TRUE(HasLogText("File open failed"));
    EXPECT_TRUE(HasLogText("Failed to flush stream to the file"));
}

// Existence is judged by errno as the open leaves it, without clearing it first: a stale
// error fails the load of an existing file, a stale ENOENT re-creates it (keeping its
// content), and a stale EEXIST sends a staging flush to the ".temp" file.
TEST_F(BencodeFileTest, StaleErrnoDecidesWhetherAFileExists) {
    const std::string path = m_dir / "data";
    ASSERT_TRUE(WriteFile(path, "li1ee"));

    errno = EACCES;
    EBencodeResult result = eBencodeSuccess;
    CBencodeDictionary failed(path, result, false);
    EXPECT_EQ(eBencodeFileError, result);
    EXPECT_TRUE(HasLogText("File open failed"));

    errno = ENOENT;
    CBencodeList loaded(path, result, false);
    EXPECT_EQ(eBencodeSuccess, result);
    EXPECT_EQ(1u, loaded.Size());
    delete loaded.GetStream();

    CBencodeList staged(true);
    staged.SetBencodeFileName(m_dir / "fresh");
    staged.Append(5LL);
    errno = EEXIST;
    EXPECT_EQ(eBencodeSuccess, staged.Externalize());
    EXPECT_EQ("", ReadFileOrEmpty(m_dir / "fresh"));
    EXPECT_EQ("li5ee", ReadFileOrEmpty(m_dir / "fresh.temp"));
    EXPECT_EQ(1u, staged.Size());
    delete staged.GetStream();
}

TEST_F(BencodeFileTest, SizeLimitIsInclusive) {
    struct Case {
        size_t size;
        EBencodeResult result;
        unsigned int items;
    };
    const Case cases[] = {{MAX_BENCODE_FILE_SIZE, eBencodeSuccess, 1},
                          {MAX_BENCODE_FILE_SIZE + 1, eBencodeInvalidData, 0}};
    for (const Case& c : cases) {
        pwtest::ClearCapturedLogs();
        errno = 0;
        // A valid list followed by padding, which the reader never looks at.
        std::string content = "li1ee";
        content.resize(c.size, 'x');
        const std::string path = m_dir / "big";
        ASSERT_TRUE(WriteFile(path, content));
        EBencodeResult result = eBencodeSuccess;
        CBencodeList list(path, result, false);
        EXPECT_EQ(c.result, result) << c.size;
        EXPECT_EQ(c.items, list.Size()) << c.size;
        EXPECT_EQ(c.result != eBencodeSuccess, HasLogText("File size exceeds maximum limit"));
        EXPECT_EQ(c.result != eBencodeSuccess, HasLogText("CBencodeList Internalize failed"));
        delete list.GetStream();
    }
}

TEST_F(BencodeFileTest, InvalidContentLeavesAnEmptyBoundContainer) {
    struct Case {
        bool dictionary;
        std::string content;
        std::string message;
    };
    const Case cases[] = {
        {false, "li1ei2ex", "CBencodeList Internalize failed"},
        // The content ends at the first NUL byte: this list is never closed.
        {false, std::string("li1ei2\0ee", 9), "CBencodeList Internalize failed"},
        {false, "d", "CBencodeList Internalize failed"},
        {true, "d1:ai1e1:b", "Bencode dictionary internalize failed"},
        {true, "le", "Bencode dictionary internalize failed"},
    };
    for (const Case& c : cases) {
        pwtest::ClearCapturedLogs();
        errno = 0;
        const std::string path = m_dir / "invalid";
        ASSERT_TRUE(WriteFile(path, c.content));
        EBencodeResult result = eBencodeSuccess;
        if (c.dictionary) {
            CBencodeDictionary dictionary(path, result, false);
            EXPECT_EQ(0u, dictionary.Size()) << c.content;
            // Still bound: a save rewrites the file.
            dictionary.Insert("k", 1LL);
            EXPECT_EQ(eBencodeSuccess, dictionary.Externalize());
        } else {
            CBencodeList list(path, result, false);
            EXPECT_EQ(0u, list.Size()) << c.content;
            list.Append(1LL);
            EXPECT_EQ(eBencodeSuccess, list.Externalize());
            delete list.GetStream();
        }
        EXPECT_EQ(eBencodeInvalidData, result) << c.content;
        EXPECT_TRUE(HasLogText(c.message)) << c.content;
        const std::string written = ReadFileOrEmpty(path);
        EXPECT_EQ(c.dictionary ? "d1:ki1ee" : "li1ee", written.substr(0, c.dictionary ? 8 : 5))
            << c.content;
    }
}

TEST_F(BencodeFileTest, ALockHeldThroughAnotherDescriptorFailsLoadAndFlush) {
    const std::string path = m_dir / "locked";
    ASSERT_TRUE(WriteFile(path, "d1:ai1ee"));
    CHeldLock lock(path);

    EBencodeResult result = eBencodeSuccess;
    CBencodeDictionary dictionary(path, result, false);
    EXPECT_EQ(eBencodeLockError, result);
    ASSERT_FALSE(CapturedLogs().empty());
    EXPECT_EQ("Failed to acquire file lock", CapturedLogs()[0].text);
    EXPECT_EQ(EWOULDBLOCK, CapturedLogs()[0].result);
    EXPECT_EQ(0u, dictionary.Size());

    pwtest::ClearCapturedLogs();
    dictionary.Insert("b", 2LL);
    EXPECT_EQ(eBencodeFileError, dictionary.Externalize());
    EXPECT_TRUE(HasLogText("Failed to acquire file lock"));
    EXPECT_TRUE(HasLogText("Failed to flush stream to the file"));
    // The open truncates before the lock is tried.
    EXPECT_EQ("", ReadFileOrEmpty(path));
}

TEST_F(BencodeFileTest, ALockHeldByAnotherProcessFailsTheLoadUntilReleased) {
    const std::string path = m_dir / "shared";
    ASSERT_TRUE(WriteFile(path, "li7ee"));
    CLockingProcess other(path);

    CBencodeStream stream(path, false);
    EXPECT_EQ(eBencodeLockError, stream.LoadStream());
    EXPECT_TRUE(HasLogText("Failed to acquire file lock"));
    bool staged = true;
    EXPECT_EQ(eBencodeFileError, stream.FlushStream(staged));
    EXPECT_FALSE(staged);

    other.Release();
    ASSERT_TRUE(WriteFile(path, "li7ee"));
    errno = 0;
    EXPECT_EQ(eBencodeSuccess, stream.LoadStream());
    EXPECT_EQ("li7ee", std::string(stream.Data(), stream.Size()));
}

// A save after a load writes the new text over the start of the old one.
TEST_F(BencodeFileTest, FirstSaveAfterALoadOverwritesFromTheStart) {
    const std::string path = m_dir / "list";
    ASSERT_TRUE(WriteFile(path, "li1ei2ei3ee"));
    EBencodeResult result = eBencodeFileError;
    CBencodeList list(path, result, false);
    ASSERT_EQ(eBencodeSuccess, result);
    ASSERT_TRUE(list.Remove(2));
    ASSERT_TRUE(list.Remove(1));
    EXPECT_EQ(eBencodeSuccess, list.Externalize());
    EXPECT_EQ("li1ee2ei3ee", ReadFileOrEmpty(path));
    EXPECT_EQ(1u, list.Size());  // normal mode keeps the content

    // The buffer was emptied by the save: the next one writes only the new text.
    EXPECT_EQ(eBencodeSuccess, list.Externalize());
    EXPECT_EQ("li1ee", ReadFileOrEmpty(path));

    ASSERT_TRUE(WriteFile(path, "li1ee2ei3ee"));
    errno = 0;
    CBencodeList again(path, result, false);
    EXPECT_EQ(eBencodeSuccess, result);
    EXPECT_EQ(1u, again.Size());
    delete list.GetStream();
    delete again.GetStream();
}

TEST_F(BencodeFileTest, StagingHandsOverOnlyWhenTheMainFileIsGone) {
    const std::string path = m_dir / "module.cef";
    const std::string temp = path + ".temp";
    EBencodeResult result = eBencodeFileError;
    CBencodeDictionary depositor(path, result, true);
    ASSERT_EQ(eBencodeSuccess, result);

    // Main file absent: everything goes there and the container starts afresh.
    depositor.Insert("a", 1LL);
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    EXPECT_EQ("d1:ai1ee", ReadFileOrEmpty(path));
    EXPECT_EQ(0u, depositor.Size());

    // Main file present: staged beside it, content kept and accumulating.
    depositor.Insert("b", 2LL);
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    EXPECT_EQ("d1:ai1ee", ReadFileOrEmpty(path));
    EXPECT_EQ("d1:bi2ee", ReadFileOrEmpty(temp));
    depositor.Insert("c", 3LL);
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    EXPECT_EQ("d1:bi2e1:ci3ee", ReadFileOrEmpty(temp));
    EXPECT_EQ(2u, depositor.Size());

    // The consumer takes the main file away: the next save hands over everything.
    ASSERT_EQ(0, unlink(path.c_str()));
    errno = 0;
    EXPECT_EQ(eBencodeSuccess, depositor.Externalize());
    EXPECT_EQ("d1:bi2e1:ci3ee", ReadFileOrEmpty(path));
    EXPECT_EQ(0u, depositor.Size());
    EXPECT_EQ("d1:bi2e1:ci3ee", ReadFileOrEmpty(temp));  // never removed

    // A new depositor picks up what was staged.
    errno = 0;
    CBencodeDictionary restarted(path, result, true);
    EXPECT_EQ(eBencodeSuccess, result);
    EXPECT_EQ(2u, restarted.Size());
}

TEST_F(BencodeFileTest, FailedSerialisationLeavesTheFileUntouched) {
    const std::string path = m_dir / "dict";
    ASSERT_TRUE(WriteFile(path, "d1:ai1ee"));
    EBencodeResult result = eBencodeFileError;
    CBencodeDictionary dictionary(path, result, false);
    ASSERT_EQ(eBencodeSuccess, result);
    dictionary.Insert("n", static_cast<CBencode*>(nullptr));
    EXPECT_EQ(eBencodeFileError, dictionary.Externalize());
    EXPECT_TRUE(HasLogText("Dictionary item is NULL"));
    EXPECT_EQ("d1:ai1ee", ReadFileOrEmpty(path));
}

TEST_F(BencodeFileTest, ContainersWithoutAStream) {
    CBencodeList list(false);
    CBencodeDictionary dictionary(false);
    EXPECT_EQ(eBencodeStreamNotSet, dictionary.Externalize());
    EXPECT_EQ(eBencodeStreamNotSet, dictionary.Internalize());
    EXPECT_EQ(eBencodeStreamNotSet, list.Internalize());
    EXPECT_TRUE(CapturedLogs().empty());
    EXPECT_EQ(eBencodeStreamNotSet, list.Externalize());
    ASSERT_EQ(1u, CapturedLogs().size());
    EXPECT_EQ("Bencode stream should be set before calling Externalize", CapturedLogs()[0].text);
    EXPECT_EQ("Externalize", CapturedLogs()[0].function);
}

TEST_F(BencodeFileTest, SetBencodeFileNameBindsOrRenames) {
    CBencodeDictionary dictionary(false);
    dictionary.SetBencodeFileName(m_dir / "first");
    CBencodeStream* stream = dictionary.GetStream();
    ASSERT_NE(nullptr, stream);
    dictionary.SetBencodeFileName(m_dir / "second");
    EXPECT_EQ(stream, dictionary.GetStream());
    dictionary.Insert("k", std::string("v"));
    EXPECT_EQ(eBencodeSuccess, dictionary.Externalize());
    EXPECT_FALSE(FileExists(m_dir / "first"));
    EXPECT_EQ("d1:k1:ve", ReadFileOrEmpty(m_dir / "second"));

    errno = 0;
    EXPECT_EQ(eBencodeSuccess, dictionary.Internalize());
    EXPECT_EQ("d1:k1:ve", Written(dictionary));
}

// Unlike the dictionary, a list leaves its stream alive when it is destroyed.
TEST_F(BencodeFileTest, ListDestructorLeavesItsStream) {
    CBencodeStream* stream = nullptr;
    {
        CBencodeList list(false);
        list.SetBencodeFileName(m_dir / "kept");
        stream = list.GetStream();
    }
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(m_dir / "kept", stream->GetFileName());
    stream->Write("le", 2);
    bool staged = true;
    EXPECT_EQ(eBencodeSuccess, stream->FlushStream(staged));
    EXPECT_FALSE(staged);
    EXPECT_EQ("le", ReadFileOrEmpty(m_dir / "kept"));
    delete stream;
}

}  // namespace
