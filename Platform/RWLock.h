#pragma once

#include <pthread.h>

#include "Platform/ThreadSafety.h"

namespace Lum {
namespace Core {

// A reader/writer lock: many readers at once, or one writer. Failures of the
// underlying calls are not reported; a default lock only fails on misuse.
// Not recursive: a thread must not take it again while holding it.
class CAPABILITY("mutex") RWLock {
 public:
  RWLock();
  ~RWLock();
  RWLock(const RWLock&) = delete;
  RWLock& operator=(const RWLock&) = delete;

  void readLock() ACQUIRE_SHARED();
  void writeLock() ACQUIRE();
  // Ends either side.
  void unlock() RELEASE_GENERIC();

 private:
  pthread_rwlock_t lock_;  // the lock itself; needs no further guard
};

}  // namespace Core
}  // namespace Lum
