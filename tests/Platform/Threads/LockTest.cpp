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

TEST(RWLock, ReadersHoldTheLockTogether) {
  RWLock lock;
  std::atomic<int> inside{0};
  std::atomic<int> sawAll{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      LockRead read(&lock);
      ++inside;
      // Only possible if every reader is inside at once.
      if (LumTest::WaitFor([&] { return inside.load() == 4; })) ++sawAll;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(sawAll.load(), 4);
}

// A thread trying `Enter` stays out while the main thread holds the lock with
// `Hold`, and gets in once it is released.
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
    EXPECT_FALSE(LumTest::WaitFor([&] { return entered.load(); }, std::chrono::milliseconds(100)))
        << what;
  }
  other.join();
}

TEST(RWLock, WriterExcludesReadersAndWriters) {
  ExpectExcluded<LockWrite, LockRead>("reader while writing");
  ExpectExcluded<LockWrite, LockWrite>("writer while writing");
  ExpectExcluded<LockRead, LockWrite>("writer while reading");
}

}  // namespace
