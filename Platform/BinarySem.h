#pragma once

#include <pthread.h>

#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// A single-token semaphore built on a condition variable and a mutex that the
// owner shares with it, so that giving the token and changing the owner's
// state happen under one lock. The semaphore never owns the mutex. The
// *Locked operations need the caller to hold it; the *Unlocked ones take it.
// The analysis cannot tell that mutex_ is the owner's mutex under another
// name, so the *Locked operations carry no REQUIRES; the owners' own
// annotations cover the state that goes with the token.
class BinarySem {
 public:
  BinarySem(bool available, Mutex& mutex);
  ~BinarySem();
  BinarySem(const BinarySem&) = delete;
  BinarySem& operator=(const BinarySem&) = delete;

  void giveLocked();
  void giveUnlocked() EXCLUDES(mutex_);
  // Waits until the token is available and consumes it.
  void takeLocked();
  void takeUnlocked() EXCLUDES(mutex_);

 private:
  bool available_;       // guarded by mutex_
  Mutex& mutex_;         // the owner's mutex; the reference never changes
  pthread_cond_t cond_;  // waited on and signalled with mutex_ held
};

}  // namespace Core
}  // namespace Lum
