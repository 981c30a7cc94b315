// mkdir -p and directory listings.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <string>

#include "FileSystem.h"
#include "HostTestControl.h"
#include "ResultCodes.h"
#include "TestSupport.h"

namespace {

class FileSystemTest : public pwtest::HostFixture {
protected:
    bool IsDir(const std::string& path) {
        struct stat st;
        return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    pwtest::TempDir m_dir;
};

struct MkdirCase {
    const char* name;
    const char* relative;  // under the test directory
    const char* check;     // a directory that must exist afterwards ("" = none)
    int expectedErrno;     // 0: success expected
};

TEST_F(FileSystemTest, MakeSureDirectoryPathExistsCreatesEveryMissingParent) {
    ASSERT_TRUE(pwtest::WriteFile(m_dir / "file", "x"));
    ASSERT_EQ(mkdir((m_dir / "exists").c_str(), 0755), 0);
    const MkdirCase cases[] = {
        {"nested", "a/b/c", "a/b/c", 0},
        {"trailing slash", "t/u/", "t/u", 0},
        {"doubled slashes", "d//e///f", "d/e/f", 0},
        {"already there", "exists", "exists", 0},
        {"a file as the last component", "file", "", ENOTDIR},
        {"a file as a parent", "file/sub", "", ENOTDIR},
    };
    for (const MkdirCase& c : cases) {
        SCOPED_TRACE(c.name);
        pwtest::ClearCapturedLogs();
        errno = 0;
        int made = MakeSureDirectoryPathExists((m_dir / c.relative).c_str());
        if (c.expectedErrno == 0) {
            EXPECT_NE(made, 0);
            EXPECT_TRUE(IsDir(m_dir / c.check));
            EXPECT_TRUE(pwtest::CapturedLogs().empty()) << DumpLog();
        } else {
            EXPECT_EQ(made, 0);
            EXPECT_EQ(errno, c.expectedErrno);
            std::vector<pwtest::LogRecord> logs = pwtest::CapturedLogs();
            ASSERT_EQ(logs.size(), 1u) << DumpLog();
            EXPECT_EQ(logs[0].failedCall, "mkdir");
        }
    }
    // Absolute paths from the root, and a component the kernel refuses to create.
    EXPECT_NE(MakeSureDirectoryPathExists("/"), 0);
    EXPECT_EQ(MakeSureDirectoryPathExists("/proc/pwtest-no-such/dir"), 0);
    EXPECT_FALSE(IsDir("/proc/pwtest-no-such"));
}

TEST_F(FileSystemTest, MakeSureDirectoryPathExistsRejectsEmptyPathsAndFaults) {
    errno = 0;
    EXPECT_EQ(MakeSureDirectoryPathExists(nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(MakeSureDirectoryPathExists(""), 0);

    pwtest::FailNext(pwtest::Fault::MakeDirectory, pwresult::kFaultInjected);
    EXPECT_EQ(MakeSureDirectoryPathExists((m_dir / "faulted").c_str()), 0);
    EXPECT_FALSE(IsDir(m_dir / "faulted"));
    EXPECT_NE(MakeSureDirectoryPathExists((m_dir / "faulted").c_str()), 0);
}

TEST_F(FileSystemTest, DirectoryListsEveryEntryThenEnds) {
    ASSERT_TRUE(pwtest::WriteFile(m_dir / "one", "1"));
    ASSERT_TRUE(pwtest::WriteFile(m_dir / "two", "2"));
    ASSERT_EQ(mkdir((m_dir / "sub").c_str(), 0755), 0);
    long result = -1;
    Directory directory(result, m_dir.path());
    ASSERT_EQ(result, pwresult::kSuccess);
    std::set<std::string> names;
    std::string name;
    while (directory.ReadDir(name) == pwresult::kSuccess) {
        names.insert(name);
    }
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "one", "two", "sub"}));
    EXPECT_EQ(directory.ReadDir(name), pwresult::kDirectoryEnd);
}

TEST_F(FileSystemTest, DirectoryThatCannotBeOpenedReportsErrors) {
    ASSERT_TRUE(pwtest::WriteFile(m_dir / "file", "x"));
    for (const std::string& path : {m_dir / "missing", m_dir / "file"}) {
        SCOPED_TRACE(path);
        long result = 0;
        Directory directory(result, path);
        EXPECT_EQ(result, pwresult::kDirectoryError);
        std::string name;
        EXPECT_EQ(directory.ReadDir(name), pwresult::kDirectoryError);
    }
}

}  // namespace
