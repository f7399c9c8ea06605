#pragma once

#include "Platform/RWLock.h"

namespace Lum {
namespace Core {

// Holds the write side (exclusive) of an RWLock for its own lifetime.
class SCOPED_CAPABILITY LockWrite {
 public:
  explicit LockWrite(RWLock* lock) ACQUIRE(lock);
  ~LockWrite() RELEASE();
  LockWrite(const LockWrite&) = delete;
  LockWrite& operator=(const LockWrite&) = delete;

 private:
  RWLock* lock_;  // set once at construction
};

}  // namespace Core
}  // namespace Lum
