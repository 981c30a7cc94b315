// Endurance of the plug-in in one long-lived host process: 1000 cycles of create, start,
// stop and dispose through the exported entry points, with the library closed (dlclose) and
// loaded again every tenth cycle. Descriptors and resident memory must stay flat.
//
//   BM_CreateStartStopDispose   counters: fds and RSS after the first 100 cycles (warm) and
//                               at the end, and their growth in between (target: 0 fds,
//                               RSS growth within allocator noise), and the cycles whose
//                               first stop came before the agent was inside its start
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "PluginInterfaces.h"
#include "ProcessMemory.h"

namespace {

const int kCycles = 1000;
const int kReloadEvery = 10;
int g_repeatedStops = 0;  // cycles whose first stop came too early to be taken

int OpenDescriptors() {
    int count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count - 3;  // ".", ".." and the directory's own descriptor
}

struct Library {
    void* handle = dlopen(PW_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    CreatePluginFn create =
        handle ? reinterpret_cast<CreatePluginFn>(dlsym(handle, "CreatePlugin")) : nullptr;
    DisposePluginFn dispose =
        handle ? reinterpret_cast<DisposePluginFn>(dlsym(handle, "DisposePlugin")) : nullptr;
    ~Library() {
        if (handle != nullptr) {
            dlclose(handle);
        }
    }
};

class NoModules : public IPhoneHomePluginCB {
public:
    long GetSettingsCB(IBencodeSettings&) override { return 0; }
};

// One cycle as a host runs it; false when the plug-in misbehaves.
bool Cycle(Library& library) {
    Plugin* plugin = library.create(PHONEHOME_PLUGIN_INTERFACE_NAME);
    if (plugin == nullptr) {
        return false;
    }
    auto* service = static_cast<IPhoneHomePlugin*>(plugin);
    NoModules callback;
    service->SetPhoneHomePluginCB(&callback);
    std::atomic<bool> finished{false};
    std::thread thread([service, &finished] {
        service->StartPhoneHome();
        finished = true;
    });
    while (service->IsPhoneHomeRunning() != 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    // A stop that arrives before the agent is inside its start is refused (not running), so
    // it is repeated until the service returns, as pathweave-host does.
    for (bool first = true; !finished; first = false) {
        service->StopPhoneHome();
        for (int tick = 0; tick < 50 && !finished; ++tick) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (first && !finished) {
            ++g_repeatedStops;
        }
    }
    thread.join();
    service->UnSetPhoneHomePluginCB();
    library.dispose(plugin);
    return true;
}

void BM_CreateStartStopDispose(benchmark::State& state) {
    for (auto _ : state) {
        auto library = std::make_unique<Library>();
        int warmFds = 0;
        long warmRss = 0;
        for (int cycle = 1; cycle <= kCycles; ++cycle) {
            if (library->create == nullptr || !Cycle(*library)) {
                state.SkipWithError(dlerror() ? dlerror() : "the plug-in failed a cycle");
                return;
            }
            if (cycle % kReloadEvery == 0) {
                library.reset();
                library = std::make_unique<Library>();
            }
            if (cycle == 100) {
                warmFds = OpenDescriptors();
                warmRss = pwsupport::ResidentKiB();
            }
        }
        state.counters["repeated_stops"] = g_repeatedStops;
        state.counters["fds_warm"] = warmFds;
        state.counters["fds_end"] = OpenDescriptors();
        state.counters["fd_growth"] = OpenDescriptors() - warmFds;
        state.counters["rss_warm_kib"] = static_cast<double>(warmRss);
        state.counters["rss_end_kib"] = static_cast<double>(pwsupport::ResidentKiB());
        state.counters["rss_growth_kib"] = static_cast<double>(pwsupport::ResidentKiB() - warmRss);
    }
}
BENCHMARK(BM_CreateStartStopDispose)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
