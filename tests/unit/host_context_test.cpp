// Execution contexts: one per instance id, alive while referenced.
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

}  // namespace
