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

// Shared with the started thread, which counts its runs and then waits until
// the test lets it finish, so the test can inspect it alive.
struct Probe {
  std::atomic<int> runs{0};
  std::atomic<bool> release{false};
};

void* CountAndWait(void* arg) {
  Probe* probe = static_cast<Probe*>(arg);
  probe->runs.fetch_add(1);
  LumTest::WaitFor([probe] { return probe->release.load(); }, std::chrono::seconds(30));
  return nullptr;
}

TEST(ThreadUtilTest, StartTwiceCreatesOneThreadAndJoinAllowsARestart) {
  Probe probe;
  Thread thread;
  ThreadUtil::Join(thread);  // never started: nothing to do
  ThreadUtil::Detach(thread);
  EXPECT_FALSE(thread.started());
  ThreadUtil::Start(thread, CountAndWait, &probe, "Twice");
  ASSERT_TRUE(thread.started());
  pthread_t first = thread.handle();
  ThreadUtil::Start(thread, CountAndWait, &probe, "Twice");
  EXPECT_TRUE(pthread_equal(first, thread.handle()));
  probe.release.store(true);
  ThreadUtil::Join(thread);
  EXPECT_FALSE(thread.started());
  EXPECT_EQ(1, probe.runs.load());

  ThreadUtil::Start(thread, CountAndWait, &probe, "Again");
  ThreadUtil::Join(thread);
  EXPECT_EQ(2, probe.runs.load());
}

TEST(ThreadUtilTest, NameUpToFifteenCharactersIsApplied) {
  char inherited[32] = {};
  pthread_getname_np(pthread_self(), inherited, sizeof inherited);
  for (const char* given : {"DeviceInfoContr", "DeviceInfoContro"}) {
    Probe probe;
    Thread thread;
    ThreadUtil::Start(thread, CountAndWait, &probe, given);
    char name[32] = {};
    ASSERT_EQ(0, pthread_getname_np(thread.handle(), name, sizeof name));
    probe.release.store(true);
    ThreadUtil::Join(thread);
    // 16 characters do not fit: the thread keeps the inherited name.
    EXPECT_STREQ(strlen(given) <= 15 ? given : inherited, name);
  }
}

TEST(ThreadUtilTest, ThreadIdIsFirstFourHandleBytesInMemoryOrder) {
  pthread_t self = pthread_self();
  unsigned char bytes[sizeof self];
  memcpy(bytes, &self, sizeof self);
  char expected[9];
  snprintf(expected, sizeof expected, "%02x%02x%02x%02x", bytes[0], bytes[1], bytes[2], bytes[3]);
  EXPECT_EQ(expected, ThreadUtil::GetThreadIdAsString());
}

}  // namespace
}  // namespace Core
}  // namespace Lum
