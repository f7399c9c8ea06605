// Cost of a durable Store (dominated by its four fsyncs on a real disk) and of
// a checked Load, for the sizes the agent keeps: the core state (a few KiB) up
// to a full data queue.
#include "Platform/FileUtil.h"

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace {

using Lum::Core::FileUtil;

class ScratchDir {
 public:
  ScratchDir() {
    const char* base = getenv("LUM_BENCH_TMP");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/lumbench.XXXXXX";
    path_ = mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void BM_Store(benchmark::State& state) {
  ScratchDir dir;
  std::string content(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    content[0] = static_cast<char>('a' + state.iterations() % 26);
    if (!FileUtil::Store(dir.path(), "core", content)) state.SkipWithError("Store failed");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Store)->Arg(4 << 10)->Arg(256 << 10)->Unit(benchmark::kMillisecond);

void BM_Load(benchmark::State& state) {
  ScratchDir dir;
  const std::string content(static_cast<size_t>(state.range(0)), 'x');
  FileUtil::Store(dir.path(), "core", content);
  FileUtil::Store(dir.path(), "core", content + "y");
  for (auto _ : state) {
    benchmark::DoNotOptimize(FileUtil::Load(dir.path(), "core"));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Load)->Arg(4 << 10)->Arg(256 << 10)->Arg(4 << 20)->Unit(benchmark::kMicrosecond);

}  // namespace
