#pragma once

#include <ctime>
#include <string>

#include "Platform/LumJson.h"

namespace Lum {
namespace Core {

// The time of a manager's last back-end call, kept across a restart. The
// schedules run on the monotonic clock, which restarts with the device, so
// the file holds the wall-clock moment ({"sec", "nsec"}) and is converted on
// the way in and out. Stateless; the caller logs the outcome, so that its
// lines carry the caller's own source.
class TimeFile {
 public:
  enum Result {
    Ok,
    Absent,          // no file, or not a JSON object: nothing to take over
    InFuture,        // the stored (or computed) moment lies ahead of the wall clock
    ElapsedNegative  // the monotonic time lies ahead of the monotonic clock
  };

  // Reads dir/name into `stored` and, unless the moment lies in the future,
  // sets `monotonic` to the monotonic time of that moment. `complete` tells
  // whether both members were present (a missing one reads as 0).
  static Result Load(const std::string& dir, const std::string& name, LumJson::Value& stored,
                     timespec& monotonic, bool& complete);
  // The wall-clock moment of a monotonic time; on a problem `wall` is the
  // current wall-clock time.
  static Result ToWall(const timespec& monotonic, timespec& wall);
  // Writes the moment as {"sec", "nsec"}; `stored` receives the document.
  static bool Store(const std::string& dir, const std::string& name, const timespec& wall,
                    LumJson::Value& stored);
};

}  // namespace Core
}  // namespace Lum
