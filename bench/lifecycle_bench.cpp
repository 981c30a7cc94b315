// The agent's idle cost and its stop latency, on the real clock.
//
//   BM_IdleWakeups      loop turns of a running agent over 10 s with its next timer minutes
//                       away (target: 0)
//   BM_StopLatency      StopPhoneHome to the return of StartPhoneHome (target: median under
//                       50 ms over 20 runs)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "EventList.h"
#include "ExecutionContext.h"
#include "PhoneHomeAgent.h"
#include "PhoneHomePluginImp.h"

namespace {

// Waits until the agent's loop blocks in its wait.
bool WaitUntilIdle(std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        CExecutionContext* context =
            CExecutionContext::acquireInstance(CPhoneHomeAgent::kExecutionContextId);
        if (context != nullptr) {
            bool waiting = context->GetEventList()->IsWaiting();
            context->releaseInstance();
            if (waiting) {
                return true;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

uint64_t LoopTurns() {
    CExecutionContext* context =
        CExecutionContext::acquireInstance(CPhoneHomeAgent::kExecutionContextId);
    if (context == nullptr) {
        return 0;
    }
    uint64_t turns = context->GetEventList()->WaitCount();
    context->releaseInstance();
    return turns;
}

void BM_IdleWakeups(benchmark::State& state) {
    for (auto _ : state) {
        long result = 0;
        CPhoneHomePlugin plugin(result);
        std::thread service([&plugin] { plugin.StartPhoneHome(); });
        if (!WaitUntilIdle(std::chrono::seconds(10))) {
            state.SkipWithError("the agent did not go idle");
        }
        uint64_t before = LoopTurns();
        std::this_thread::sleep_for(std::chrono::seconds(10));
        uint64_t after = LoopTurns();
        plugin.StopPhoneHome();
        service.join();
        state.counters["turns_in_10s"] = static_cast<double>(after - before);
    }
}
BENCHMARK(BM_IdleWakeups)->Iterations(1)->Unit(benchmark::kSecond);

void BM_StopLatency(benchmark::State& state) {
    std::vector<double> samples;
    for (auto _ : state) {
        long result = 0;
        CPhoneHomePlugin plugin(result);
        std::thread service([&plugin] { plugin.StartPhoneHome(); });
        WaitUntilIdle(std::chrono::seconds(10));
        auto start = std::chrono::steady_clock::now();
        plugin.StopPhoneHome();
        service.join();
        double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        samples.push_back(ms);
        state.SetIterationTime(ms / 1000.0);
    }
    std::sort(samples.begin(), samples.end());
    state.counters["median_ms"] = samples[samples.size() / 2];
    state.counters["max_ms"] = samples.back();
}
BENCHMARK(BM_StopLatency)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
