#pragma once

#include <sys/time.h>

#include <ctime>
#include <string>

#include "Platform/Clock.h"

// What every fuzz target shares: a scratch directory of its own, a clock that
// never moves, and a way to fail a property loudly.
namespace LumFuzz {

// This process's scratch directory (under /dev/shm, or $TMPDIR when /dev/shm
// is missing), ending in "/"; made on first use and removed at exit.
const std::string& WorkDir();
// Empties `dir` (recursively) without removing it.
void ClearDir(const std::string& dir);
void WriteRaw(const std::string& path, const std::string& bytes);
// Prints the broken property and aborts, which libFuzzer records as a finding
// and the replay test as a failure.
[[noreturn]] void Fail(const std::string& reason);

// A clock that stands still at a fixed moment and refuses nothing, so no input
// depends on when it runs and none can move the machine's clock.
class FixedClock : public Lum::Core::Clock {
 public:
  timespec monotonic() const override { return timespec{100000, 0}; }
  timespec wall() const override { return timespec{1700000000, 123456789}; }
  int setWall(const timeval& value) const override {
    lastSet_ = value;
    return 0;
  }
  // Installs one such clock for the whole process.
  static void Install();

 private:
  mutable timeval lastSet_{};
};

}  // namespace LumFuzz
