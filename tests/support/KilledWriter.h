#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>

namespace LumTest {

// A writer process killed with SIGKILL at a random moment. The child, forked
// from the (single-threaded) test, runs `body` with the write end of a pipe
// and reports every step it completed as one 64-bit word; it never returns
// on its own. The parent waits for the first report, lets the child run a
// random time, kills it and hands every report that reached the pipe to
// `onReport`, in order.
class KilledWriter {
 public:
  using Body = std::function<void(int reportFd)>;
  using OnReport = std::function<void(uint64_t)>;

  // Kill moments are spread uniformly over [0, spread] after the first report.
  explicit KilledWriter(std::chrono::microseconds spread);

  // One child, one kill; false (with the reason in `why`) when the child
  // never reported, or ended other than by the kill.
  bool run(const Body& body, const OnReport& onReport, const char** why);

  // Sends one report from the child; ends the child when the pipe is gone.
  static void Report(int fd, uint64_t word);
  // The count an environment variable asks for, or `fallback`.
  static int Count(const char* variable, int fallback);
  // The mean wall time of `step` over `times` runs.
  static std::chrono::microseconds Time(const std::function<void()>& step, int times = 10);

 private:
  std::uniform_int_distribution<int64_t> delayUs_;
  std::mt19937_64 random_;
};

}  // namespace LumTest
