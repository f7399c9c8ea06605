#pragma once

#include <cstdint>
#include <string>

namespace Lum {
namespace Sv {

// The outcome of one speed or latency measurement.
struct SpeedTestResult {
  std::string url;
  uint64_t bytes = 0;          // body bytes moved
  uint64_t milliseconds = 0;   // the whole request, connection set-up included
  uint64_t bitsPerSecond = 0;  // 0 for the latency test
  bool ok = false;             // the server answered 2xx
};

}  // namespace Sv
}  // namespace Lum
