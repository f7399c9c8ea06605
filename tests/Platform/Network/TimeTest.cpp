// Date and time against a swapped wall clock: the machine's is never set.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Platform/Clock.h"
#include "Platform/Time.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::Clock;
using Lum::Sv::Time;

constexpr time_t kMay1Noon = 1714564800;  // 2024-05-01T12:00:00Z

class FakeClock : public Clock {
 public:
  timespec wall() const override { return timespec{now, 0}; }
  int setWall(const timeval& value) const override {
    set.push_back(value.tv_sec);
    return refuse ? -1 : 0;
  }
  time_t now = kMay1Noon;
  bool refuse = false;
  mutable std::vector<time_t> set;
};

class TimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A zone far from UTC: the text must still be taken as UTC.
    const char* tz = std::getenv("TZ");
    hadTz_ = tz != nullptr;
    oldTz_ = hadTz_ ? tz : "";
    setenv("TZ", "America/New_York", 1);
    tzset();
    Clock::Set(&clock_);
  }
  void TearDown() override {
    Clock::Set(nullptr);
    hadTz_ ? setenv("TZ", oldTz_.c_str(), 1) : unsetenv("TZ");
    tzset();
    Time::SetUptimeFile("");
  }
  FakeClock clock_;
  bool hadTz_ = false;
  std::string oldTz_;
};

TEST_F(TimeTest, SetsTheClockOnlyFromACompleteUtcDate) {
  struct Case {
    const char* text;
    int result;
  } cases[] = {
      {"2024-05-01T12:00:00", 0}, {"2024-05-01T12:00:00Z", 0}, {"2024-05-01 12:00:00", 3},
      {"2024-05-01T12:00", 3},    {"2024-05-01T12:00:00x", 3}, {"2024-05-01T12:00:00Zx", 3},
      {"2024-02-31T12:00:00", 3}, {"2024-05-01T24:00:00", 3},  {"", 3},
  };
  for (const Case& c : cases) {
    clock_.set.clear();
    EXPECT_EQ(Time::SetCurrentDateTime(c.text), c.result) << c.text;
    EXPECT_EQ(clock_.set, c.result == 0 ? std::vector<time_t>{kMay1Noon} : std::vector<time_t>{})
        << c.text;
  }
  clock_.refuse = true;
  EXPECT_EQ(Time::SetCurrentDateTime("2024-05-01T12:00:00Z"), 1);
}

TEST_F(TimeTest, ReadsTheClockAndTheRemainingBudget) {
  EXPECT_EQ(Time::GetCurrentDateTime(), "2024-05-01T12:00:00Z");
  struct Case {
    int total;
    time_t start;
    int left;
  } cases[] = {
      {10, kMay1Noon - 3, 7},
      {10, kMay1Noon - 30, 0},
      {10, kMay1Noon + 100, 10},  // the clock was set back meanwhile
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Time::CalculateRemainingTime(c.total, c.start), c.left) << c.start - kMay1Noon;
  }
}

TEST_F(TimeTest, UptimeIsTheFirstNumberInWholeSeconds) {
  LumTest::TempDir dir;
  struct Case {
    const char* text;
    int seconds;
  } cases[] = {{"12345.67 999.01\n", 12345}, {"garbage\n", 0}, {"-5.0 1.0\n", 0}, {"", 0}};
  for (const Case& c : cases) {
    LumTest::WriteFile(dir.file("uptime"), c.text);
    Time::SetUptimeFile(dir.file("uptime"));
    EXPECT_EQ(Time::GetUptime(), c.seconds) << c.text;
  }
  Time::SetUptimeFile(dir.file("missing"));
  EXPECT_EQ(Time::GetUptime(), 0);
  Time::SetUptimeFile("");
  EXPECT_GT(Time::GetUptime(), 0);
}

}  // namespace
