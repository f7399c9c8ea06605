// The support view's answers (session initialize, terminate, suspend and
// resume, command get and put) fed to the real SessionControl, GetTaskControl
// and PutTaskControl cycles, driven in turn by hand, with the host opening
// and ending sessions in between. Task threads cannot start here, so a task
// handed out is not acknowledged and comes back: its documents are the
// task_document target's.
//
// Input: NUL-separated records; "init" and "term" are the host's
// LumSessionInit and LumSessionTerm, anything else "SSS<body>" answers the
// next call, whichever cycle makes it (LumFuzz::SplitAnswers).
// Properties: the reported session state is one of the states and matches
// whether a session is held; no cycle calls twice without a wait between,
// unless the host asked for something in between; the agent stops cleanly.
#include "Base/CoreManager.h"
#include "Base/PersistentValues.h"
#include "Base/SupportViewManager.h"
#include "fuzz/AgentDriver.h"

namespace {

using Lum::Core::ControlCycle;
using Lum::Sv::SupportViewManager;

LumFuzz::Agent* agent = nullptr;

constexpr size_t kMaxAnswers = 24;
constexpr int kMaxPasses = 64;

// With the core mutex held, as the control threads hold it.
void CheckSession(SupportViewManager& sv) REQUIRES(Lum::Core::CoreMutex()) {
  LumStatus status{};
  sv.getStatus(status);
  const unsigned state = status.sessionState;
  bool held = false;
  {
    Lum::Core::UnlockMutex unlocked(Lum::Core::CoreMutex());
    held = !sv.getSessionToken().empty();
    LumFreeStatus(&status);
  }
  if (state > LumSessionDisabled) LumFuzz::Fail("session state " + std::to_string(state));
  if ((state == LumSessionReady || state == LumSessionJoined) && !held) {
    LumFuzz::Fail("a session reported ready without a token");
  }
  if ((state == LumSessionNone || state == LumSessionDisabled) && held) {
    LumFuzz::Fail("a token held without a session reported");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  agent = new LumFuzz::Agent("sv");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<LumFuzz::Answer> answers = LumFuzz::SplitAnswers(data, size, kMaxAnswers);
  agent->start();
  Lum::Core::CoreManager* core = Lum::Core::CoreManager::Instance();
  SupportViewManager& sv = *SupportViewManager::Instance();
  ControlCycle* const cycles[] = {&sv.cycleFor(SupportViewManager::InitializeSession),
                                  &sv.cycleFor(SupportViewManager::GetCommand),
                                  &sv.cycleFor(SupportViewManager::PutCommand)};
  {
    Lum::Core::LockMutex lock(&core->getMutex());
    core->getCorePersistentPtr()->setGidToken("gid-token");
    core->evaluateStateChanges();
  }
  if (LumSessionInit(0) != LUM_RESULT_SUCCESS) LumFuzz::Fail("no session could be asked for");
  bool waited[3] = {true, true, true};
  size_t next = 0;
  // Past the input's answers the injector repeats the last one: a few more
  // calls show whether it makes a cycle loop.
  for (int pass = 0; pass < kMaxPasses && next < answers.size() + 3; ++pass) {
    if (next < answers.size() && answers[next].status == 200 &&
        (answers[next].body == "init" || answers[next].body == "term")) {
      // Asked by the host; refusals are part of the game.
      if (answers[next].body == "init") {
        LumSessionInit(1);
      } else {
        LumSessionTerm();
      }
      ++next;
      for (bool& w : waited) w = true;
      continue;
    }
    bool active = false;
    Lum::Core::LockMutex lock(&core->getMutex());
    LumFuzz::AnswerEverything(answers[std::min(next, answers.size() - 1)]);
    for (int c = 0; c < 3; ++c) {
      LumFuzz::NoThreads noThreads;
      const LumFuzz::Round round = LumFuzz::RunRound(*cycles[c], core->getMutex(), agent->clock(),
                                                     core->transfersCancelled());
      CheckSession(sv);
      if (round.step == ControlCycle::Step::Stop) LumFuzz::Fail("a cycle stopped while running");
      if (round.step == ControlCycle::Step::WaitForever) continue;
      active = true;
      if (!round.called) {
        waited[c] = waited[c] || round.waitedMs > 0;
        continue;
      }
      if (!waited[c]) LumFuzz::Fail("two calls in a row without a wait: " + round.url);
      waited[c] = false;
      ++next;
      break;
    }
    if (!active) {
      // Every cycle idle: only the host can bring more.
      if (next >= answers.size()) break;
      ++next;
    }
  }
  agent->stop();
  return 0;
}
