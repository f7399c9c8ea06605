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
#include <dirent.h>
#include <lum.h>
#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "Platform/JsonUtil.h"
#include "support/TestSupport.h"
#include "tools/backend/Backend.h"
#include "tools/pki/TestPki.h"

namespace {

using Lum::Core::JsonUtil;
using Lum::Tools::Backend;
using Lum::Tools::TestPki;

// One back end and device for the whole run; logging off, as in the field.
class BenchAgent {
 public:
  BenchAgent() {
    pki_.generate();
    backend_.reset(new Backend(pki_));
    backend_->start();
    LumJson::Value tunables(LumJson::objectValue);
    // Every schedule an hour away; the device-information collector runs
    // (its ids are allowed) and its items wait in the queue.
    for (const char* name :
         {"daPollDelayFixedMs", "dsStandardDelayFixedMs", "dsStartupDelayFixedMs",
          "dsAggressiveDelayFixedMs", "dsRetryDelayFixedMs"}) {
      tunables[name] = 3600000;
    }
    tunables["daPollDelayVariedMs"] = 0;
    backend_->pushTunables(tunables);
    backend_->setAllowedDataItemIds({"DeviceInfoEsn", "DeviceInfoMac"});
    pki_.issueDevice(TestPki::DeviceCommonName("bench", backend_->port()), &device_);
    identity_ = device_.identityJson(true);
    LumJson::Value config;
    config["core"]["persistentPath"] = dir_.path();
    config_ = JsonUtil::WriteCompact(config);
    device_text_ = R"({"id":"BENCH-1","model":"M","subModel":"S","brand":"B","swVersion":"1"})";
  }
  // Threads whose names exceed the kernel's 15 characters (CollectorControl,
  // DeviceInfoControl) keep the name they inherit; started under this name
  // they are still told apart from the back end's threads.
  unsigned init() {
    pthread_setname_np(pthread_self(), kInheritedName);
    const unsigned result = LumInit(identity_.c_str(), config_.c_str(), device_text_.c_str());
    pthread_setname_np(pthread_self(), "bench_agent");
    return result;
  }
  static constexpr const char* kInheritedName = "lum-inherited";
  static unsigned state() {
    LumStatus status{};
    LumGetStatus(LumStatusMethodImmediate, &status);
    LumFreeStatus(&status);
    return status.deviceAgentState;
  }
  static void stop() {
    LumTerm();
    LumTest::WaitFor([] { return state() == LumDeviceAgentUninitialized; });
  }
  Backend& backend() { return *backend_; }

 private:
  TestPki pki_;
  LumTest::TempDir dir_;
  std::unique_ptr<Backend> backend_;
  Lum::Tools::DeviceIdentity device_;
  std::string identity_, config_, device_text_;
};

BenchAgent& Agent() {
  static BenchAgent agent;
  return agent;
}

long ThreadCpuNanos() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * 1000000000L + now.tv_nsec;
}

bool IsAgentThread(const std::string& task) {
  std::ifstream comm("/proc/self/task/" + task + "/comm");
  std::string name;
  std::getline(comm, name);
  return name == BenchAgent::kInheritedName || name == "StateControl" || name == "EventControl" ||
         name == "TerminateThread" || name == "UploadControl" || name == "UpdateControl" ||
         name == "SessionControl" || name == "GetTaskControl" || name == "PutTaskControl";
}

// Context switches of the agent's own threads (the back end's threads share
// this process but are not the agent's).
long long AgentContextSwitches(int* threads = nullptr) {
  long long total = 0;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    if (entry->d_name[0] == '.' || !IsAgentThread(entry->d_name)) {
      continue;
    }
    if (threads != nullptr) {
      ++*threads;
    }
    std::ifstream status(std::string("/proc/self/task/") + entry->d_name + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
          line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        total += std::atoll(line.substr(line.find(':') + 1).c_str());
      }
    }
  }
  if (dir != nullptr) {
    closedir(dir);
  }
  return total;
}

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
