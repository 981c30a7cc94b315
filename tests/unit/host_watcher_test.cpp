// Directory watcher: changes reach the callback through the context's wait.
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <string>
#include <vector>

#include "EventList.h"
#include "ExecutionContext.h"
#include "FileSystemWatcher.h"
#include "TestSupport.h"

namespace {

const CExecutionContext::INSTANCE_ID kContextId = 911;
const unsigned int kThreatMask = 0x1C6;  // modify, attrib, moved from/to, create

void Record(void* context, int event) {
    static_cast<std::vector<int>*>(context)->push_back(event);
}

class WatcherTest : public pwtest::HostFixture {
protected:
    void SetUp() override {
        HostFixture::SetUp();
        ASSERT_EQ(CExecutionContext::CreateMultitonInstance(m_context, kContextId),
                  pwresult::kSuccess);
        ASSERT_EQ(mkdir(m_watched.c_str(), 0755), 0);
    }
    void TearDown() override {
        m_watcher.reset();
        m_context->releaseInstance();
        HostFixture::TearDown();
    }
    long Watch(unsigned int mask, CExecutionContext::INSTANCE_ID id = kContextId,
               CFileSystemWatcher::Callback callback = Record, std::string directory = "") {
        long result = -1;
        m_watcher.reset(new CFileSystemWatcher(result, id, callback, &m_seen,
                                               directory.empty() ? m_watched : directory, mask));
        EXPECT_EQ(result == pwresult::kSuccess, m_watcher->IsWatchStillValid());
        return result;
    }
    // inotify queues events before the file-system call returns: a zero wait sees them.
    long Pump() { return m_context->GetEventList()->WaitOnEvents(0, true); }

    pwtest::TempDir m_dir;
    std::string m_watched = m_dir / "watched";
    CExecutionContext* m_context = nullptr;
    std::vector<int> m_seen;
    std::unique_ptr<CFileSystemWatcher> m_watcher;
};

// Each batch of changes reaches the callback once, with the bits of the mask only.
TEST_F(WatcherTest, EachBatchOfChangesReachesTheCallbackOnce) {
    ASSERT_EQ(Watch(kThreatMask & ~IN_ATTRIB), pwresult::kSuccess);
    const struct {
        const char *name, *write, *from, *to;  // a file written or renamed, else a chmod
        int bits;
    } cases[] = {
        // clang-format off
        {"create",   "watched/new",  nullptr,       nullptr,        IN_CREATE | IN_MODIFY},
        {"modify",   "watched/new",  nullptr,       nullptr,        IN_MODIFY},
        {"move out", nullptr,        "watched/new", "moved",        IN_MOVED_FROM},
        {"move in",  nullptr,        "moved",       "watched/back", IN_MOVED_TO},
        {"chmod",    nullptr,        nullptr,       nullptr,        0},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_seen.clear();
        if (c.write != nullptr) {
            ASSERT_TRUE(pwtest::WriteFile(m_dir / c.write, "x"));
        } else if (c.from != nullptr) {
            ASSERT_EQ(rename((m_dir / c.from).c_str(), (m_dir / c.to).c_str()), 0);
        } else {
            ASSERT_EQ(chmod((m_watched + "/back").c_str(), 0600), 0);
        }
        Pump();
        EXPECT_EQ(m_seen, c.bits != 0 ? std::vector<int>{c.bits} : std::vector<int>{});
        EXPECT_EQ(Pump(), pwresult::kWaitTimedOut);
    }
    EXPECT_TRUE(m_watcher->IsWatchStillValid());
}

// The watch follows the path: a directory that goes, comes back or comes later is watched
// again, its appearance reported like a change inside it (files may be there already).
TEST_F(WatcherTest, DirectoryIsFollowedThroughItsPath) {
    // Steps: w make the watcher, d mkdir, r rmdir, m rename, f write a file, u unlink; a
    // step in capitals brings the callback of the directory's appearance, no other one does.
    const struct {
        const char* path;  // the watched path, under the test's directory
        bool later;        // missing when the watcher is made (else lost afterwards)
        std::vector<std::string> steps;
    } cases[] = {
        // clang-format off
        {"watched",     false, {"w", "m watched away", "f away/late", "D watched"}},
        {"watched/",    false, {"w", "r watched", "d staged", "f staged/file", "M staged watched"}},
        {"a/b/watched", true,  {"w", "d a", "d a/b", "f a/b/file", "D a/b/watched"}},
        {"p/watched",   false, {"d p", "d p/watched", "w", "r p/watched", "r p", "d p",
                                "D p/watched"}},
        {"watched",     true,  {"r watched", "f watched", "w", "u watched", "D watched"}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        m_watcher.reset();
        pwtest::RemoveTree(m_dir.path());
        ASSERT_TRUE(mkdir(m_dir.path().c_str(), 0755) == 0 && mkdir(m_watched.c_str(), 0755) == 0);
        pwtest::ClearCapturedLogs();
        for (const std::string& step : c.steps) {
            SCOPED_TRACE(step);
            const std::string args = step.substr(std::min<size_t>(2, step.size()));
            const size_t space = args.find(' ');
            const std::string a = m_dir / args.substr(0, space),
                              b = space == std::string::npos ? "" : m_dir / args.substr(space + 1);
            m_seen.clear();
            const char op = static_cast<char>(tolower(step[0]));
            ASSERT_TRUE(op == 'w'   ? Watch(kThreatMask, kContextId, Record, m_dir / c.path) == 0
                        : op == 'd' ? mkdir(a.c_str(), 0755) == 0
                        : op == 'r' ? rmdir(a.c_str()) == 0
                        : op == 'm' ? rename(a.c_str(), b.c_str()) == 0
                        : op == 'f' ? pwtest::WriteFile(a, "x")
                                    : unlink(a.c_str()) == 0);
            Pump();
            EXPECT_EQ(m_seen, isupper(step[0]) ? std::vector<int>{IN_CREATE | IN_ISDIR}
                                               : std::vector<int>{});
        }
        EXPECT_TRUE(m_watcher->IsWatchStillValid());
        m_seen.clear();  // the directory now there is the one watched
        ASSERT_TRUE(pwtest::WriteFile(m_dir / c.path + "/new", "x"));
        Pump();
        EXPECT_EQ(m_seen, std::vector<int>{IN_CREATE | IN_MODIFY});
        const std::string record = "watched directory " + m_dir / c.path;
        EXPECT_EQ(pwtest::CountLogText(record + (c.later ? " does not exist; waiting for it"
                                                         : " is gone; waiting for it to return")),
                  1u)
            << DumpLog();
        EXPECT_EQ(pwtest::CountLogText(record + " is there; watching it"), 1u);
    }
}

TEST_F(WatcherTest, WatcherThatCannotStartIsInert) {
    EXPECT_EQ(Watch(kThreatMask, kContextId + 1), pwresult::kContextUnavailable);
    EXPECT_EQ(Watch(kThreatMask, kContextId, nullptr), pwresult::kNullCallback);
}

TEST_F(WatcherTest, WatcherLeftBehindGoesWithTheLastOtherUserOfItsContext) {
    Watch(kThreatMask);
    m_watcher.release();  // destroyed by the framework, never by the test
    ASSERT_EQ(CExecutionContext::acquireInstance(kContextId), m_context);
    m_context->releaseInstance();
    m_context->releaseInstance();  // now only the watcher uses it: both go
    EXPECT_EQ(CExecutionContext::acquireInstance(kContextId), nullptr);
    // TearDown releases once more: take the reference it expects.
    ASSERT_EQ(CExecutionContext::CreateMultitonInstance(m_context, kContextId), pwresult::kSuccess);
}

}  // namespace
