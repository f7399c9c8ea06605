#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "Platform/LockRead.h"
#include "Platform/LockWrite.h"
#include "Platform/RWLock.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::LockRead;
using Lum::Core::LockWrite;
using Lum::Core::RWLock;

constexpr std::chrono::milliseconds kBlockedWindow(100);

TEST(RWLock, ReadersHoldTheLockTogether) {
  RWLock lock;
  const int readers = 4;
  std::atomic<int> inside{0};
  std::atomic<int> sawAll{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < readers; ++i) {
    threads.emplace_back([&] {
      LockRead read(&lock);
      ++inside;
      // Only possible if every reader is inside at once.
      if (LumTest::WaitFor([&] { return inside.load() == readers; })) ++sawAll;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(sawAll.load(), readers);
}

// A thread trying `enter` must stay out while the main thread holds the lock
// with `hold`, and get in once it is released.
template <typename Hold, typename Enter>
void ExpectExcluded(const char* what) {
  RWLock lock;
  std::atomic<bool> entered{false};
  std::thread other;
  {
    Hold held(&lock);
    other = std::thread([&] {
      Enter enter(&lock);
      entered = true;
    });
    EXPECT_FALSE(LumTest::WaitFor([&] { return entered.load(); }, kBlockedWindow)) << what;
  }
  EXPECT_TRUE(LumTest::WaitFor([&] { return entered.load(); })) << what;
  other.join();
}

TEST(RWLock, WriterExcludesReadersAndWriters) {
  ExpectExcluded<LockWrite, LockRead>("reader while writing");
  ExpectExcluded<LockWrite, LockWrite>("writer while writing");
  ExpectExcluded<LockRead, LockWrite>("writer while reading");
}

// Writers keep two fields equal; readers must never see them apart. Writers go
// on until the readers have looked many times, so the two sides really
// overlap. Under ThreadSanitizer a missing exclusion also shows up as a race.
TEST(RWLock, ReadersNeverSeeAHalfWrite) {
  RWLock lock;
  long first = 0;   // guarded by lock
  long second = 0;  // guarded by lock
  std::atomic<bool> stop{false};
  std::atomic<long> reads{0};
  std::atomic<long> writes{0};
  std::atomic<int> torn{0};
  std::vector<std::thread> writers;
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; ++r) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        LockRead read(&lock);
        if (first != second) ++torn;
        ++reads;
      }
    });
  }
  for (int w = 0; w < 2; ++w) {
    writers.emplace_back([&] {
      for (int i = 0; i < 2000 || reads.load() < 2000; ++i) {
        LockWrite write(&lock);
        ++first;
        ++second;
        ++writes;
      }
    });
  }
  for (auto& t : writers) t.join();
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_EQ(first, writes.load());
  EXPECT_EQ(second, writes.load());
}

}  // namespace
