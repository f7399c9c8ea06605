// What a remote support session costs the television.
//
//   bench_supportview                              both, 10 s of held poll
//   LUM_BENCH_IDLE_SECONDS=30 bench_supportview    a longer window
//
// BM_TaskRoundTrip is the agent's own work for one task, TLS excluded: the
// long poll's answer parsed, the task document parsed and dispatched, the
// answer written and the put's body built. Its instruction count comes from
// callgrind:
//   valgrind --tool=callgrind --toggle-collect='*TaskRoundTrip*'
//       bench_supportview --benchmark_filter=TaskRoundTrip
// and is divided by the iterations it reports.
//
// BM_SessionIdleWakeups opens a session whose long poll the back end holds,
// and counts the context switches of every agent thread meanwhile: only the
// one holding the poll may wake.
#include <benchmark/benchmark.h>

#include "Base/SupportViewManager.h"
#include "BenchAgent.h"

namespace {

using namespace LumBench;

unsigned SessionState() {
  LumStatus status{};
  LumGetStatus(LumStatusMethodImmediate, &status);
  LumFreeStatus(&status);
  return status.sessionState;
}

// One task's trip through the agent, as the threads do it piece by piece.
__attribute__((noinline)) void TaskRoundTrip(const std::string& pollAnswer, std::string& putBody) {
  LumJson::Value answer;
  JsonUtil::ParseObject(pollAnswer, answer);
  const std::string taskRequest = JsonUtil::ReadText(answer, "taskRequest", "");
  std::string taskResponse;
  Lum::Sv::SupportViewManager::Instance()->executeCommand(taskRequest, taskResponse);
  LumJson::Value body(LumJson::objectValue);
  body["taskResponse"] = taskResponse;
  body["seqNum"] = JsonUtil::ReadUnsigned(answer, "seqNum", 0);
  putBody = JsonUtil::WriteCompact(body);
}

void BM_TaskRoundTrip(benchmark::State& state) {
  BenchAgent& agent = Agent();
  agent.init();
  LumJson::Value task(LumJson::objectValue);
  task["SESSION_ID"] = "sv-1-bench";
  task["TASK_ID"] = 1;
  LumJson::Value request(LumJson::objectValue);
  request["COMMAND"]["NAME"] = "FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES";
  request["COMMAND"]["OPERATION"] = "EXECUTE";
  request["COMMAND"]["VERSION"] = 0;
  request["INPUTS"] = LumJson::Value(LumJson::objectValue);
  task["REQUESTS"].append(request);
  LumJson::Value poll(LumJson::objectValue);
  poll["seqNum"] = 1;
  poll["taskRequest"] = JsonUtil::WriteCompact(task);
  const std::string pollAnswer = JsonUtil::WriteCompact(poll);
  std::string putBody;
  for (auto _ : state) {
    TaskRoundTrip(pollAnswer, putBody);
    benchmark::DoNotOptimize(putBody.data());
  }
  if (putBody.find("en-US") == std::string::npos) {
    state.SkipWithError("the task was not answered");
  }
  BenchAgent::stop();
}
BENCHMARK(BM_TaskRoundTrip)->Unit(benchmark::kMicrosecond);

void BM_SessionIdleWakeups(benchmark::State& state) {
  BenchAgent& agent = Agent();
  const char* env = std::getenv("LUM_BENCH_IDLE_SECONDS");
  const int seconds = env != nullptr ? std::atoi(env) : 10;
  // Held past the window, and below the agent's 15 s message time-out.
  agent.backend().setLongPollHold(std::chrono::seconds(seconds + 4));
  std::map<std::string, long long> before;
  std::map<std::string, long long> after;
  for (auto _ : state) {
    agent.init();
    LumTest::WaitFor([&] { return agent.backend().requestCount() >= 2; });
    LumSessionInit(0);
    LumTest::WaitFor([] { return SessionState() == LumSessionReady; });
    LumTest::WaitFor([&] { return agent.backend().requestCount("/api/v1/sv/command/get") >= 1; });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    AgentContextSwitches(nullptr, &before);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    AgentContextSwitches(nullptr, &after);
    BenchAgent::stop();
  }
  long long others = 0;
  for (const auto& entry : after) {
    const long long switches = entry.second - before[entry.first];
    if (entry.first == "GetTaskControl") {
      state.counters["pollHolderSwitches"] = static_cast<double>(switches);
    } else {
      others += switches;
    }
  }
  state.counters["idleSeconds"] = seconds;
  state.counters["otherAgentThreadSwitches"] = static_cast<double>(others);
  state.counters["agentThreads"] = static_cast<double>(after.size());
}
BENCHMARK(BM_SessionIdleWakeups)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
