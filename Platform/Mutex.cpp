#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

Mutex::Mutex() { pthread_mutex_init(&mutex_, nullptr); }

Mutex::~Mutex() { pthread_mutex_destroy(&mutex_); }

void Mutex::lock() { pthread_mutex_lock(&mutex_); }

void Mutex::unlock() { pthread_mutex_unlock(&mutex_); }

}  // namespace Core
}  // namespace Lum
