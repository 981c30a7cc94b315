// mkdir -p and directory listings.
#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <string>

#include "FileSystem.h"
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

TEST_F(FileSystemTest, MakeSureDirectoryPathExistsCreatesEveryMissingParent) {
    ASSERT_TRUE(pwtest::WriteFile(m_dir / "file", "x"));
    const std::string root = m_dir.path() + "/";
    const struct {
        std::string path;
        const char* check;  // a directory that must exist afterwards ("" = none)
        int error;          // 0: success expected
    } cases[] = {
        // clang-format off
        {root + "a/b/c",             "a/b/c",               0},
        {root + "d//e///f",          "d/e/f",               0},
        {root + "a",                 "a",                   0},
        {"/",                        "",                    0},
        {root + "file/sub",          "",                    ENOTDIR},
        {"/proc/pwtest-no-such/dir", "",                    ENOENT},
        {"",                         "",                    EINVAL},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        pwtest::ClearCapturedLogs();
        errno = 0;
        int made = MakeSureDirectoryPathExists(c.path.c_str());
        EXPECT_EQ(made != 0 ? 0 : errno, c.error);  // errno tells why it failed
        EXPECT_EQ(pwtest::CapturedLogs().size(), c.error == 0 ? 0u : 1u) << DumpLog();
        EXPECT_TRUE(*c.check == '\0' || IsDir(m_dir / c.check));
    }
    EXPECT_FALSE(IsDir("/proc/pwtest-no-such"));
}

}  // namespace
