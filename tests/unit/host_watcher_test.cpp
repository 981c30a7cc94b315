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

TEST_F(WatcherTest, RemovingOrMovingTheDirectoryEndsTheWatch) {
    Watch(kThreatMask);
    ASSERT_EQ(rename(m_watched.c_str(), (m_dir / "elsewhere").c_str()), 0);
    Pump();
    EXPECT_FALSE(m_watcher->IsWatchStillValid());
    ASSERT_EQ(mkdir(m_watched.c_str(), 0755), 0);
    Watch(kThreatMask);
    ASSERT_EQ(rmdir(m_watched.c_str()), 0);
    Pump();
    EXPECT_FALSE(m_watcher->IsWatchStillValid());
}

TEST_F(WatcherTest, WatcherThatCannotStartIsInert) {
    EXPECT_EQ(Watch(kThreatMask, kContextId, Record, m_dir / "missing"), pwresult::kWatcherError);
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
