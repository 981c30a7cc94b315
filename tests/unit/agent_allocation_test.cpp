// Allocation failures anywhere in the plug-in's life: over one start, module collection,
// post and stop, the Nth allocation of the threads that run the plug-in fails, for every N
// in turn until a cycle runs without reaching it. The process must never end (an exception
// that escapes to the host ends it) and, in the ASan row, leak nothing; afterwards a clean
// cycle still delivers its report.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>

#include "AgentTestSupport.h"
#include "FeedbackServer.h"

namespace {

// Allocations left before the failing one, counted on the threads that opted in.
std::atomic<long> g_countdown{0};
std::atomic<bool> g_failed{false};
thread_local bool t_counted = false;

void* Allocate(size_t size) {
    if (t_counted && g_countdown.load() > 0 && g_countdown.fetch_sub(1) == 1) {
        g_failed = true;
        throw std::bad_alloc();
    }
    void* memory = malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* AllocateOrNull(size_t size) noexcept {
    try {
        return Allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

void* operator new(size_t size) {
    return Allocate(size);
}
void* operator new[](size_t size) {
    return Allocate(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return AllocateOrNull(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return AllocateOrNull(size);
}
void operator delete(void* memory) noexcept {
    free(memory);
}
void operator delete[](void* memory) noexcept {
    free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    free(memory);
}

using namespace pwtest;

namespace {

// Under the sanitizers and the emulator every Nth failure point is tried, to keep the run
// short; natively every one.
#if defined(__SANITIZE_ADDRESS__) || defined(__i386__)
const long kStride = 7;
#else
const long kStride = 1;
#endif

class AgentAllocationTest : public AgentFixture {
protected:
    // Runs `call` with this thread's allocations counted.
    template <typename Call>
    static auto Counted(Call call) {
        t_counted = true;
        auto result = call();
        t_counted = false;
        return result;
    }

    // One cycle, the `failAt`th counted allocation failing (0: none). False when the loop
    // neither waited again nor ended after a step.
    bool Cycle(long failAt) {
        RemoveTree(OutboundDir());
        RemoveTree(HistoryPath());
        EXPECT_TRUE(WriteFile(m_module, "d4:useri3ee"));
        ClearCapturedLogs();
        g_failed = false;
        g_countdown = failAt;
        Plugin* plugin = Counted([] { return CreatePlugin(PHONEHOME_PLUGIN_INTERFACE_NAME); });
        if (plugin == nullptr) {
            return true;
        }
        IPhoneHomePlugin* feedback = static_cast<IPhoneHomePlugin*>(plugin);
        feedback->SetPhoneHomePluginCB(m_callback.get());
        std::atomic<bool> finished{false};
        std::thread service([&] {
            Counted([&] { return feedback->StartPhoneHome(); });
            finished = true;
        });
        bool responsive = WaitUntil([&] { return finished || LoopIsWaiting(); });
        for (unsigned long long step : {300000ull, 300000ull}) {  // starter, then "Phone Home"
            const uint64_t turns = TotalWaitReturns();
            AdvanceManualClock(step);
            responsive = responsive && WaitUntil([&] {
                             return finished || (TotalWaitReturns() > turns && LoopIsWaiting());
                         });
        }
        Counted([&] { return feedback->StopPhoneHome(); });
        responsive = responsive && WaitUntil([&] { return finished.load(); });
        if (!finished) {
            feedback->StopPhoneHome();  // uncounted, so that the thread can be joined
        }
        service.join();
        Counted([&] { return DisposePlugin(plugin); });
        g_countdown = 0;
        return responsive;
    }

    std::string m_module = FeedbackDir() + "vpn.dat";
};

TEST_F(AgentAllocationTest, NoAllocationFailureEndsTheProcess) {
    m_plugin.reset();
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    m_callback.reset(new ModuleSettingsCallback());
    m_callback->settings = {{"VpnPhoneHomeFile", m_module}};
    WriteProfile("<IncludeCrashReport>false</IncludeCrashReport>");

    long failAt = 1;
    for (; failAt < 1000000; failAt += kStride) {
        ASSERT_TRUE(Cycle(failAt)) << "allocation " << failAt << "\n" << DumpLog();
        if (!g_failed) {
            break;  // the whole cycle ran without reaching it
        }
    }
    std::printf("%ld counted allocations in one cycle\n", failAt);
    EXPECT_GT(failAt, 100);
    const size_t posted = server.RequestCount();
    ASSERT_TRUE(Cycle(0));
    EXPECT_EQ(posted + 1, server.RequestCount()) << DumpLog();
    EXPECT_FALSE(FileExists(m_module));
}

}  // namespace
