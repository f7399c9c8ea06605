#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "Platform/BinarySem.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/Mutex.h"
#include "Platform/TimedSem.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::BinarySem;
using Lum::Core::LockMutex;
using Lum::Core::Logger;
using Lum::Core::Mutex;
using Lum::Core::TimedSem;

timespec MonotonicNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

timespec MonotonicIn(long milliseconds) {
  timespec t = MonotonicNow();
  t.tv_sec += milliseconds / 1000;
  t.tv_nsec += (milliseconds % 1000) * 1000000L;
  if (t.tv_nsec >= 1000000000L) {
    t.tv_sec += 1;
    t.tv_nsec -= 1000000000L;
  }
  return t;
}

bool NotBefore(const timespec& a, const timespec& b) {
  return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec >= b.tv_nsec);
}

const timespec kPast = {0, 0};

// Error lines of service core, category state, in the short format.
LumJson::Value ErrorFileLogger(const std::string& path) {
  LumJson::Value filter;
  filter["service"] = "core";
  filter["category"] = "state";
  filter["severity"] = "error";
  LumJson::Value file;
  file["type"] = "file";
  file["argument"] = path;
  file["format"] = "short";
  file["filters"].append(filter);
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(file);
  return loggers;
}

TEST(TimedSem, ResetWithoutWaiterIsConsumedByTheNextWait) {
  Mutex mutex;
  TimedSem sem(mutex);
  LockMutex lock(&mutex);
  sem.reset();
  // A far deadline: returning false proves the wait did not run into it.
  const timespec far = MonotonicIn(60000);
  EXPECT_FALSE(sem.wait(&far));
  EXPECT_TRUE(sem.wait(&kPast));
}

TEST(TimedSem, TwoResetsWakeOnce) {
  Mutex mutex;
  TimedSem sem(mutex);
  sem.lock();
  sem.reset();
  sem.reset();
  EXPECT_FALSE(sem.wait(&kPast));
  EXPECT_TRUE(sem.wait(&kPast));
  sem.unlock();
}

TEST(TimedSem, TimeOutWaitsUntilTheMonotonicDeadline) {
  Mutex mutex;
  TimedSem sem(mutex);
  LockMutex lock(&mutex);
  const timespec deadline = MonotonicIn(50);
  EXPECT_TRUE(sem.wait(&deadline));
  EXPECT_TRUE(NotBefore(MonotonicNow(), deadline));
  // A time-out leaves no signal behind.
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
    EXPECT_TRUE(LumTest::WaitFor([&] { return result.load() != -1; }));
    waiter.join();
    EXPECT_EQ(result.load(), 0) << (withDeadline ? "with deadline" : "without deadline");
  }
}

// A deadline the condition variable refuses (nanoseconds out of range) must
// neither hang nor spin: the wait logs the failure, gives up after a pause and
// reports a signal, which it consumes.
TEST(TimedSem, InvalidDeadlineEndsTheWaitAfterAPause) {
  LumTest::TempDir dir;
  const std::string logPath = dir.file("errors.log");
  Logger::Instance().initialize(ErrorFileLogger(logPath));
  Mutex mutex;
  TimedSem sem(mutex);
  {
    LockMutex lock(&mutex);
    const timespec invalid = {MonotonicNow().tv_sec + 60, 2000000000L};
    const timespec pauseEnd = MonotonicIn(1000);
    EXPECT_FALSE(sem.wait(&invalid));
    EXPECT_TRUE(NotBefore(MonotonicNow(), pauseEnd));
    EXPECT_TRUE(sem.wait(&kPast));
    Logger::Instance().terminate();
    const std::string expected =
        "core state      error   TimedSem Problem: " + std::to_string(EINVAL) + " " +
        std::to_string(invalid.tv_sec) + ".2000000000s\n";
    EXPECT_EQ(LumTest::ReadFile(logPath), expected);
  }
}

// Once the single token is consumed, a take on another thread blocks until the
// next give, however the token was made available and however often given.
TEST(BinarySem, TakeBlocksUntilTheNextGive) {
  for (int gives : {0, 1, 2}) {
    Mutex mutex;
    BinarySem sem(gives == 0, mutex);
    {
      LockMutex lock(&mutex);
      for (int i = 0; i < gives; ++i) sem.giveLocked();
      sem.takeLocked();
    }
    std::atomic<bool> taken{false};
    std::thread taker([&] {
      sem.takeUnlocked();
      taken = true;
    });
    EXPECT_FALSE(LumTest::WaitFor([&] { return taken.load(); }, std::chrono::milliseconds(100)))
        << gives << " gives";
    sem.giveUnlocked();
    EXPECT_TRUE(LumTest::WaitFor([&] { return taken.load(); })) << gives << " gives";
    taker.join();
  }
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
  int mismatches = 0;
  for (int i = 0; i < rounds; ++i) {
    ping.giveUnlocked();
    pong.takeUnlocked();
    if (counter != i + 1) ++mismatches;
  }
  partner.join();
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(counter, rounds);
}

}  // namespace
