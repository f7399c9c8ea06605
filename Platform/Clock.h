#pragma once

#include <sys/time.h>

#include <ctime>

namespace Lum {
namespace Core {

// The agent's two clocks. Scheduling runs on the monotonic clock, which
// never jumps; the wall clock only dates requests and anchors the time of
// the last back-end call across restarts. Tests install their own Clock to
// move the wall clock without touching the system's.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual timespec monotonic() const;
  virtual timespec wall() const;
  // Sets the system's wall clock (settimeofday); 0 on success, -1 with errno
  // otherwise. Tests override it so that they never move the machine's clock.
  virtual int setWall(const timeval& value) const;

  // The clock in use; never null.
  static const Clock& Current();
  // Installs `clock` (not owned) for the whole process; null restores the
  // system clocks. Meant for tests, before the agent starts.
  static void Set(const Clock* clock);

  static timespec MonotonicNow() { return Current().monotonic(); }
  static timespec WallNow() { return Current().wall(); }
};

// Arithmetic on timespec values as used by the schedulers.
timespec AddMilliseconds(const timespec& base, unsigned long long ms);
bool IsBefore(const timespec& a, const timespec& b);
// a - b in milliseconds (negative when a is before b).
long long DiffMilliseconds(const timespec& a, const timespec& b);
// Milliseconds since the clock's origin, negative ones included, as timespec
// with 0 <= tv_nsec < 1e9.
timespec FromMilliseconds(long long ms);

}  // namespace Core
}  // namespace Lum
