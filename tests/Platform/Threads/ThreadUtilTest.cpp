#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <string>

#include "Platform/Thread.h"
#include "Platform/ThreadUtil.h"
#include "support/TestSupport.h"

namespace Lum {
namespace Core {
namespace {

// Shared with the started thread: it records its own name and id, then
// waits until the test lets it finish, so the test can inspect it alive.
struct Probe {
  std::atomic<int> runs{0};
  std::atomic<bool> ready{false};
  std::atomic<bool> release{false};
  std::atomic<bool> done{false};  // last touch of the probe by the thread
  char name[32] = {};
  std::string threadId;
};

void* RecordAndWait(void* arg) {
  Probe* probe = static_cast<Probe*>(arg);
  probe->runs.fetch_add(1);
  pthread_getname_np(pthread_self(), probe->name, sizeof probe->name);
  probe->threadId = ThreadUtil::GetThreadIdAsString();
  probe->ready.store(true);
  LumTest::WaitFor([probe] { return probe->release.load(); }, std::chrono::seconds(30));
  probe->done.store(true);
  return nullptr;
}

std::string OwnThreadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(ThreadUtilTest, NewThreadIsNotStarted) {
  Thread thread;
  EXPECT_FALSE(thread.started());
}

TEST(ThreadUtilTest, StartTwiceCreatesOneThread) {
  Probe probe;
  Thread thread;
  ThreadUtil::Start(thread, RecordAndWait, &probe, "Twice");
  ASSERT_TRUE(thread.started());
  pthread_t first = thread.handle();
  ThreadUtil::Start(thread, RecordAndWait, &probe, "Twice");
  EXPECT_TRUE(pthread_equal(first, thread.handle()));

  ASSERT_TRUE(LumTest::WaitFor([&probe] { return probe.ready.load(); }));
  probe.release.store(true);
  ThreadUtil::Join(thread);
  EXPECT_FALSE(thread.started());
  EXPECT_EQ(1, probe.runs.load());
}

TEST(ThreadUtilTest, NameUpToFifteenCharactersIsApplied) {
  struct Case {
    const char* name;
    bool applied;
  };
  const Case cases[] = {
      {"StateControl", true},
      {"DeviceInfoContr", true},    // exactly 15
      {"DeviceInfoContro", false},  // 16: left to the inherited name
      {"AVeryLongThreadNameIndeed", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Probe probe;
    Thread thread;
    ThreadUtil::Start(thread, RecordAndWait, &probe, c.name);
    ASSERT_TRUE(thread.started());
    ASSERT_TRUE(LumTest::WaitFor([&probe] { return probe.ready.load(); }));
    // The thread reads its name itself, possibly before Start applied it;
    // read it again from outside while it is still alive.
    char name[32] = {};
    ASSERT_EQ(0, pthread_getname_np(thread.handle(), name, sizeof name));
    probe.release.store(true);
    ThreadUtil::Join(thread);
    if (c.applied) {
      EXPECT_STREQ(c.name, name);
    } else {
      EXPECT_EQ(OwnThreadName(), name);
    }
  }
}

TEST(ThreadUtilTest, NullNameKeepsInheritedName) {
  Probe probe;
  Thread thread;
  ThreadUtil::Start(thread, RecordAndWait, &probe, nullptr);
  ASSERT_TRUE(LumTest::WaitFor([&probe] { return probe.ready.load(); }));
  char name[32] = {};
  ASSERT_EQ(0, pthread_getname_np(thread.handle(), name, sizeof name));
  probe.release.store(true);
  ThreadUtil::Join(thread);
  EXPECT_EQ(OwnThreadName(), name);
}

TEST(ThreadUtilTest, JoinAndDetachOnNeverStartedThreadDoNothing) {
  Thread thread;
  ThreadUtil::Join(thread);
  EXPECT_FALSE(thread.started());
  ThreadUtil::Detach(thread);
  EXPECT_FALSE(thread.started());
}

TEST(ThreadUtilTest, DetachClearsStartedAndThreadRunsOn) {
  Probe probe;
  Thread thread;
  ThreadUtil::Start(thread, RecordAndWait, &probe, "Detached");
  ASSERT_TRUE(thread.started());
  ThreadUtil::Detach(thread);
  EXPECT_FALSE(thread.started());
  // A second detach (or a join) of the cleared handle must not touch it.
  ThreadUtil::Detach(thread);
  ThreadUtil::Join(thread);
  EXPECT_TRUE(LumTest::WaitFor([&probe] { return probe.ready.load(); }));
  probe.release.store(true);
  // Nobody can join it any more; wait until it no longer uses the probe.
  EXPECT_TRUE(LumTest::WaitFor([&probe] { return probe.done.load(); }));
}

TEST(ThreadUtilTest, RestartAfterJoinCreatesNewThread) {
  Probe probe;
  Thread thread;
  probe.release.store(true);
  ThreadUtil::Start(thread, RecordAndWait, &probe, "First");
  ThreadUtil::Join(thread);
  ThreadUtil::Start(thread, RecordAndWait, &probe, "Second");
  ThreadUtil::Join(thread);
  EXPECT_EQ(2, probe.runs.load());
}

TEST(ThreadUtilTest, ThreadIdIsFirstFourHandleBytesInMemoryOrder) {
  pthread_t self = pthread_self();
  unsigned char bytes[sizeof self];
  memcpy(bytes, &self, sizeof self);
  char expected[9];
  snprintf(expected, sizeof expected, "%02x%02x%02x%02x", bytes[0], bytes[1], bytes[2], bytes[3]);
  EXPECT_EQ(expected, ThreadUtil::GetThreadIdAsString());
}

TEST(ThreadUtilTest, ThreadIdDiffersBetweenLiveThreads) {
  Probe probe;
  Thread thread;
  ThreadUtil::Start(thread, RecordAndWait, &probe, "IdProbe");
  ASSERT_TRUE(LumTest::WaitFor([&probe] { return probe.ready.load(); }));
  std::string other = probe.threadId;
  probe.release.store(true);
  ThreadUtil::Join(thread);
  EXPECT_EQ(8u, other.size());
  EXPECT_EQ(std::string::npos, other.find_first_not_of("0123456789abcdef"));
  EXPECT_NE(ThreadUtil::GetThreadIdAsString(), other);
}

}  // namespace
}  // namespace Core
}  // namespace Lum
