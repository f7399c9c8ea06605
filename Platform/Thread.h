#pragma once

#include <pthread.h>

namespace Lum {
namespace Core {

class ThreadUtil;

// A POSIX thread handle and whether it still needs a join or detach. Only
// ThreadUtil changes it. No mutex of its own: the owner of the Thread (a
// manager, under its own mutex) serialises Start, Join and Detach on it.
// The destructor neither joins nor detaches: owners always do one of them
// explicitly, and silently detaching would hide a missing join.
class Thread {
 public:
  Thread();

  pthread_t handle() const { return handle_; }
  bool started() const { return started_; }

 private:
  friend class ThreadUtil;

  pthread_t handle_;  // guarded by the owner's mutex
  bool started_;      // guarded by the owner's mutex
};

}  // namespace Core
}  // namespace Lum
