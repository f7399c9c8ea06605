// What a submission costs the host's thread: LumSubmitDataItem of one item
// into a queue with room, with logging off as in the field, against the
// cost of jsoncpp alone doing the same parse, stamp and write.
//
//   bench_dataservices
//
// Instruction counts come from callgrind, which is stable on a busy machine
// (divide by the call count of LumSubmitDataItem in the output):
//   valgrind --tool=callgrind --toggle-collect=LumSubmitDataItem
//       bench_dataservices --benchmark_filter='Submit/200$'
//   valgrind --tool=callgrind --toggle-collect='(anonymous namespace)::JsoncppAlone*'
//       bench_dataservices --benchmark_filter=JsoncppAlone
// (a pattern that also matched BM_JsoncppAlone would toggle collection off
// again on entering JsoncppAlone).
#include <benchmark/benchmark.h>
#include <lum.h>

#include <cstdio>
#include <memory>
#include <string>

#include "Base/PersistentValues.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "support/TestSupport.h"
#include "tools/pki/TestPki.h"

namespace {

using Lum::Core::JsonUtil;
using Lum::Tools::TestPki;

// An agent whose uploads and back-end calls are all an hour away, so that
// only the host's own thread does work while the benchmark runs. No back
// end is needed: the one registration attempt fails and waits.
class QuietAgent {
 public:
  QuietAgent() {
    pki_.generate();
    pki_.issueDevice(TestPki::DeviceCommonName("bench", 9), &device_);
    identity_ = device_.identityJson(true);
    LumJson::Value config;
    config["core"]["persistentPath"] = dir_.path();
    config["dataServices"]["maximumDataBytes"] = 256u << 20;
    config_ = JsonUtil::WriteCompact(config);
    device_text_ = R"({"id":"BENCH-1","model":"M","subModel":"S","brand":"B","swVersion":"1"})";
  }

  // Each run starts from a fresh store that allows the benchmark's ids.
  void start() {
    Lum::Core::PersistentValues defaults;
    std::string text;
    defaults.marshal(text);
    LumJson::Value document;
    JsonUtil::ParseStrict(text, document);
    for (const char* name :
         {"daRetryDelayFixedMs", "daPollDelayFixedMs", "dsStandardDelayFixedMs",
          "dsAggressiveDelayFixedMs", "dsStartupDelayFixedMs", "dsRetryDelayFixedMs"}) {
      document[name] = 3600000;
    }
    document["dsAllowedDataItemIds"].append("TvChannelTune");
    Lum::Core::FileUtil::Store(dir_.path(), "core", JsonUtil::WriteCompact(document));
    LumInit(identity_.c_str(), config_.c_str(), device_text_.c_str());
  }

  // A factory reset leaves nothing queued for the next run to load.
  static void stop() {
    LumFactoryReset();
    LumTest::WaitFor([] {
      LumStatus status{};
      LumGetStatus(LumStatusMethodImmediate, &status);
      LumFreeStatus(&status);
      return status.deviceAgentState == LumDeviceAgentUninitialized;
    });
  }

 private:
  TestPki pki_;
  LumTest::TempDir dir_;
  Lum::Tools::DeviceIdentity device_;
  std::string identity_, config_, device_text_;
};

QuietAgent& Agent() {
  static QuietAgent agent;
  return agent;
}

// An item of about `size` bytes once stamped, as a television reports a
// channel change.
std::string ItemOfSize(size_t size) {
  std::string item =
      R"({"id":"TvChannelTune","parameters":{"channel":"ARD HD","source":"dvb-t2","note":")";
  const std::string tail = "\"}}";
  const size_t stamped =
      item.size() + tail.size() + sizeof(R"(,"dateTime":"2026-11-21T10:00:00.000Z")") - 1;
  item.append(size > stamped ? size - stamped : 0, 'x');
  return item + tail;
}

void BM_Submit(benchmark::State& state) {
  const std::string item = ItemOfSize(static_cast<size_t>(state.range(0)));
  Agent().start();
  unsigned failures = 0;
  for (auto _ : state) {
    failures += LumSubmitDataItem(item.c_str()) != LUM_RESULT_SUCCESS;
  }
  Agent().stop();
  if (failures != 0) {
    state.SkipWithError("an item was not queued");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * item.size()));
  state.SetComplexityN(state.range(0));
}
// Fixed iterations keep the queue within its bound (about 45 MB in all).
BENCHMARK(BM_Submit)->Arg(200)->Iterations(100000);
BENCHMARK(BM_Submit)->Arg(2000)->Iterations(10000);
BENCHMARK(BM_Submit)->Arg(20000)->Iterations(1000);

// The floor: a strict parse, a "dateTime" member added, a compact write.
__attribute__((noinline)) std::string JsoncppAlone(const std::string& text) {
  LumJson::CharReaderBuilder builder;
  LumJson::CharReaderBuilder::strictMode(&builder.settings_);
  static const std::unique_ptr<LumJson::CharReader> reader(builder.newCharReader());
  LumJson::Value item;
  std::string errors;
  reader->parse(text.data(), text.data() + text.size(), &item, &errors);
  item["dateTime"] = "2026-11-21T10:00:00.000Z";
  static LumJson::StreamWriterBuilder writer = [] {
    LumJson::StreamWriterBuilder w;
    w["indentation"] = "";
    return w;
  }();
  return LumJson::writeString(writer, item);
}

void BM_JsoncppAlone(benchmark::State& state) {
  const std::string item = ItemOfSize(200);
  for (auto _ : state) {
    benchmark::DoNotOptimize(JsoncppAlone(item));
  }
}
BENCHMARK(BM_JsoncppAlone)->Iterations(100000);

}  // namespace
