#pragma once

#include <cstdint>

namespace Lum {
namespace Core {

// A wall-clock instant taken at construction. Log lines print it in UTC.
// Immutable after construction, so no mutex guards it.
class Timestamp {
 public:
  Timestamp();

  int32_t sec;   // seconds since the epoch
  int32_t usec;  // microseconds within that second
};

}  // namespace Core
}  // namespace Lum
