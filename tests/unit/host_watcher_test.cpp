// Directory watcher: changes reach the callback through the context's wait.
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

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

size_t CountLogsWith(const std::string& part) {
    size_t count = 0;
    for (const pwtest::LogRecord& record : pwtest::CapturedLogs()) {
        count += record.text.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

// The watch follows the path: a directory that goes, comes back or comes later is watched
// again, and its appearance is reported like a change inside it (files may be there).
TEST_F(WatcherTest, DirectoryIsFollowedThroughItsPath) {
    const int kBack = IN_CREATE | IN_ISDIR, kNewFile = IN_CREATE | IN_MODIFY;
    struct Step {
        char op;  // d mkdir, r rmdir, m rename a to b, f write a file, u unlink
        const char *a, *b;
        std::vector<int> seen;  // the callbacks that this step brings
    };
    const struct {
        const char* name;
        const char* path;          // the watched path, under the test's directory
        std::vector<Step> before;  // done before the watcher is made
        std::vector<Step> steps;
        size_t gone, back;  // log lines of each kind
    } cases[] = {
        // clang-format off
        {"moved away, made again", "watched", {}, {
            {'m', "watched", "away", {}}, {'f', "away/late", "", {}},
            {'d', "watched", "", {kBack}}, {'f', "watched/new", "", {kNewFile}}}, 1, 1},
        {"removed, moved back", "watched/", {}, {
            {'r', "watched", "", {}}, {'d', "staged", "", {}}, {'f', "staged/waiting", "", {}},
            {'m', "staged", "watched", {kBack}}, {'f', "watched/new", "", {kNewFile}}}, 1, 1},
        {"made later, two levels", "a/b/watched", {}, {
            {'d', "a", "", {}}, {'d', "a/b", "", {}}, {'f', "a/b/file", "", {}},
            {'d', "a/b/watched", "", {kBack}}}, 1, 1},
        {"whole tree moved in", "a/b/watched", {{'d', "t", "", {}}, {'d', "t/b", "", {}},
            {'d', "t/b/watched", "", {}}}, {{'m', "t", "a", {kBack}}}, 1, 1},
        {"parent gone too", "p/watched", {{'d', "p", "", {}}, {'d', "p/watched", "", {}}}, {
            {'r', "p/watched", "", {}}, {'r', "p", "", {}}, {'d', "p", "", {}},
            {'d', "p/watched", "", {kBack}}}, 1, 1},
        {"a file in the way", "watched", {{'r', "watched", "", {}}, {'f', "watched", "", {}}}, {
            {'u', "watched", "", {}}, {'d', "watched", "", {kBack}}}, 1, 1},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_watcher.reset();
        pwtest::RemoveTree(m_dir.path());
        ASSERT_EQ(mkdir(m_dir.path().c_str(), 0755), 0);
        ASSERT_EQ(mkdir(m_watched.c_str(), 0755), 0);
        pwtest::ClearCapturedLogs();
        auto run = [&](const Step& step) {
            const std::string a = m_dir / step.a, b = m_dir / step.b;
            const bool done = step.op == 'd'   ? mkdir(a.c_str(), 0755) == 0
                              : step.op == 'r' ? rmdir(a.c_str()) == 0
                              : step.op == 'm' ? rename(a.c_str(), b.c_str()) == 0
                              : step.op == 'f' ? pwtest::WriteFile(a, "x")
                                               : unlink(a.c_str()) == 0;
            ASSERT_TRUE(done) << step.op << " " << a;
        };
        for (const Step& step : c.before) {
            run(step);
        }
        ASSERT_EQ(Watch(kThreatMask, kContextId, Record, m_dir / c.path), pwresult::kSuccess);
        for (const Step& step : c.steps) {
            SCOPED_TRACE(std::string(1, step.op) + " " + step.a);
            m_seen.clear();
            run(step);
            Pump();
            EXPECT_EQ(m_seen, step.seen);
            EXPECT_TRUE(m_watcher->IsWatchStillValid());
        }
        EXPECT_EQ(CountLogsWith("; waiting for it"), c.gone) << DumpLog();
        EXPECT_EQ(CountLogsWith("is there; watching it"), c.back) << DumpLog();
    }
}

TEST_F(WatcherTest, WatcherThatCannotStartIsInert) {
    long result = pwresult::kSuccess;
    CFileSystemWatcher nothing(result, kContextId, Record, &m_seen, "", kThreatMask);
    EXPECT_EQ(result, pwresult::kWatcherError);
    EXPECT_FALSE(nothing.IsWatchStillValid());
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
