// The core's answers: registration, state synchronisation (every tunable and
// the events) and the notification poll, fed to the real StateControl cycle.
// Properties: the core keeps a valid state and never calls the back end in a
// tight loop, whatever the answers say.
#include <set>

#include "Base/CoreManager.h"
#include "fuzz/AgentDriver.h"

namespace {

using Lum::Core::ControlCycle;
using Lum::Core::CoreManager;

LumFuzz::Agent* agent = nullptr;

// A fresh device registers and synchronises at once, and a refused state is
// asked again at once up to three times; beyond that, calls in a row without
// a wait are a loop against the back end.
constexpr int kMaxCallsWithoutWait = 5;
// Every wait lasts at least this long (the core's floor for pushed delays).
constexpr long long kMinimumWaitMs = 100;
constexpr size_t kMaxAnswers = 16;
constexpr int kMaxRounds = 96;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  agent = new LumFuzz::Agent("core");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<LumFuzz::Answer> answers = LumFuzz::SplitAnswers(data, size, kMaxAnswers);
  agent->start();
  CoreManager* core = CoreManager::Instance();
  // StateControl sees the core as its ControlCycle; so does the driver.
  ControlCycle& cycle = *(ControlCycle*)core;
  static const std::set<std::string> kCalls = {"CheckForNotification", "GetDeviceIdentity",
                                               "SynchronizeCoreState"};
  {
    Lum::Core::LockMutex lock(&core->getMutex());
    size_t next = 0;
    LumFuzz::AnswerEverything(answers[next]);
    int withoutWait = 0;
    long long waited = 0;
    // The injector repeats the last answer, so the calls go on after the
    // input's answers run out: long enough to see a loop on the last one.
    size_t calls = 0;
    const size_t lastCall = answers.size() + kMaxCallsWithoutWait + 1;
    for (int i = 0; i < kMaxRounds && calls < lastCall; ++i) {
      if (kCalls.count(cycle.nextCallName()) == 0) {
        LumFuzz::Fail("unknown next call " + cycle.nextCallName());
      }
      const LumFuzz::Round round =
          LumFuzz::RunRound(cycle, core->getMutex(), agent->clock(), core->transfersCancelled());
      if (round.step == ControlCycle::Step::Stop || round.step == ControlCycle::Step::WaitForever) {
        LumFuzz::Fail("StateControl would stop or sleep for good while the agent runs");
      }
      waited += round.waitedMs;
      if (!round.called) continue;
      if (std::getenv("LUM_FUZZ_TRACE") != nullptr) {
        std::fprintf(stderr, "call after %lld ms, next %s\n", waited, cycle.nextCallName().c_str());
      }
      if (waited == 0 && ++withoutWait > kMaxCallsWithoutWait) {
        LumFuzz::Fail("more than " + std::to_string(kMaxCallsWithoutWait) +
                      " calls in a row without a wait");
      }
      if (waited != 0) {
        withoutWait = 0;
        if (waited < kMinimumWaitMs) {
          LumFuzz::Fail("a wait of " + std::to_string(waited) + " ms");
        }
      }
      waited = 0;
      ++calls;
      if (++next < answers.size()) LumFuzz::AnswerEverything(answers[next]);
    }
  }
  LumStatus status{};
  if (LumGetStatus(LumStatusMethodImmediate, &status) != LUM_RESULT_SUCCESS ||
      status.deviceAgentState != LumDeviceAgentInitialized) {
    LumFuzz::Fail("the agent left its running state");
  }
  LumFreeStatus(&status);
  agent->stop();
  return 0;
}
