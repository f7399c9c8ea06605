// The data services' answers: the data services part of the state answer,
// then the upload token and upload answers, fed to the real UploadControl
// cycle with a few items queued through LumSubmitDataItem.
//
// Input: NUL-separated records "SSS<body>" (LumFuzz::SplitAnswers); the
// first record's body is the state answer, read as the core reads it, the
// others answer the data services' calls in turn.
// Properties: every accepted item is delivered (a 2xx upload), refused by
// the back end for good (an upload refused other than with 503), or still
// queued and stored at the stop; and no call follows another without a wait.
#include "Base/CoreManager.h"
#include "Base/DataServicesManager.h"
#include "Base/PersistentValues.h"
#include "fuzz/AgentDriver.h"

namespace {

using Lum::Core::ControlCycle;

LumFuzz::Agent* agent = nullptr;

constexpr size_t kMaxAnswers = 24;
constexpr int kMaxRounds = 96;
const char* const kItems[] = {R"({"id":"a","value":1})", R"({"id":"b","value":"two"})",
                              R"({"id":"a","value":[3]})", R"({"id":"z","value":4})"};

// The items of a package text, or of the queue stored in "data".
size_t CountItems(const std::string& text) {
  LumJson::Value root;
  if (!Lum::Core::JsonUtil::ParseObject(text, root) || !root["dataItems"].isArray()) return 0;
  return root["dataItems"].size();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  agent = new LumFuzz::Agent("ds");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<LumFuzz::Answer> answers = LumFuzz::SplitAnswers(data, size, kMaxAnswers);
  static const LumJson::Value sections = [] {
    LumJson::Value value(LumJson::objectValue);
    value["dataServices"]["maximumDataBytes"] = 64 * 1024;
    return value;
  }();
  agent->start(sections);
  Lum::Core::CoreManager* core = Lum::Core::CoreManager::Instance();
  ControlCycle& cycle = *(ControlCycle*)Lum::Ds::DataServicesManager::Instance();
  size_t accepted = 0;
  size_t delivered = 0;
  size_t refused = 0;
  {
    Lum::Core::LockMutex lock(&core->getMutex());
    // Items a and b are allowed unless the state answer says otherwise.
    LumJson::Value state;
    Lum::Core::JsonUtil::ParseObject(answers[0].body, state);
    LumJson::Value tunables(LumJson::objectValue);
    tunables["dsAllowedDataItemIds"].append("a");
    tunables["dsAllowedDataItemIds"].append("b");
    if (state.isObject()) {
      for (const std::string& key : state.getMemberNames()) tunables[key] = state[key];
    }
    core->getCorePersistentPtr()->readBackEndTunables(tunables);
    core->evaluateStateChanges();
  }
  for (const char* item : kItems) {
    if (LumSubmitDataItem(item) == LUM_RESULT_SUCCESS) ++accepted;
  }
  {
    Lum::Core::LockMutex lock(&core->getMutex());
    // The injector repeats the last answer once the input's run out: a few
    // more calls show whether it makes the cycle loop.
    size_t next = 1;
    LumFuzz::AnswerEverything(answers[std::min(next, answers.size() - 1)]);
    bool waited = true;
    for (int i = 0; i < kMaxRounds && next < answers.size() + 3; ++i) {
      const LumFuzz::Round round =
          LumFuzz::RunRound(cycle, core->getMutex(), agent->clock(), core->transfersCancelled());
      if (round.step == ControlCycle::Step::WaitForever || round.step == ControlCycle::Step::Stop) {
        break;
      }
      if (!round.called) {
        waited = waited || round.waitedMs > 0;
        continue;
      }
      const bool upload = round.url.find("/dsdata/upload/package") != std::string::npos;
      // The upload follows its token at once; a token call always waits.
      if (!waited && !upload) LumFuzz::Fail("a token call without a wait before it");
      waited = false;
      if (upload) {
        const size_t items = CountItems(round.sent);
        if (items == 0) LumFuzz::Fail("an upload without items");
        if (round.status < 300) {
          delivered += items;
        } else if (round.status != 503) {
          refused += items;
        }
      }
      if (++next < answers.size()) LumFuzz::AnswerEverything(answers[next]);
    }
  }
  agent->stop();
  const std::string stored = Lum::Core::FileUtil::Load(agent->dir(), "data", 1 << 20);
  const size_t kept = CountItems(stored);
  if (std::getenv("LUM_FUZZ_TRACE") != nullptr) {
    std::fprintf(stderr, "%zu accepted, %zu delivered, %zu refused, %zu kept\n", accepted,
                 delivered, refused, kept);
  }
  if (delivered + refused + kept != accepted) {
    LumFuzz::Fail("items lost: " + std::to_string(accepted) + " accepted, " +
                  std::to_string(delivered) + " delivered, " + std::to_string(refused) +
                  " refused, " + std::to_string(kept) + " kept");
  }
  return 0;
}
