// The queue manager's costs: building, hashing and releasing a package, the
// heap its queued items hold, and admitting one item of growing size.
//
//   bench_queue
//
// Instruction counts come from callgrind (stable on a busy machine). Each
// measured step is a function of its own, so the setup around it is not
// counted; divide the inclusive cost by the call count that --tree=caller
// prints:
//   valgrind --tool=callgrind --toggle-collect='*BuildHashAndRelease*'
//       bench_queue --benchmark_filter=BuildHashRelease --benchmark_min_time=2
//   valgrind --tool=callgrind --toggle-collect='*AdmitOne*'
//       bench_queue --benchmark_filter='QueueDataItem/200$' --benchmark_min_time=0.5
//   callgrind_annotate --inclusive=yes --tree=caller callgrind.out.<pid>
//
// Measured on the x86-64 build machine (RelWithDebInfo, logging off):
//   build + hash + release of 10,000 items of 200 bytes (a 2.01 MB package):
//     4,519.7 M instructions over 76 calls = 59.5 M per call = 29.6 M per MB
//     (target: at most 40 M per MB); 95% of it is SHA-256 in libcrypto, whose
//     first call also pays OpenSSL's one-time set-up (32.2 M per MB then);
//   queueDataItem of a 200-byte item: 132.7 M instructions over 4,339 calls =
//     30,600 per item, of which the strict parse is 16,100 and the compact
//     write 9,400; 2.8 us of CPU per item, growing linearly at 3.9 ns per
//     byte (100 B 2.6 us, 1,000 B 5.8 us, 10,000 B 38.4 us; load average 2.5);
//   heap held per byte of queued item text: 1.27 (1,000 items) and 1.29
//     (100,000 items) (target: at most 1.5);
//   FastWriter 772 ns against 1,303 ns for a cached StreamWriter on the same
//     item, which is why the queue writes with FastWriter.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <sstream>
#include <string>

#include "Base/QueueManager.h"
#include "Platform/JsonUtil.h"
#include "Platform/LumJson.h"

namespace {

using Lum::Ds::QueueManager;

constexpr uint32_t kRoomyLimit = 1u << 30;

// An item of `size` bytes once stamped (or of its fixed part, 122 bytes,
// when that is more), as a television reports a channel change.
std::string SubmittedItem(size_t size) {
  const std::string head = R"({"id":"TvChannelTune","parameters":{"channel":"ARD HD","note":")";
  const std::string tail = R"(","source":"dvb-t2"}})";
  const size_t stamp = sizeof(R"(,"dateTime":"2026-11-21T10:00:00.000Z")") - 1;
  const size_t fixed = head.size() + tail.size() + stamp;
  return head + std::string(size > fixed ? size - fixed : 0, 'x') + tail;
}

// The same item as stored: already stamped, so its text is kept as given.
std::string StoredItem(size_t size) {
  std::string item = SubmittedItem(size);
  item.insert(1, R"("dateTime":"2026-11-21T10:00:00.000Z",)");
  return item;
}

std::unique_ptr<QueueManager> NewQueue() {
  std::unique_ptr<QueueManager> queue(new QueueManager(kRoomyLimit));
  queue->setAllowedDataItemIds({"TvChannelTune"});
  return queue;
}

__attribute__((noinline)) size_t BuildHashAndRelease(QueueManager& queue) {
  const size_t hashLength = queue.hashPackage().size();
  const size_t packageBytes = queue.marshalPackage().size();
  queue.releasePackage();
  return hashLength + packageBytes;
}

void BM_BuildHashRelease(benchmark::State& state) {
  const size_t count = static_cast<size_t>(state.range(0));
  const std::string item = StoredItem(200);
  std::unique_ptr<QueueManager> queue = NewQueue();
  size_t packageBytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (size_t i = 0; i < count; ++i) {
      queue->queueDataItem(item.data(), item.size());
    }
    state.ResumeTiming();
    packageBytes = BuildHashAndRelease(*queue) - 64;
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * packageBytes));
  state.counters["package_bytes"] = static_cast<double>(packageBytes);
}
BENCHMARK(BM_BuildHashRelease)->Arg(10000)->Unit(benchmark::kMillisecond);

// Heap held by queued items per byte of item text, from glibc's count of
// bytes in use (chunk overhead included).
void BM_HeapPerQueuedByte(benchmark::State& state) {
  const size_t count = static_cast<size_t>(state.range(0));
  const std::string item = StoredItem(200);
  double ratio = 0;
  for (auto _ : state) {
    std::unique_ptr<QueueManager> queue = NewQueue();
    const size_t before = mallinfo2().uordblks;
    for (size_t i = 0; i < count; ++i) {
      queue->queueDataItem(item.data(), item.size());
    }
    const size_t after = mallinfo2().uordblks;
    ratio = static_cast<double>(after - before) / queue->getCurrentBytes();
  }
  state.counters["heap_per_byte"] = ratio;
}
BENCHMARK(BM_HeapPerQueuedByte)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

__attribute__((noinline)) bool AdmitOne(QueueManager& queue, const std::string& item) {
  return queue.queueDataItem(item.data(), item.size());
}

// Admission of one item: strict parse, stamp, compact write, append. The
// queue is replaced every 10,000 items so memory stays flat.
void BM_QueueDataItem(benchmark::State& state) {
  const std::string item = SubmittedItem(static_cast<size_t>(state.range(0)));
  std::unique_ptr<QueueManager> queue = NewQueue();
  unsigned refused = 0;
  for (auto _ : state) {
    refused += AdmitOne(*queue, item) ? 0 : 1;
    if (queue->getQueuedCount() == 10000) {
      state.PauseTiming();
      queue = NewQueue();
      state.ResumeTiming();
    }
  }
  if (refused != 0) {
    state.SkipWithError("an item was not queued");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * item.size()));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_QueueDataItem)->Arg(100)->Arg(200)->Arg(1000)->Arg(10000)->Complexity(benchmark::oN);

// Why the queue writes with FastWriter: the same compact text through a
// cached StreamWriter needs an ostringstream per item.
void BM_WriteCompactFast(benchmark::State& state) {
  LumJson::Value value;
  Lum::Core::JsonUtil::ParseStrict(StoredItem(200), value);
  LumJson::FastWriter writer;
  writer.omitEndingLineFeed();
  for (auto _ : state) {
    benchmark::DoNotOptimize(writer.write(value));
  }
}
BENCHMARK(BM_WriteCompactFast);

void BM_WriteCompactStream(benchmark::State& state) {
  LumJson::Value value;
  Lum::Core::JsonUtil::ParseStrict(StoredItem(200), value);
  LumJson::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::unique_ptr<LumJson::StreamWriter> writer(builder.newStreamWriter());
  for (auto _ : state) {
    std::ostringstream out;
    writer->write(value, &out);
    benchmark::DoNotOptimize(out.str());
  }
}
BENCHMARK(BM_WriteCompactStream);

}  // namespace
