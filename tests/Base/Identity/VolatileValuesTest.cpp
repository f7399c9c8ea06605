// The core loop's scheduling state and the names of the core's calls.
#include <gtest/gtest.h>

#include <string>

#include "Base/CoreMicroService.h"
#include "Base/VolatileValues.h"
#include "Platform/Clock.h"
#include "support/LogCapture.h"

namespace {

using Lum::Core::Clock;
using Lum::Core::MicroService;
using Lum::Core::VolatileValues;

// The monotonic clock stands still at 1000 s, so relative times are exact.
class StoppedClock : public Clock {
 public:
  timespec monotonic() const override { return {1000, 500000000}; }
};

class InstalledClock {
 public:
  InstalledClock() { Clock::Set(&clock_); }
  ~InstalledClock() { Clock::Set(nullptr); }

 private:
  StoppedClock clock_;
};

TEST(MicroService, NamesOfTheCoreCalls) {
  const struct {
    int value;
    const char* name;
  } cases[] = {{0, "CheckForNotification"},
               {1, "GetDeviceIdentity"},
               {2, "SynchronizeCoreState"},
               {3, "Unknown"},
               {-1, "Unknown"}};
  for (const auto& c : cases) {
    EXPECT_STREQ(Lum::Core::MicroServiceToString(static_cast<MicroService>(c.value)), c.name);
  }
}

TEST(VolatileValues, StartsAtZero) {
  const VolatileValues values;
  EXPECT_FALSE(values.pending || values.busy || values.evaluate || values.retry ||
               values.startupDelay);
  EXPECT_EQ(values.badSynchs, 0u);
  EXPECT_EQ(values.lastCall.tv_sec, 0);
  EXPECT_EQ(values.lastCall.tv_nsec, 0);
  EXPECT_EQ(values.nextCall.tv_sec, 0);
  EXPECT_EQ(values.nextCall.tv_nsec, 0);
  EXPECT_EQ(values.nextDws, Lum::Core::CheckForNotification);
  EXPECT_FALSE(values.stateControlThread.started());
  EXPECT_FALSE(values.terminateThread.started());
}

TEST(VolatileValues, DebugDumpOfFlagsAndCounters) {
  VolatileValues values;
  values.pending = true;
  values.retry = true;
  values.badSynchs = 4294967295u;
  values.nextDws = Lum::Core::GetDeviceIdentity;
  LumTest::LogCapture log("debug");
  values.logStateDebug();
  for (const char* line : {"volatile->pending                    : true",
                           "volatile->busy                       : false",
                           "volatile->evaluate                   : false",
                           "volatile->retry                      : true",
                           "volatile->startupDelay               : false",
                           "volatile->badSynchs                  : 4294967295",
                           "volatile->nextDws                    : GetDeviceIdentity"}) {
    EXPECT_TRUE(log.logged(line)) << line << "\n" << log.text();
  }
}

TEST(VolatileValues, DebugDumpOfTimesRelativeToNow) {
  const struct {
    timespec nextCall;
    timespec lastCall;
    const char* nextLine;
    const char* lastLine;
  } cases[] = {
      {{1100, 500000000},
       {990, 500000000},
       "volatile->nextCall                   : 100 seconds from now",
       "volatile->lastCall                   : 10 seconds ago"},
      {{1000, 500000000},
       {1000, 500000000},
       "volatile->nextCall                   : 0 seconds from now",
       "volatile->lastCall                   : 0 seconds ago"},
      {{1000, 499999999},
       {1000, 500000001},
       "volatile->nextCall is in the past!",
       "volatile->lastCall is in the future!"},
      {{0, 0},
       {2000, 0},
       "volatile->nextCall is in the past!",
       "volatile->lastCall is in the future!"},
  };
  InstalledClock clock;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.nextLine);
    VolatileValues values;
    values.nextCall = c.nextCall;
    values.lastCall = c.lastCall;
    LumTest::LogCapture log("debug");
    values.logStateDebug();
    EXPECT_TRUE(log.logged(c.nextLine)) << log.text();
    EXPECT_TRUE(log.logged(c.lastLine)) << log.text();
  }
}

}  // namespace
