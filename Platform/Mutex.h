#pragma once

#include <pthread.h>

#include "Platform/ThreadSafety.h"

namespace Lum {
namespace Core {

// A plain, non-recursive mutex. Failures of the underlying calls are not
// reported: a default mutex only fails on misuse.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE();
  void unlock() RELEASE();
  pthread_mutex_t* native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

}  // namespace Core
}  // namespace Lum
