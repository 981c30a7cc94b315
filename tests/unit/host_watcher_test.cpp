// Directory watcher: changes reach the callback through the context's wait.
#include <gtest/gtest.h>
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
#include "HostTestControl.h"
#include "ResultCodes.h"
#include "TestSupport.h"

namespace {

const CExecutionContext::INSTANCE_ID kContextId = 911;
const unsigned int kThreatMask = 0x1C6;  // modify, attrib, moved from/to, create

struct Seen {
    std::vector<int> events;
    void* context = nullptr;
};

void Record(void* context, int event) {
    Seen* seen = static_cast<Seen*>(context);
    seen->events.push_back(event);
    seen->context = context;
}

class WatcherTest : public pwtest::HostFixture {
protected:
    void SetUp() override {
        HostFixture::SetUp();
        ASSERT_EQ(CExecutionContext::CreateMultitonInstance(m_context, kContextId),
                  pwresult::kSuccess);
        m_watched = m_dir / "watched";
        ASSERT_EQ(mkdir(m_watched.c_str(), 0755), 0);
    }
    void TearDown() override {
        m_watcher.reset();
        m_context->releaseInstance();
        HostFixture::TearDown();
    }
    void Watch(unsigned int mask) {
        long result = -1;
        m_watcher.reset(
            new CFileSystemWatcher(result, kContextId, Record, &m_seen, m_watched, mask));
        ASSERT_EQ(result, pwresult::kSuccess);
        ASSERT_TRUE(m_watcher->IsWatchStillValid());
    }
    // inotify queues events before the file-system call returns: a zero wait sees them.
    long Pump() { return m_context->GetEventList()->WaitOnEvents(0, true); }

    pwtest::TempDir m_dir;
    std::string m_watched;
    CExecutionContext* m_context = nullptr;
    Seen m_seen;
    std::unique_ptr<CFileSystemWatcher> m_watcher;
};

TEST_F(WatcherTest, EachBatchOfChangesReachesTheCallbackOnce) {
    const struct {
        const char* name;
        std::vector<std::pair<std::string, std::string>> writes;  // path, content
        const char* from;                                         // a rename, if not null
        const char* to;
        int expectedBits;
    } cases[] = {
        {"create", {{"watched/new", ""}}, nullptr, nullptr, IN_CREATE},
        {"modify", {{"watched/new", "more"}}, nullptr, nullptr, IN_MODIFY},
        {"move out", {}, "watched/new", "moved", IN_MOVED_FROM},
        {"move in", {}, "moved", "watched/back", IN_MOVED_TO},
        {"several files",
         {{"watched/a", "1"}, {"watched/b", "2"}},
         nullptr,
         nullptr,
         IN_CREATE | IN_MODIFY},
    };
    Watch(kThreatMask);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_seen.events.clear();
        for (const auto& write : c.writes) {
            ASSERT_TRUE(pwtest::WriteFile(m_dir / write.first, write.second));
        }
        if (c.from != nullptr) {
            ASSERT_EQ(rename((m_dir / c.from).c_str(), (m_dir / c.to).c_str()), 0);
        }
        EXPECT_EQ(Pump(), pwresult::kSuccess);
        ASSERT_EQ(m_seen.events.size(), 1u);
        EXPECT_EQ(m_seen.events[0] & c.expectedBits, c.expectedBits);
        EXPECT_EQ(m_seen.context, &m_seen);
        EXPECT_EQ(Pump(), pwresult::kWaitTimedOut);
    }
    EXPECT_TRUE(m_watcher->IsWatchStillValid());
}

TEST_F(WatcherTest, EventsOutsideTheMaskAreNotReported) {
    pwtest::WriteFile(m_watched + "/existing", "");
    Watch(IN_CREATE);
    pwtest::WriteFile(m_watched + "/existing", "changed");
    Pump();
    EXPECT_TRUE(m_seen.events.empty());
}

TEST_F(WatcherTest, RemovingOrMovingTheDirectoryEndsTheWatch) {
    for (bool remove : {true, false}) {
        SCOPED_TRACE(remove ? "removed" : "moved away");
        if (!remove) {
            ASSERT_EQ(mkdir(m_watched.c_str(), 0755), 0);
        }
        Watch(kThreatMask);
        if (remove) {
            ASSERT_EQ(rmdir(m_watched.c_str()), 0);
        } else {
            ASSERT_EQ(rename(m_watched.c_str(), (m_dir / "elsewhere").c_str()), 0);
        }
        Pump();
        EXPECT_FALSE(m_watcher->IsWatchStillValid());
    }
}

TEST_F(WatcherTest, WatcherThatCannotStartIsInert) {
    ASSERT_TRUE(pwtest::WriteFile(m_dir / "file", ""));
    struct Case {
        const char* name;
        CExecutionContext::INSTANCE_ID context;
        CFileSystemWatcher::Callback callback;
        std::string directory;
        long expected;
    };
    const Case cases[] = {
        {"missing directory", kContextId, Record, m_dir / "missing", pwresult::kWatcherError},
        {"a file, not a directory", kContextId, Record, m_dir / "file", pwresult::kWatcherError},
        {"no such context", kContextId + 1, Record, m_watched, pwresult::kContextUnavailable},
        {"no callback", kContextId, nullptr, m_watched, pwresult::kNullCallback},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        long result = 0;
        CFileSystemWatcher watcher(result, c.context, c.callback, &m_seen, c.directory,
                                   kThreatMask);
        EXPECT_EQ(result, c.expected);
        EXPECT_FALSE(watcher.IsWatchStillValid());
    }
    EXPECT_EQ(CExecutionContext::acquireInstance(kContextId + 1), nullptr);
}

TEST_F(WatcherTest, WatcherLeftBehindGoesWithTheLastOtherUserOfItsContext) {
    Watch(kThreatMask);
    CFileSystemWatcher* leftBehind = m_watcher.release();
    (void)leftBehind;  // destroyed by the framework, never by the test
    CExecutionContext* other = CExecutionContext::acquireInstance(kContextId);
    ASSERT_EQ(other, m_context);
    other->releaseInstance();  // the fixture's reference still keeps it
    ASSERT_EQ(CExecutionContext::acquireInstance(kContextId), m_context);
    m_context->releaseInstance();
    m_context->releaseInstance();  // now only the watcher uses it: both go
    EXPECT_EQ(CExecutionContext::acquireInstance(kContextId), nullptr);
    // TearDown releases once more: take the reference it expects.
    ASSERT_EQ(CExecutionContext::CreateMultitonInstance(m_context, kContextId), pwresult::kSuccess);
}

}  // namespace
