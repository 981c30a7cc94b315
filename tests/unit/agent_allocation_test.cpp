// Allocation failures anywhere in the plug-in's life: over one start, module collection,
// post and stop, the Nth allocation made by the threads that call the plug-in fails, for
// every N in turn until a cycle runs without reaching it. The process must never end (an
// exception that escapes into the host ends it) and, in the ASan row, leak nothing; the
// last cycle, which ran whole, delivers its report.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <thread>

#include "AgentTestSupport.h"
#include "FeedbackServer.h"

namespace {

std::atomic<long> g_countdown{0};  // counted allocations left before the failing one
thread_local bool t_counted = false;

}  // namespace

// The C++ library's other forms (new[], nothrow) come here natively, and its deletes free
// what this makes; the sanitizer's own forms are told not to mind the pairing.
void* operator new(size_t size) {
    void* memory = t_counted && g_countdown.fetch_sub(1) == 1 ? nullptr : malloc(size + 1);
    return memory != nullptr ? memory : throw std::bad_alloc();
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

void Counted(const std::function<void()>& call) {
    t_counted = true;
    call();
    t_counted = false;
}

// One cycle whose `failAt`th counted allocation fails, the plug-in called as a host calls
// it; false when the service stopped answering.
bool Cycle(long failAt, IPhoneHomePluginCB* callback) {
    g_countdown = failAt;
    IPhoneHomePlugin* plugin = nullptr;
    Counted([&] { plugin = static_cast<IPhoneHomePlugin*>(CreatePlugin(kInterface)); });
    std::atomic<bool> done{plugin == nullptr};
    std::thread service([&] {
        if (!done && plugin->SetPhoneHomePluginCB(callback) == 0) {
            Counted([&] { plugin->StartPhoneHome(); });
        }
        done = true;
    });
    bool ok = WaitUntil([&] { return done || LoopIsWaiting(); });
    for (int step = 0; ok && step < 2; ++step) {  // the starter, then "Phone Home"
        const uint64_t turns = TotalWaitReturns();
        AdvanceManualClock(300000);
        ok = WaitUntil([&] { return done || (TotalWaitReturns() > turns && LoopIsWaiting()); });
    }
    for (bool first : {true, false}) {  // a second stop, whatever the first one met
        Counted([&] { plugin != nullptr ? (void)plugin->StopPhoneHome() : (void)0; });
        ok = (!first || WaitUntil([&] { return done.load(); })) && ok;
    }
    service.join();
    Counted([&] { DisposePlugin(plugin); });
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
    long failAt = 1;
    for (;; failAt += kStride) {
        RemoveTree(OutboundDir());
        RemoveTree(HistoryPath());
        ClearCapturedLogs();
        ASSERT_TRUE(WriteFile(module, "d4:useri3ee"));
        ASSERT_TRUE(Cycle(failAt, &callback)) << "allocation " << failAt << "\n" << DumpLog();
        if (g_countdown > 0) {
            break;  // not reached: the cycle ran whole
        }
    }
    EXPECT_GT(failAt, 100);
    EXPECT_FALSE(FileExists(module));
    EXPECT_TRUE(server.RequestCount() > 0 && OutboundFiles().empty()) << DumpLog();
}

}  // namespace
}  // namespace pwtest
