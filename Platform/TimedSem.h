#pragma once

#include <pthread.h>
#include <time.h>

#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// The wake-up signal of a manager's state-control thread: the thread sleeps in
// wait() until its next scheduled deadline or until another thread calls
// reset(). Deadlines are absolute CLOCK_MONOTONIC times, so changes of the
// wall clock neither shorten nor stretch a wait.
//
// The semaphore shares the owner's mutex and never owns it; reset() and wait()
// need the caller to hold it (not stated as REQUIRES: the analysis cannot tell
// that mutex_ is the owner's mutex under another name). The signal is a
// single flag: two resets before a wait wake it once.
class TimedSem {
 public:
  explicit TimedSem(Mutex& mutex);
  ~TimedSem();
  TimedSem(const TimedSem&) = delete;
  TimedSem& operator=(const TimedSem&) = delete;

  // Posts the signal, waking a waiter (or the next wait()).
  void reset();
  // Drops a posted signal that no wait() has taken, without releasing the
  // mutex as a wait would: an owner starting afresh must not be woken by a
  // wake meant for its previous run.
  void clear() { signalled_ = false; }
  // Waits for the signal until `deadline` (null: without limit) and consumes
  // it. Returns true when the deadline passed without a signal.
  bool wait(const struct timespec* deadline);

 private:
  bool waitOnce(const struct timespec* deadline);

  Mutex& mutex_;         // the owner's mutex; the reference never changes
  bool signalled_;       // guarded by mutex_
  pthread_cond_t cond_;  // on CLOCK_MONOTONIC; waited on and signalled with mutex_ held
};

}  // namespace Core
}  // namespace Lum
