#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Platform/BinarySem.h"
#include "Platform/LockMutex.h"
#include "Platform/Mutex.h"
#include "Platform/TimedSem.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::BinarySem;
using Lum::Core::LockMutex;
using Lum::Core::Mutex;
using Lum::Core::TimedSem;

timespec MonotonicIn(long milliseconds) {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_sec += milliseconds / 1000 + (t.tv_nsec + (milliseconds % 1000) * 1000000L) / 1000000000L;
  t.tv_nsec = (t.tv_nsec + (milliseconds % 1000) * 1000000L) % 1000000000L;
  return t;
}

const timespec kPast = {0, 0};

// Resets without a waiter leave one signal, which the next wait takes at
// once: returning false before a far deadline proves it did not run into it.
TEST(TimedSem, ResetsWithoutWaiterLeaveOneSignal) {
  Mutex mutex;
  TimedSem sem(mutex);
  LockMutex lock(&mutex);
  sem.reset();
  sem.reset();
  const timespec far = MonotonicIn(60000);
  EXPECT_FALSE(sem.wait(&far));
  EXPECT_TRUE(sem.wait(&kPast));
}

// A waiter on another thread, with a deadline or without one, is woken by a
// reset and reports a signal rather than a time-out.
TEST(TimedSem, ResetWakesWaiterOnAnotherThread) {
  for (bool withDeadline : {true, false}) {
    Mutex mutex;
    TimedSem sem(mutex);
    bool waiting = false;  // guarded by mutex
    std::atomic<int> result{-1};
    std::thread waiter([&] {
      const timespec deadline = MonotonicIn(60000);
      LockMutex lock(&mutex);
      waiting = true;
      result = sem.wait(withDeadline ? &deadline : nullptr) ? 1 : 0;
    });
    // Once `waiting` is seen under the mutex, the waiter has released the
    // mutex inside wait() and is blocked on the condition.
    ASSERT_TRUE(LumTest::WaitFor([&] {
      LockMutex lock(&mutex);
      return waiting;
    }));
    {
      LockMutex lock(&mutex);
      EXPECT_EQ(result.load(), -1);
      sem.reset();
    }
    waiter.join();
    EXPECT_EQ(result.load(), 0) << (withDeadline ? "with deadline" : "without deadline");
  }
}

// A deadline the system refuses ends the wait, reported as a signal, rather
// than leaving the owner's thread blocked or spinning on it.
TEST(TimedSem, RefusedDeadlineEndsTheWait) {
  Mutex mutex;
  TimedSem sem(mutex);
  std::atomic<int> result{-1};
  std::thread waiter([&] {
    const timespec refused = {0, 2000000000L};
    LockMutex lock(&mutex);
    result = sem.wait(&refused) ? 1 : 0;
  });
  if (!LumTest::WaitFor([&] { return result.load() != -1; }, std::chrono::seconds(10))) {
    std::fprintf(stderr, "TimedSem.RefusedDeadlineEndsTheWait: the wait never ended\n");
    std::abort();  // the waiter cannot be joined
  }
  waiter.join();
  EXPECT_EQ(result.load(), 0);
}

// Two threads hand control back and forth; each side may only proceed after
// the other's give, so the counter seen after each round is exact.
TEST(BinarySem, PingPongAcrossThreads) {
  Mutex mutex;
  BinarySem ping(false, mutex);
  BinarySem pong(false, mutex);
  const int rounds = 2000;
  int counter = 0;  // handed over by the semaphores
  std::thread partner([&] {
    for (int i = 0; i < rounds; ++i) {
      ping.takeUnlocked();
      ++counter;
      pong.giveUnlocked();
    }
  });
  for (int i = 0; i < rounds; ++i) {
    ping.giveUnlocked();
    pong.takeUnlocked();
    if (counter != i + 1) ADD_FAILURE() << "round " << i << " saw " << counter;
  }
  partner.join();
}

// Two gives leave a single token: after one take, the next take blocks until
// the next give.
TEST(BinarySem, GivesDoNotAccumulate) {
  Mutex mutex;
  BinarySem sem(true, mutex);
  sem.giveUnlocked();
  sem.takeUnlocked();
  std::atomic<bool> taken{false};
  std::thread taker([&] {
    sem.takeUnlocked();
    taken = true;
  });
  EXPECT_FALSE(LumTest::WaitFor([&] { return taken.load(); }, std::chrono::milliseconds(100)));
  sem.giveUnlocked();
  taker.join();
  EXPECT_TRUE(taken.load());
}

}  // namespace
