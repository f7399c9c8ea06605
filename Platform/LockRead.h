#pragma once

#include "Platform/RWLock.h"

namespace Lum {
namespace Core {

// Holds the read side (shared with other readers) of an RWLock for its own lifetime.
class SCOPED_CAPABILITY LockRead {
 public:
  explicit LockRead(RWLock* lock) ACQUIRE_SHARED(lock);
  ~LockRead() RELEASE();
  LockRead(const LockRead&) = delete;
  LockRead& operator=(const LockRead&) = delete;

 private:
  RWLock* lock_;  // set once at construction
};

}  // namespace Core
}  // namespace Lum
