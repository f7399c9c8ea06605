#include "Platform/LockWrite.h"

namespace Lum {
namespace Core {

LockWrite::LockWrite(RWLock* lock) : lock_(lock) {
  lock_->writeLock();
}

LockWrite::~LockWrite() {
  lock_->unlock();
}

}  // namespace Core
}  // namespace Lum
