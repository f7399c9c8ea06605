#pragma once

#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// Holds a Mutex for its own lifetime.
class LockMutex {
 public:
  explicit LockMutex(Mutex* mutex);
  ~LockMutex();
  LockMutex(const LockMutex&) = delete;
  LockMutex& operator=(const LockMutex&) = delete;

 private:
  Mutex* mutex_;
};

}  // namespace Core
}  // namespace Lum
