#pragma once

#include <string>

#include "Platform/Thread.h"

namespace Lum {
namespace Core {

// The one place where the agent creates threads. Stateless; the Thread
// passed in is guarded by its owner's mutex.
class ThreadUtil {
 public:
  // Creates the thread unless `thread` is already started. A name of at most
  // 15 characters is applied to the new thread (the kernel's limit); a longer
  // one is not applied and the thread keeps the inherited name. A failed
  // create leaves `thread` not started. An exception that reaches the top of
  // `routine` is logged and ends that thread only.
  static void Start(Thread& thread, void* (*routine)(void*), void* arg, const char* name);

  // Join / detach a started thread; `started` is cleared only on success.
  static void Join(Thread& thread);
  static void Detach(Thread& thread);

  // The calling thread's handle as 8 lower-case hex digits, the first four
  // bytes of the handle in memory order.
  static std::string GetThreadIdAsString();
};

}  // namespace Core
}  // namespace Lum
