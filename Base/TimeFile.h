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
    Absent,          // no file (or an empty one): nothing to take over
    Invalid,         // not an object with integer "sec" and "nsec" in range
    InFuture,        // the stored (or computed) moment lies ahead of the wall clock
    ElapsedNegative  // the monotonic time lies ahead of the monotonic clock
  };

  // Reads dir/name into `stored` and, unless the moment lies in the future,
  // sets `monotonic` to the monotonic time of that moment. `complete` tells
  // whether both members were present (a missing one reads as 0). The file
  // may have been damaged or edited by hand: a member that is not an integer
  // or a moment outside 1970 to 9999 (or to the end of time_t) makes it
  // Invalid, to be ignored whole.
  static const char* kIgnoredLine;
  static Result Load(const std::string& dir, const std::string& name, LumJson::Value& stored,
                     timespec& monotonic, bool& complete);
  // The moment a valid document names, normalised; false when it is not one.
  static bool ReadMoment(const LumJson::Value& stored, timespec& moment, bool& complete);
  // The wall-clock moment of a monotonic time; on a problem `wall` is the
  // current wall-clock time.
  static Result ToWall(const timespec& monotonic, timespec& wall);
  // Writes the moment as {"sec", "nsec"}; `stored` receives the document.
  static bool Store(const std::string& dir, const std::string& name, const timespec& wall,
                    LumJson::Value& stored);
};

}  // namespace Core
}  // namespace Lum
