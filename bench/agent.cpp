// What the agent costs its host: the work LumInit does on the caller's
// thread, how quickly LumTerm brings an idle agent to state 0, and whether
// any agent thread wakes between scheduled calls.
//
//   bench_agent                                   all three, 60 s of idle
//   LUM_BENCH_IDLE_SECONDS=5 bench_agent          a shorter idle window
//
// Instruction counts come from callgrind, which is stable on a busy machine:
//   valgrind --tool=callgrind --toggle-collect=LumInit bench_agent
//       --benchmark_filter=LumInit
#include <benchmark/benchmark.h>

#include "BenchAgent.h"

namespace {

using namespace LumBench;

void BM_LumInit(benchmark::State& state) {
  BenchAgent& agent = Agent();
  long cpu = 0;
  for (auto _ : state) {
    const long before = ThreadCpuNanos();
    const unsigned result = agent.init();
    cpu += ThreadCpuNanos() - before;
    state.PauseTiming();
    if (result != LUM_RESULT_SUCCESS) {
      state.SkipWithError("LumInit failed");
    }
    BenchAgent::stop();
    state.ResumeTiming();
  }
  state.counters["callerCpuUs"] = benchmark::Counter(static_cast<double>(cpu) / 1000.0 /
                                                     static_cast<double>(state.iterations()));
}
BENCHMARK(BM_LumInit)->Iterations(20)->Unit(benchmark::kMicrosecond);

void BM_LumTermOfIdleAgent(benchmark::State& state) {
  BenchAgent& agent = Agent();
  for (auto _ : state) {
    state.PauseTiming();
    agent.init();
    LumTest::WaitFor([&] { return agent.backend().requestCount() > 0; });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    state.ResumeTiming();
    const auto start = std::chrono::steady_clock::now();
    BenchAgent::stop();
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}
BENCHMARK(BM_LumTermOfIdleAgent)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_IdleWakeups(benchmark::State& state) {
  BenchAgent& agent = Agent();
  const char* env = std::getenv("LUM_BENCH_IDLE_SECONDS");
  const int seconds = env != nullptr ? std::atoi(env) : 60;
  long long switches = 0;
  int threads = 0;
  for (auto _ : state) {
    agent.init();
    // Let registration and the first synchronisation finish: after them the
    // next call is an hour away.
    LumTest::WaitFor([&] { return agent.backend().requestCount() >= 2; });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long long before = AgentContextSwitches(&threads);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    switches = AgentContextSwitches() - before;
    BenchAgent::stop();
  }
  state.counters["idleSeconds"] = seconds;
  state.counters["contextSwitches"] = static_cast<double>(switches);
  // StateControl, EventControl, UploadControl, CollectorControl and
  // DeviceInfoControl: a smaller number means a thread went unwatched.
  state.counters["agentThreads"] = threads;
}
BENCHMARK(BM_IdleWakeups)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
