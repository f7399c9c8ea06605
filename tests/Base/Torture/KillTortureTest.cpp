// The agent's own store code killed with SIGKILL at random moments, on the
// build tree's real file system: every start afterwards loads whole files
// and finds every step the killed process had acknowledged.
// LUM_TORTURE_KILLS sets the kills per store (default 400).
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "Base/PersistentValues.h"
#include "Base/QueueManager.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "gtest/gtest.h"
#include "support/KilledWriter.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::FileUtil;
using Lum::Core::PersistentValues;
using Lum::Ds::QueueManager;
using LumTest::KilledWriter;

const int kKills = KilledWriter::Count("LUM_TORTURE_KILLS", 400);

bool InsideStore(const LumTest::TempDir& dir, const std::string& name) {
  return std::filesystem::exists(dir.file(name + ".tmp")) ||
         std::filesystem::exists(dir.file(name + ".sum.tmp"));
}

// ------------------------------------------------------------------ core

// Two values that must always come from the same store.
void SetCore(PersistentValues& values, uint64_t seq) {
  values.setGidSeqNum(static_cast<uint32_t>(seq));
  values.setGidToken("token-" + std::to_string(seq) + std::string(seq % 512, 'x'));
}

[[noreturn]] void CoreWriter(const std::string& dir, uint64_t seq, int report) {
  PersistentValues values;
  for (;; ++seq) {
    SetCore(values, seq);
    if (!values.store(dir)) _exit(2);
    KilledWriter::Report(report, seq);
  }
}

TEST(KillTorture, CoreValuesLoadWholeWithTheLastAcknowledgedStoreOrTheNext) {
  LumTest::TempDir dir;
  uint64_t done = 0;
  const auto storeTime = KilledWriter::Time([&] {
    PersistentValues values;
    SetCore(values, ++done);
    ASSERT_TRUE(values.store(dir.path()));
  });
  KilledWriter writer(3 * storeTime + std::chrono::microseconds(100));
  int inside = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    uint64_t last = done;
    const char* why = "";
    ASSERT_TRUE(writer.run([&](int fd) { CoreWriter(dir.path(), done + 1, fd); },
                           [&](uint64_t seq) { last = seq; }, &why))
        << why;
    inside += InsideStore(dir, "core") ? 1 : 0;
    // What LumInit does: the values object loads "core".
    PersistentValues loaded;
    ASSERT_TRUE(loaded.load(dir.path())) << "kill " << kill << " lost the file";
    const uint64_t seq = loaded.getGidSeqNum();
    ASSERT_TRUE(seq == last || seq == last + 1)
        << "kill " << kill << ": " << seq << " after " << last;
    PersistentValues expected;
    SetCore(expected, seq);
    ASSERT_EQ(loaded.getGidToken(), expected.getGidToken()) << "a mix of two stores";
    done = last + 1;  // never store again a content that may be on disk
  }
  EXPECT_GT(inside, 0) << "no kill landed inside a store";
  std::printf("core: %d kills, %d inside a store, store %lld us\n", kKills, inside,
              static_cast<long long>(storeTime.count()));
}

// ------------------------------------------------------------------ data

// The data queue as the data services manager keeps it across runs: a start
// admits the stored queue, new items join it, a stop stores it whole; an
// upload the back end acknowledged drops the file. The child reports each
// stored batch and each delivery.
constexpr uint64_t kDelivered = uint64_t{1} << 62;
constexpr uint64_t kBatch = 5;
constexpr uint32_t kMaximumBytes = 4 * 1024 * 1024;
const char* const kQueueFile = "data";

std::string Item(uint64_t n) {
  return R"({"id":"t","n":)" + std::to_string(n) + R"(,"pad":")" + std::string(200 + n % 300, 'p') +
         R"("})";
}

// The item numbers in the stored queue, as the next start would take them;
// false when the file is there but not a queue.
bool LoadQueue(const std::string& dir, QueueManager& queue, std::multiset<uint64_t>* numbers) {
  queue.setAllowedDataItemIds({"t"});
  const std::string text = FileUtil::Load(dir, kQueueFile, FileUtil::kDefaultMaxBytes * 4);
  if (text.empty()) return true;
  if (!queue.unmarshalPackage(text)) return false;
  if (numbers == nullptr) return true;
  LumJson::Value package;
  queue.hashPackage();
  if (!Lum::Core::JsonUtil::ParseObject(queue.marshalPackage(), package)) return false;
  for (const LumJson::Value& item : package["dataItems"]) numbers->insert(item["n"].asUInt64());
  return true;
}

[[noreturn]] void DataWriter(const std::string& dir, uint64_t next, int report) {
  for (;;) {
    QueueManager queue(kMaximumBytes);
    if (!LoadQueue(dir, queue, nullptr)) _exit(2);
    if (queue.getQueuedCount() >= 8 * kBatch) {
      // Uploaded and acknowledged: the items have left the agent.
      queue.hashPackage();
      queue.releasePackage();
      KilledWriter::Report(report, kDelivered);
      if (!FileUtil::Drop(dir, kQueueFile)) _exit(4);
      continue;
    }
    for (uint64_t i = 0; i < kBatch; ++i, ++next) {
      if (!queue.queueDataItem(Item(next).c_str())) _exit(5);
    }
    // The stop: a pending package goes back in front, then the queue is stored.
    queue.requeuePackage();
    queue.hashPackage();
    if (!FileUtil::Store(dir, kQueueFile, queue.marshalPackage(), FileUtil::kDefaultMaxBytes * 4))
      _exit(6);
    KilledWriter::Report(report, next - 1);
  }
}

TEST(KillTorture, DataQueueKeepsEveryAcknowledgedItemOnce) {
  LumTest::TempDir dir;
  uint64_t issued = 0;  // the highest item number any writer may have queued
  const auto storeTime = KilledWriter::Time([&] {
    QueueManager queue(kMaximumBytes);
    ASSERT_TRUE(LoadQueue(dir.path(), queue, nullptr));
    queue.queueDataItem(Item(++issued).c_str());
    queue.hashPackage();
    ASSERT_TRUE(FileUtil::Store(dir.path(), kQueueFile, queue.marshalPackage(),
                                FileUtil::kDefaultMaxBytes * 4));
  });
  std::multiset<uint64_t> acknowledged;  // in the file the next writer starts from
  for (uint64_t n = 1; n <= issued; ++n) acknowledged.insert(n);
  KilledWriter writer(4 * storeTime + std::chrono::microseconds(100));
  int inside = 0;
  int deliveries = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    const char* why = "";
    const uint64_t first = issued + 1;
    issued += kBatch;
    ASSERT_TRUE(writer.run([&](int fd) { DataWriter(dir.path(), first, fd); },
                           [&](uint64_t word) {
                             if (word == kDelivered) {
                               ++deliveries;
                               acknowledged.clear();
                               return;
                             }
                             for (uint64_t n = word - kBatch + 1; n <= word; ++n) {
                               acknowledged.insert(n);
                             }
                             issued = std::max(issued, word + kBatch);
                           },
                           &why))
        << why;
    inside += InsideStore(dir, kQueueFile) ? 1 : 0;
    QueueManager queue(kMaximumBytes);
    std::multiset<uint64_t> numbers;
    ASSERT_TRUE(LoadQueue(dir.path(), queue, &numbers)) << "kill " << kill << ": damaged queue";
    for (uint64_t n : numbers) {
      ASSERT_EQ(numbers.count(n), 1u) << "kill " << kill << ": item " << n << " twice";
      ASSERT_LE(n, issued) << "kill " << kill << ": never submitted";
    }
    for (uint64_t n : acknowledged) {
      ASSERT_EQ(numbers.count(n), 1u) << "kill " << kill << ": acknowledged item " << n << " lost";
    }
    acknowledged = numbers;  // what the next writer loads and keeps
  }
  EXPECT_GT(inside, 0) << "no kill landed inside a store";
  EXPECT_GT(deliveries, 0) << "no queue was ever delivered";
  std::printf("data: %d kills, %d inside a store, %d deliveries, store %lld us\n", kKills, inside,
              deliveries, static_cast<long long>(storeTime.count()));
}

}  // namespace
