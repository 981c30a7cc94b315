// Module data collection: one "Phone Home" cycle over four module files of 2.5 MiB each,
// from the timer's expiry to the outbound file written, beside the bencode library's own
// work on the same bytes in the same run.
//
//   CyclePeakMemory         heap and resident peak of one cycle above where it started,
//                           against the 10 MiB of module data (3 runs, the worst reported)
//   LibraryPeakMemory       the same for the reference below
//   CycleBesideLibrary      one cycle, OnTimerExpired("Phone Home"): the four files loaded
//                           into the payload and deleted, the outbound file and the history
//                           written, the module trees destroyed (posting is not part of it);
//                           and, taking turns with it, the reference: the same four files
//                           loaded by the library's file constructor, Externalize() of them
//                           as one dictionary to a file, the trees destroyed
//
// Targets: the cycle at most 2 x the reference; peak at most 8 x the module data. The ratios
// are printed after the run.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "AppLog.h"
#include "Bencode.h"
#include "ExecutionContext.h"
#include "../tests/unit/support/PhoneHomeAgentTestAccess.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomeConfig.h"
#include "PhoneHomePluginImp.h"
#include "Timer.h"
#include "collection_bench/CollectionBenchSupport.h"

namespace {

const size_t kModuleBytes = 2621440;  // 2.5 MiB
const char* const kModules[][2] = {
    {"OstraModule", "OstraPhoneHomeFile"},
    {"TelemetryModule", "TelemetryPhoneHomeFile"},
    {"VpnModule", "VpnPhoneHomeFile"},
    {"WebSecurityModule", "WebSecurityPhoneHomeFile"},
};

std::map<std::string, double>& Figures() {
    static std::map<std::string, double> figures;
    return figures;
}

// The four module files' bytes, generated once.
const std::vector<std::string>& ModuleFiles() {
    static std::vector<std::string> files;
    if (files.empty()) {
        for (unsigned int i = 0; i < 4; ++i) {
            files.push_back(collectionbench::MakeModuleData(kModuleBytes, i + 1));
        }
    }
    return files;
}

double ModuleDataBytes() {
    double total = 0;
    for (const std::string& file : ModuleFiles()) {
        total += static_cast<double>(file.size());
    }
    return total;
}

// The host's settings callback: reports the four module files.
class ModuleFilesCallback : public IPhoneHomePluginCB {
public:
    explicit ModuleFilesCallback(const std::vector<std::string>& paths) : m_paths(paths) {}
    long GetSettingsCB(IBencodeSettings& settings) override {
        for (size_t i = 0; i < m_paths.size(); ++i) {
            settings.Insert(kModules[i][1], m_paths[i].c_str(), false);
        }
        return 0;
    }

private:
    const std::vector<std::string>& m_paths;
};

const std::string& FeedbackDir() {
    static const std::string dir =
        std::string(phonehome::kInstallDir) + "/CustomerExperienceFeedback/";
    return dir;
}

// An initialised agent that is not running, with the module files reported through the
// starter. Posting is switched off: the scan that follows the write returns at once, as it
// does while the agent stops.
class Agent {
public:
    Agent() {
        long rc = 0;
        m_plugin.reset(new CPhoneHomePlugin(rc));
        if (rc != 0 || m_plugin->GetAgent() == nullptr ||
            !PhoneHomeAgentTestAccess::Prepare(Get())) {
            return;
        }
        PhoneHomeAgentTestAccess::RequestStop(Get());
        for (const auto& module : kModules) {
            m_paths.push_back(FeedbackDir() + "moduledata/" + module[0] + ".dat");
        }
        ModuleFilesCallback callback(m_paths);
        m_plugin->SetPhoneHomePluginCB(&callback);
        Get().OnTimerExpired(nullptr, CPhoneHomeAgent::kPhoneHomeStarterTimerId);
        m_plugin->UnSetPhoneHomePluginCB();
        m_ok = true;
    }
    bool Ok() const { return m_ok; }
    CPhoneHomeAgent& Get() { return *m_plugin->GetAgent(); }

    bool Deposit() {
        for (size_t i = 0; i < m_paths.size(); ++i) {
            if (!collectionbench::WriteFile(m_paths[i], ModuleFiles()[i])) {
                return false;
            }
        }
        return true;
    }
    // One expiry of the "Phone Home" timer.
    void Cycle() { Get().OnTimerExpired(nullptr, CPhoneHomeAgent::kPhoneHomeTimerId); }
    // Whether the last cycle took every module file in and wrote the outbound file, which
    // it then removes.
    bool CheckAndClear() {
        const std::string outbound = FeedbackDir() + "outbound/";
        bool written = false;
        if (DIR* dir = opendir(outbound.c_str())) {
            while (struct dirent* entry = readdir(dir)) {
                const std::string path = outbound + entry->d_name;
                struct stat status;
                if (entry->d_name[0] != '.' && stat(path.c_str(), &status) == 0) {
                    written = written || static_cast<double>(status.st_size) > ModuleDataBytes();
                    unlink(path.c_str());
                }
            }
            closedir(dir);
        }
        for (const std::string& path : m_paths) {
            written = written && access(path.c_str(), F_OK) != 0;
        }
        return written;
    }

private:
    std::unique_ptr<CPhoneHomePlugin> m_plugin;
    std::vector<std::string> m_paths;
    bool m_ok = false;
};

// The library's own work on the same files: load, write as one dictionary, destroy.
class Library {
public:
    Library() {
        char pattern[] = "/tmp/collection-bench-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            return;
        }
        m_dir = pattern;
        for (size_t i = 0; i < 4; ++i) {
            m_paths.push_back(m_dir + "/" + kModules[i][0] + ".dat");
            m_ok = collectionbench::WriteFile(m_paths.back(), ModuleFiles()[i]);
        }
    }
    ~Library() {
        for (const std::string& path : m_paths) {
            unlink(path.c_str());
        }
        unlink((m_dir + "/out.cef").c_str());
        rmdir(m_dir.c_str());
    }
    bool Ok() const { return m_ok; }

    // With `treeBytes`, also the heap that the four loaded trees take, without the file
    // bytes that their streams keep.
    bool Run(double* treeBytes = nullptr) {
        size_t heapStart = collectionbench::HeapLiveBytes();
        CBencodeDictionary* all = new CBencodeDictionary(false);
        all->SetBencodeFileName(m_dir + "/out.cef");
        bool ok = true;
        size_t fileBytes = 0;
        for (size_t i = 0; i < m_paths.size(); ++i) {
            EBencodeResult result = eBencodeSuccess;
            CBencodeDictionary* module = new CBencodeDictionary(m_paths[i], result, false);
            ok = ok && result == eBencodeSuccess;
            fileBytes += module->GetStream()->Size() + 1;
            all->Insert(kModules[i][0], module);
        }
        if (treeBytes != nullptr) {
            *treeBytes =
                static_cast<double>(collectionbench::HeapLiveBytes() - heapStart - fileBytes);
        }
        ok = ok && all->Externalize() == eBencodeSuccess;
        delete all;
        return ok;
    }

private:
    std::string m_dir;
    std::vector<std::string> m_paths;
    bool m_ok = false;
};

void RecordPeak(benchmark::State& state, const std::string& name, double heapPeak,
                double residentPeak) {
    double data = ModuleDataBytes();
    Figures()[name + "Heap"] = heapPeak / data;
    Figures()[name + "Resident"] = residentPeak / data;
    state.counters["heap_peak_MiB"] = heapPeak / 1048576.0;
    state.counters["resident_peak_MiB"] = residentPeak / 1048576.0;
    state.counters["module_data_MiB"] = data / 1048576.0;
}

// Peak of `run` above the heap and resident size at its start, the worst of the iterations.
template <typename Prepare, typename Run, typename Check>
void MeasurePeak(benchmark::State& state, const std::string& name, Prepare prepare, Run run,
                 Check check) {
    double heapPeak = 0;
    double residentPeak = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (!prepare()) {
            state.SkipWithError("cannot write the module files");
            return;
        }
        size_t heapStart = collectionbench::HeapLiveBytes();
        collectionbench::ResetHeapPeak();
        long residentStart = collectionbench::ResidentKiB();
        if (!collectionbench::ResetResidentPeak()) {
            state.SkipWithError("cannot reset the peak resident size");
            return;
        }
        state.ResumeTiming();
        run();
        state.PauseTiming();
        if (!check()) {
            state.SkipWithError("the run failed");
            return;
        }
        heapPeak =
            std::max(heapPeak, static_cast<double>(collectionbench::HeapPeakBytes() - heapStart));
        residentPeak = std::max(
            residentPeak,
            static_cast<double>(collectionbench::PeakResidentKiB() - residentStart) * 1024.0);
        state.ResumeTiming();
    }
    RecordPeak(state, name, heapPeak, residentPeak);
}

void CyclePeakMemory(benchmark::State& state) {
    Agent agent;
    if (!agent.Ok()) {
        state.SkipWithError("agent initialisation failed");
        return;
    }
    MeasurePeak(
        state, "Cycle", [&agent] { return agent.Deposit(); }, [&agent] { agent.Cycle(); },
        [&agent] { return agent.CheckAndClear(); });
}

void LibraryPeakMemory(benchmark::State& state) {
    Library library;
    if (!library.Ok()) {
        state.SkipWithError("cannot write the module files");
        return;
    }
    double treeBytes = 0;
    bool ok = true;
    MeasurePeak(
        state, "Library", [] { return true; },
        [&library, &treeBytes, &ok] { ok = library.Run(&treeBytes); }, [&ok] { return ok; });
    Figures()["LibraryTree"] = treeBytes / ModuleDataBytes();
    state.counters["trees_MiB"] = treeBytes / 1048576.0;
}

// Seconds of wall and thread CPU time of `run`, added to the totals.
struct Clocks {
    double wall = 0;
    double cpu = 0;
};

double ThreadCpuSeconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename Run>
bool Timed(Clocks& clocks, Run run) {
    auto start = std::chrono::steady_clock::now();
    double cpuStart = ThreadCpuSeconds();
    bool ok = run();
    clocks.cpu += ThreadCpuSeconds() - cpuStart;
    clocks.wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return ok;
}

// The cycle and the reference take turns, each going first every other time, so that both
// meet the same states of the heap and of the page cache; each is timed on its own.
void CycleBesideLibrary(benchmark::State& state) {
    Agent agent;
    Library library;
    if (!agent.Ok() || !library.Ok()) {
        state.SkipWithError("set-up failed");
        return;
    }
    Clocks cycle, reference;
    bool libraryFirst = true;
    for (auto _ : state) {
        state.PauseTiming();
        bool ok = agent.Deposit();
        state.ResumeTiming();
        auto runLibrary = [&] { return Timed(reference, [&library] { return library.Run(); }); };
        auto runCycle = [&] {
            Timed(cycle, [&agent] {
                agent.Cycle();
                return true;
            });
            state.PauseTiming();
            bool written = agent.CheckAndClear();
            state.ResumeTiming();
            return written;
        };
        ok = ok && (libraryFirst ? runLibrary() && runCycle() : runCycle() && runLibrary());
        libraryFirst = !libraryFirst;
        if (!ok) {
            state.SkipWithError("a run failed");
            return;
        }
    }
    double n = static_cast<double>(state.iterations());
    Figures()["CycleWall"] = cycle.wall / n;
    Figures()["CycleCpu"] = cycle.cpu / n;
    Figures()["LibraryWall"] = reference.wall / n;
    Figures()["LibraryCpu"] = reference.cpu / n;
    state.counters["cycle_ms"] = cycle.wall / n * 1000;
    state.counters["library_ms"] = reference.wall / n * 1000;
    state.counters["cycle_cpu_ms"] = cycle.cpu / n * 1000;
    state.counters["library_cpu_ms"] = reference.cpu / n * 1000;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(ModuleDataBytes()) * 2);
}

}  // namespace

BENCHMARK(CyclePeakMemory)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(LibraryPeakMemory)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(CycleBesideLibrary)
    ->Name("CycleBesideLibrary/4x2.5MiB")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(4)
    ->UseRealTime();

int main(int argc, char** argv) {
    char logs[] = "/tmp/collection-bench-log-XXXXXX";
    int fd = mkstemp(logs);
    if (fd >= 0) {
        close(fd);
        CAppLog::ConfigureSinks(CAppLog::SinkFile, logs);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    ModuleFiles();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (fd >= 0) {
        unlink(logs);
    }

    std::map<std::string, double>& f = Figures();
    printf("Module data: 4 files, %.2f MiB in all\n", ModuleDataBytes() / 1048576.0);
    if (f.count("CycleWall")) {
        printf("Cycle %.1f ms, library %.1f ms: ratio %.2f (target <= 2); CPU time %.2f\n",
               f["CycleWall"] * 1000, f["LibraryWall"] * 1000, f["CycleWall"] / f["LibraryWall"],
               f["CycleCpu"] / f["LibraryCpu"]);
    }
    if (f.count("CycleHeap")) {
        printf("Cycle peak / module data       = %.2f heap, %.2f resident (target <= 8)\n",
               f["CycleHeap"], f["CycleResident"]);
    }
    if (f.count("LibraryHeap")) {
        printf("Library peak / module data     = %.2f heap, %.2f resident; trees alone %.2f\n",
               f["LibraryHeap"], f["LibraryResident"], f["LibraryTree"]);
    }
    return 0;
}
