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

}  // namespace
