#include "Platform/BinarySem.h"

#include <unistd.h>

#include "Platform/LockMutex.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/BinarySem");

namespace Lum {
namespace Core {

BinarySem::BinarySem(bool available, Mutex& mutex) : available_(available), mutex_(mutex) {
  pthread_cond_init(&cond_, nullptr);
}

BinarySem::~BinarySem() {
  pthread_cond_destroy(&cond_);
}

void BinarySem::giveLocked() {
  available_ = true;
  pthread_cond_signal(&cond_);
}

void BinarySem::giveUnlocked() {
  LockMutex lock(&mutex_);
  giveLocked();
}

void BinarySem::takeLocked() {
  while (!available_) {
    const int result = pthread_cond_wait(&cond_, mutex_.native());
    if (result != 0) {
      // A broken wait would otherwise hang the caller or spin. Treat it as a
      // give after a pause: the caller goes on at most once a second.
      available_ = true;
      LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
              FilterProperties::SEVERITY_ERROR, "BinarySem Problem: %d", result);
      sleep(1);
    }
  }
  available_ = false;
}

void BinarySem::takeUnlocked() {
  LockMutex lock(&mutex_);
  takeLocked();
}

}  // namespace Core
}  // namespace Lum
