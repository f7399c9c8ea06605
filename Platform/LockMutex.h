#pragma once

#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// Holds a Mutex for its own lifetime.
class SCOPED_CAPABILITY LockMutex {
 public:
  explicit LockMutex(Mutex* mutex) ACQUIRE(mutex);
  ~LockMutex() RELEASE();
  LockMutex(const LockMutex&) = delete;
  LockMutex& operator=(const LockMutex&) = delete;

 private:
  Mutex* mutex_;
};

}  // namespace Core
}  // namespace Lum
