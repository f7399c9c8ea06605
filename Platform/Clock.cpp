#include "Platform/Clock.h"

#include <atomic>
#include <limits>

namespace Lum {
namespace Core {

namespace {
// Never destroyed: the schedulers read the clock while the host may exit.
const Clock& kSystemClock = *new Clock();
std::atomic<const Clock*> gClock{&kSystemClock};
constexpr long kNanosPerSecond = 1000000000L;
}  // namespace

timespec Clock::monotonic() const {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

timespec Clock::wall() const {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

int Clock::setWall(const timeval& value) const {
  return settimeofday(&value, nullptr);
}

const Clock& Clock::Current() {
  return *gClock.load(std::memory_order_acquire);
}

void Clock::Set(const Clock* clock) {
  gClock.store(clock != nullptr ? clock : &kSystemClock, std::memory_order_release);
}

timespec AddMilliseconds(const timespec& base, unsigned long long ms) {
  timespec out = base;
  out.tv_sec += static_cast<time_t>(ms / 1000);
  out.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (out.tv_nsec >= kNanosPerSecond) {
    out.tv_sec += 1;
    out.tv_nsec -= kNanosPerSecond;
  }
  return out;
}

bool IsBefore(const timespec& a, const timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

long long DiffMilliseconds(const timespec& a, const timespec& b) {
  // Saturating: a time read from a damaged file may lie anywhere, and an
  // overflow here would be undefined behaviour, not just a wrong schedule.
  long long seconds = 0;
  long long millis = 0;
  const long long nanos = static_cast<long long>(a.tv_nsec) - static_cast<long long>(b.tv_nsec);
  const bool negative = a.tv_sec < b.tv_sec;
  if (__builtin_sub_overflow(static_cast<long long>(a.tv_sec), static_cast<long long>(b.tv_sec),
                             &seconds) ||
      __builtin_mul_overflow(seconds, 1000LL, &millis) ||
      __builtin_add_overflow(millis, nanos / 1000000, &millis)) {
    return negative ? std::numeric_limits<long long>::min() : std::numeric_limits<long long>::max();
  }
  return millis;
}

timespec FromMilliseconds(long long ms) {
  long long seconds = ms / 1000;
  long long rest = ms % 1000;
  if (rest < 0) {
    rest += 1000;
    seconds -= 1;
  }
  timespec out{};
  out.tv_sec = static_cast<time_t>(seconds);
  out.tv_nsec = static_cast<long>(rest) * 1000000L;
  return out;
}

}  // namespace Core
}  // namespace Lum
