#include "Platform/LockMutex.h"

namespace Lum {
namespace Core {

LockMutex::LockMutex(Mutex* mutex) : mutex_(mutex) { mutex_->lock(); }

LockMutex::~LockMutex() { mutex_->unlock(); }

}  // namespace Core
}  // namespace Lum
