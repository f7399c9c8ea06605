#include "Platform/LockRead.h"

namespace Lum {
namespace Core {

LockRead::LockRead(RWLock* lock) : lock_(lock) {
  lock_->readLock();
}

LockRead::~LockRead() {
  lock_->unlock();
}

}  // namespace Core
}  // namespace Lum
