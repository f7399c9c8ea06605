#pragma once

#include <cstdint>
#include <ctime>

#include "Base/CoreMicroService.h"
#include "Platform/Thread.h"

namespace Lum {
namespace Core {

// The core loop's in-memory scheduling state; lost at every restart by
// design. The core manager reads and writes every member under its mutex
// (CoreManager::getMutex), so the members are plain and public.
class VolatileValues {
 public:
  VolatileValues();

  // Dumps the state at debug level, times relative to the monotonic clock.
  void logStateDebug() const;

  bool pending;               // guarded by the core mutex
  bool busy;                  // guarded by the core mutex
  bool evaluate;              // guarded by the core mutex
  bool retry;                 // guarded by the core mutex
  bool startupDelay;          // guarded by the core mutex
  uint32_t badSynchs;         // guarded by the core mutex
  timespec lastCall;          // monotonic; guarded by the core mutex
  timespec nextCall;          // monotonic; guarded by the core mutex
  MicroService nextDws;       // guarded by the core mutex
  Thread stateControlThread;  // guarded by the core mutex
};

}  // namespace Core
}  // namespace Lum
