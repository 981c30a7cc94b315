// Execution contexts: one per instance id, alive while referenced.
#include <thread>
#include <vector>

#include "ExecutionContext.h"
#include "TestSupport.h"

namespace {

class ExecutionContextTest : public pwtest::HostFixture {};

TEST_F(ExecutionContextTest, OneContextPerIdUntilTheLastReleaseDestroysIt) {
    const CExecutionContext::INSTANCE_ID id = 901;
    EXPECT_EQ(CExecutionContext::acquireInstance(id), nullptr);
    CExecutionContext *created = nullptr, *again = nullptr, *other = nullptr;
    ASSERT_EQ(CExecutionContext::CreateMultitonInstance(created, id), pwresult::kSuccess);
    EXPECT_EQ(created->GetInstanceId(), id);
    EXPECT_NE(created->GetEventList(), nullptr);
    EXPECT_NE(created->GetTimerList(), nullptr);
    ASSERT_EQ(CExecutionContext::CreateMultitonInstance(again, id), pwresult::kSuccess);
    EXPECT_EQ(again, created);
    ASSERT_EQ(CExecutionContext::CreateMultitonInstance(other, id + 1), pwresult::kSuccess);
    EXPECT_NE(other, created);
    other->releaseInstance();
    EXPECT_EQ(CExecutionContext::acquireInstance(id + 1), nullptr);

    // Three references now (two creations, one acquisition): the third release ends it.
    EXPECT_EQ(CExecutionContext::acquireInstance(id), created);
    for (int references = 3; references > 0; --references) {
        EXPECT_EQ(CExecutionContext::acquireInstance(id), created);
        created->releaseInstance();  // the acquire just made
        created->releaseInstance();  // one of the earlier references
    }
    EXPECT_EQ(CExecutionContext::acquireInstance(id), nullptr);
}

// Acquisitions, creations and releases on four threads keep the count (for TSan).
TEST_F(ExecutionContextTest, ConcurrentAcquireAndReleaseKeepTheCount) {
    CExecutionContext* base = nullptr;
    ASSERT_EQ(CExecutionContext::CreateMultitonInstance(base, 904), pwresult::kSuccess);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 300; ++i) {
                CExecutionContext::acquireInstance(904)->releaseInstance();
                CExecutionContext* context = nullptr;
                CExecutionContext::CreateMultitonInstance(context, 904);
                context->releaseInstance();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    base->releaseInstance();
    EXPECT_EQ(CExecutionContext::acquireInstance(904), nullptr);
}

}  // namespace
