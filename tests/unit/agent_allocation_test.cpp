// Allocation failures anywhere in the plug-in's life: over one start, module collection,
// post and stop, the Nth allocation made by the plug-in's callers' threads fails, for every
// N in turn until a cycle runs without reaching it. The process must never end (an
// exception that escapes into the host ends it) and, in the ASan row, leak nothing;
// afterwards a clean cycle still delivers its report.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <cstdlib>
#include <new>
#include <thread>

#include "AgentTestSupport.h"
#include "FeedbackServer.h"

namespace {

std::atomic<long> g_countdown{0};  // counted allocations left before the failing one
std::atomic<bool> g_failed{false};
thread_local bool t_counted = false;

void* Allocate(size_t size) {
    if (t_counted && g_countdown.load() > 0 && g_countdown.fetch_sub(1) == 1) {
        g_failed = true;
        throw std::bad_alloc();
    }
    void* memory = malloc(size != 0 ? size : 1);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

}  // namespace

// The nothrow forms and the deletes of the C++ library come here or free what these made
// (the sanitizer's own forms are told not to mind the pairing).
void* operator new(size_t size) {
    return Allocate(size);
}
void* operator new[](size_t size) {
    return Allocate(size);
}

namespace pwtest {
namespace {

const char* const kInterface = PHONEHOME_PLUGIN_INTERFACE_NAME;
// Under the sanitizers and the emulator every 7th failure point is tried; natively all.
#if defined(__SANITIZE_ADDRESS__) || defined(__i386__)
const long kStride = 7;
#else
const long kStride = 1;
#endif

using AgentAllocationTest = AgentFixture;

// One cycle whose `failAt`th counted allocation fails (0: none); false when the service
// stopped answering. The plug-in is called as a host calls it; each call is counted.
bool Cycle(long failAt, IPhoneHomePluginCB* callback) {
    g_failed = false;
    g_countdown = failAt;
    auto counted = [](const std::function<void()>& call) {
        t_counted = true;
        call();
        t_counted = false;
    };
    IPhoneHomePlugin* plugin = nullptr;
    counted([&] { plugin = static_cast<IPhoneHomePlugin*>(CreatePlugin(kInterface)); });
    std::atomic<bool> done{plugin == nullptr};
    std::thread service([&] {
        if (!done && plugin->SetPhoneHomePluginCB(callback) == 0) {
            counted([&] { plugin->StartPhoneHome(); });
        }
        done = true;
    });
    bool ok = WaitUntil([&] { return done || LoopIsWaiting(); });
    for (int step = 0; ok && step < 2; ++step) {  // the starter, then "Phone Home"
        const uint64_t turns = TotalWaitReturns();
        AdvanceManualClock(300000);
        ok = WaitUntil([&] { return done || (TotalWaitReturns() > turns && LoopIsWaiting()); });
    }
    counted([&] {
        if (plugin != nullptr) {
            plugin->StopPhoneHome();
        }
    });
    ok = WaitUntil([&] { return done.load(); }) && ok;
    if (!done) {
        plugin->StopPhoneHome();  // uncounted, so that the thread can end
    }
    service.join();
    counted([&] { DisposePlugin(plugin); });
    g_countdown = 0;
    return ok;
}

TEST_F(AgentAllocationTest, NoAllocationFailureEndsTheProcess) {
    m_plugin.reset();
    FeedbackServer server;
    ASSERT_TRUE(server.Route());
    const std::string module = FeedbackDir() + "vpn.dat";
    ModuleSettingsCallback callback;
    callback.settings = {{"VpnPhoneHomeFile", module}};
    WriteProfile("<IncludeCrashReport>false</IncludeCrashReport>");
    long failAt = 0;
    do {
        failAt += failAt == 0 ? 1 : kStride;
        RemoveTree(OutboundDir());
        RemoveTree(HistoryPath());
        ClearCapturedLogs();
        ASSERT_TRUE(WriteFile(module, "d4:useri3ee"));
        ASSERT_TRUE(Cycle(failAt, &callback)) << "allocation " << failAt << "\n" << DumpLog();
    } while (g_failed);
    // The last cycle, which ran whole, collected the module's data and delivered it.
    EXPECT_GT(failAt, 100);
    EXPECT_FALSE(FileExists(module));
    EXPECT_TRUE(server.RequestCount() > 0 && OutboundFiles().empty()) << DumpLog();
}

}  // namespace
}  // namespace pwtest
