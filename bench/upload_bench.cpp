// Upload benchmarks against the local HTTPS feedback server.
//
//   AgentPath/200x64KiB     the agent's ScanAndPostFile: one uploader (session) per file
//   CurlPerFile/200x64KiB   reference: one curl process per file, as a scheduled script
//   CurlKeepAlive/200x64KiB reference: one curl process, all files over one connection
//   StopDuringStall         StopPhoneHome -> StartPhoneHome returning, while the server
//                           stalls an upload (20 runs; the median is reported)
//   PeakMemory16MiB         peak resident memory above idle while posting a 16 MiB file
//
// Targets: AgentPath faster than CurlPerFile and at most 1.5 x CurlKeepAlive; stop median
// under 100 ms; peak under 40 MiB above idle. The ratios are printed after the run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "AppLog.h"
#include "../tests/unit/support/PhoneHomeAgentTestAccess.h"
#include "FileSystem.h"
#include "HostClock.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomeConfig.h"
#include "PhoneHomePluginImp.h"
#include "upload_bench/BenchServer.h"

using uploadbench::BenchServer;
using uploadbench::ScratchDir;

namespace {

const int kFiles = 200;
const size_t kFileSize = 64 * 1024;
const char kUrl[] = "https://feedback.pathweave.example/cef/upload";

typedef std::chrono::steady_clock Clock;

// Seconds of one run of each benchmark (the mean over its iterations), for the ratios.
std::map<std::string, double>& RunSeconds() {
    static std::map<std::string, double> seconds;
    return seconds;
}

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Payload-like bytes: bencode framing around incompressible data.
std::string Payload(int index) {
    std::mt19937 random(static_cast<unsigned int>(index) + 1);
    std::string data = "d8:sequencei" + std::to_string(index) + "e4:data";
    size_t size = kFileSize - data.size() - 8;
    data += std::to_string(size) + ":";
    while (data.size() < kFileSize - 1) {
        data.push_back(static_cast<char>(random() & 0xFF));
    }
    data.push_back('e');
    return data.substr(0, kFileSize);
}

const std::string& OutboundDir() {
    static const std::string dir =
        std::string(phonehome::kInstallDir) + "/CustomerExperienceFeedback/outbound/";
    return dir;
}

// A plug-in object whose agent is initialised but not running (or, for a run of the
// service, only made).
class Agent {
public:
    explicit Agent(bool prepare = true) {
        long rc = 0;
        m_plugin.reset(new CPhoneHomePlugin(rc));
        m_ok = rc == 0 && m_plugin->GetAgent() != nullptr &&
               (!prepare || PhoneHomeAgentTestAccess::Prepare(*m_plugin->GetAgent()));
    }
    bool Ok() const { return m_ok; }
    CPhoneHomePlugin& Plugin() { return *m_plugin; }
    // One scan of the outbound directory, posting every file (the "Post Retry" timer with
    // no retry left).
    void ScanAndPost() {
        m_plugin->GetAgent()->OnTimerExpired(nullptr, CPhoneHomeAgent::kPostRetryTimerId);
    }

private:
    std::unique_ptr<CPhoneHomePlugin> m_plugin;
    bool m_ok = false;
};

void FillOutbound() {
    for (int i = 0; i < kFiles; ++i) {
        pwsupport::WriteFile(OutboundDir() + "feedback_data" + std::to_string(i) + ".cef",
                             Payload(i));
    }
}

void AgentPath(benchmark::State& state) {
    BenchServer server("ok", false);
    if (!server.Running()) {
        state.SkipWithError("feedback server did not start");
        return;
    }
    server.Route();
    Agent agent;
    if (!agent.Ok()) {
        state.SkipWithError("agent initialisation failed");
        return;
    }
    double total = 0;
    for (auto _ : state) {
        state.PauseTiming();
        FillOutbound();
        state.ResumeTiming();
        Clock::time_point start = Clock::now();
        agent.ScanAndPost();
        total += Since(start);
        if (pwsupport::CountFiles(OutboundDir(), ".cef") != 0) {
            state.SkipWithError("files left in the outbound directory");
            break;
        }
    }
    RunSeconds()["AgentPath"] = total / static_cast<double>(state.iterations());
    state.SetBytesProcessed(state.iterations() * kFiles * static_cast<int64_t>(kFileSize));
}

// Bodies ("data=" + file) for the curl references, written once.
const std::vector<std::string>& BodyFiles() {
    static ScratchDir dir;
    static std::vector<std::string> files;
    if (files.empty()) {
        for (int i = 0; i < kFiles; ++i) {
            files.push_back(dir / ("body" + std::to_string(i)));
            pwsupport::WriteFile(files.back(), "data=" + Payload(i));
        }
    }
    return files;
}

std::vector<std::string> CurlOptions(const BenchServer& server) {
    return {"--silent",
            "--show-error",
            "--fail",
            "--cacert",
            uploadbench::CertDir() + "/ca.pem",
            "--connect-to",
            server.ConnectTo(),
            "--output",
            "/dev/null",
            "--header",
            "Expect:"};
}

void CurlPerFile(benchmark::State& state) {
    BenchServer server("ok", false);
    if (!server.Running()) {
        state.SkipWithError("feedback server did not start");
        return;
    }
    const std::vector<std::string>& bodies = BodyFiles();
    double total = 0;
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        for (const std::string& body : bodies) {
            std::vector<std::string> args = {"curl"};
            std::vector<std::string> options = CurlOptions(server);
            args.insert(args.end(), options.begin(), options.end());
            args.insert(args.end(), {"--data-binary", "@" + body, kUrl});
            if (pwsupport::RunProcess(args, true) != 0) {
                state.SkipWithError("curl failed");
                return;
            }
        }
        total += Since(start);
    }
    RunSeconds()["CurlPerFile"] = total / static_cast<double>(state.iterations());
    state.SetBytesProcessed(state.iterations() * kFiles * static_cast<int64_t>(kFileSize));
}

void CurlKeepAlive(benchmark::State& state) {
    BenchServer server("ok", false);
    if (!server.Running()) {
        state.SkipWithError("feedback server did not start");
        return;
    }
    // One curl, one connection: every transfer in a config file, separated by "next".
    ScratchDir dir;
    std::string config;
    std::vector<std::string> options = CurlOptions(server);
    for (const std::string& body : BodyFiles()) {
        if (!config.empty()) {
            config += "next\n";
        }
        for (size_t i = 0; i < options.size(); ++i) {
            const std::string& option = options[i];
            bool hasValue = i + 1 < options.size() && options[i + 1].compare(0, 2, "--") != 0;
            config += option.substr(2) + (hasValue ? " = \"" + options[++i] + "\"" : "") + "\n";
        }
        config += "data-binary = \"@" + body + "\"\nurl = \"" + kUrl + "\"\n";
    }
    pwsupport::WriteFile(dir / "curl.cfg", config);
    double total = 0;
    for (auto _ : state) {
        Clock::time_point start = Clock::now();
        if (pwsupport::RunProcess({"curl", "--config", dir / "curl.cfg"}, true) != 0) {
            state.SkipWithError("curl failed");
            return;
        }
        total += Since(start);
    }
    RunSeconds()["CurlKeepAlive"] = total / static_cast<double>(state.iterations());
    state.SetBytesProcessed(state.iterations() * kFiles * static_cast<int64_t>(kFileSize));
}

// The service runs on its own thread with the host clock 1000 times faster, so that the
// starter timer posts the waiting file after 0.3 s; the server never answers it.
void StopDuringStall(benchmark::State& state) {
    BenchServer server("stall", true);
    if (!server.Running()) {
        state.SkipWithError("feedback server did not start");
        return;
    }
    server.Route();
    pwhost::UseScaledClock(1000);
    std::vector<double> stops;
    for (auto _ : state) {
        Agent agent(false);
        if (!agent.Ok()) {
            state.SkipWithError("agent initialisation failed");
            break;
        }
        MakeSureDirectoryPathExists(OutboundDir().c_str());
        pwsupport::WriteFile(OutboundDir() + "stalled.cef", Payload(0));
        size_t before = server.RequestCount();
        std::atomic<bool> returned{false};
        Clock::time_point end;
        std::thread service([&] {
            agent.Plugin().StartPhoneHome();
            end = Clock::now();
            returned = true;
        });
        Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
        while (server.RequestCount() == before && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        bool stalled = server.RequestCount() > before;
        Clock::time_point start = Clock::now();
        agent.Plugin().StopPhoneHome();
        service.join();
        if (!stalled) {
            state.SkipWithError("the upload never reached the server");
            break;
        }
        double seconds = std::chrono::duration<double>(end - start).count();
        stops.push_back(seconds);
        state.SetIterationTime(seconds);
    }
    pwhost::UseRealClock();
    if (!stops.empty()) {
        std::sort(stops.begin(), stops.end());
        RunSeconds()["StopMedian"] = stops[stops.size() / 2];
        state.counters["median_ms"] = stops[stops.size() / 2] * 1000;
        state.counters["max_ms"] = stops.back() * 1000;
    }
}

void PeakMemory16MiB(benchmark::State& state) {
    BenchServer server("ok", false);
    if (!server.Running()) {
        state.SkipWithError("feedback server did not start");
        return;
    }
    server.Route();
    Agent agent;
    if (!agent.Ok()) {
        state.SkipWithError("agent initialisation failed");
        return;
    }
    std::string big(16 * 1024 * 1024, '\0');
    for (size_t i = 0; i < big.size(); ++i) {
        big[i] = static_cast<char>((i * 2654435761u) >> 24);
    }
    double worst = 0;
    for (auto _ : state) {
        state.PauseTiming();
        pwsupport::WriteFile(OutboundDir() + "big.cef", big);
        long idle = pwsupport::ResidentKiB();
        if (!pwsupport::ResetResidentPeak()) {
            state.SkipWithError("cannot reset the peak resident size");
            break;
        }
        state.ResumeTiming();
        agent.ScanAndPost();
        state.PauseTiming();
        worst = std::max(worst, (pwsupport::PeakResidentKiB() - idle) / 1024.0);
        state.ResumeTiming();
    }
    RunSeconds()["PeakMiB"] = worst;
    state.counters["peak_above_idle_MiB"] = worst;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(big.size()));
}

}  // namespace

BENCHMARK(AgentPath)
    ->Name("AgentPath/200x64KiB")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3)
    ->UseRealTime();
BENCHMARK(CurlPerFile)
    ->Name("CurlPerFile/200x64KiB")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK(CurlKeepAlive)
    ->Name("CurlKeepAlive/200x64KiB")
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3)
    ->UseRealTime();
BENCHMARK(StopDuringStall)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PeakMemory16MiB)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv) {
    // The agent logs every post; keep that out of the report but keep its cost.
    ScratchDir logs;
    CAppLog::ConfigureSinks(CAppLog::SinkFile, logs / "upload_bench.log");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::map<std::string, double>& s = RunSeconds();
    if (s.count("AgentPath") && s.count("CurlPerFile")) {
        printf("AgentPath / CurlPerFile   = %.2f (target < 1)\n",
               s["AgentPath"] / s["CurlPerFile"]);
    }
    if (s.count("AgentPath") && s.count("CurlKeepAlive")) {
        printf("AgentPath / CurlKeepAlive = %.2f (target <= 1.5)\n",
               s["AgentPath"] / s["CurlKeepAlive"]);
    }
    if (s.count("StopMedian")) {
        printf("Stop during stall, median = %.1f ms (target < 100)\n", s["StopMedian"] * 1000);
    }
    if (s.count("PeakMiB")) {
        printf("Peak above idle, 16 MiB  = %.1f MiB (target < 40)\n", s["PeakMiB"]);
    }
    return 0;
}
