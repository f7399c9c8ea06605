#include "Platform/RWLock.h"

namespace Lum {
namespace Core {

RWLock::RWLock() {
  pthread_rwlock_init(&lock_, nullptr);
}

RWLock::~RWLock() {
  pthread_rwlock_destroy(&lock_);
}

void RWLock::readLock() {
  pthread_rwlock_rdlock(&lock_);
}

void RWLock::writeLock() {
  pthread_rwlock_wrlock(&lock_);
}

void RWLock::unlock() {
  pthread_rwlock_unlock(&lock_);
}

}  // namespace Core
}  // namespace Lum
