#pragma once

#include <ctime>
#include <string>

namespace Lum {
namespace Sv {

// The television's clock and uptime for the support-view commands. The wall
// clock is read and set through Core::Clock, so tests swap it and never move
// the machine's own.
class Time {
 public:
  // Now, UTC, as "2024-05-01T12:00:00Z"; empty when it cannot be broken down.
  static std::string GetCurrentDateTime();
  // Sets the wall clock from "YYYY-MM-DDTHH:MM:SS", optionally followed by
  // "Z", always taken as UTC. 0 on success, 3 for a text that is not such a
  // date (missing parts, trailing text, or a field out of range such as
  // February 31), 1 when the clock refused the value.
  static int SetCurrentDateTime(const std::string& dateTime);
  // `total` seconds minus the whole seconds passed since `start` (a wall
  // clock time), within 0 and `total`.
  static int CalculateRemainingTime(int total, time_t start);
  // Whole seconds since boot; 0 when "/proc/uptime" cannot be read.
  static int GetUptime();

  // Points GetUptime at another file, for tests; empty restores the real one.
  static void SetUptimeFile(const std::string& path);
};

}  // namespace Sv
}  // namespace Lum
