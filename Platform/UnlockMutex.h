#pragma once

#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// Releases a Mutex the caller holds for its own lifetime and takes it back
// when it ends, also when an exception passes: a thread that does slow work
// (a transfer, a callback) with its manager's mutex released always returns
// to the state its enclosing LockMutex expects.
class SCOPED_CAPABILITY UnlockMutex {
 public:
  explicit UnlockMutex(Mutex& mutex) RELEASE(mutex);
  ~UnlockMutex() RELEASE();
  UnlockMutex(const UnlockMutex&) = delete;
  UnlockMutex& operator=(const UnlockMutex&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace Core
}  // namespace Lum
