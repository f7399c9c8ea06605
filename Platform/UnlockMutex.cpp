#include "Platform/UnlockMutex.h"

namespace Lum {
namespace Core {

UnlockMutex::UnlockMutex(Mutex& mutex) : mutex_(mutex) {
  mutex_.unlock();
}

UnlockMutex::~UnlockMutex() {
  mutex_.lock();
}

}  // namespace Core
}  // namespace Lum
