#include "Platform/TimedSem.h"

#include <errno.h>
#include <unistd.h>

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/TimedSem");

namespace Lum {
namespace Core {

TimedSem::TimedSem(Mutex& mutex) : mutex_(mutex), signalled_(false) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&cond_, &attr);
  pthread_condattr_destroy(&attr);
}

TimedSem::~TimedSem() {
  pthread_cond_destroy(&cond_);
}

void TimedSem::reset() {
  pthread_cond_signal(&cond_);
  signalled_ = true;
}

bool TimedSem::wait(const struct timespec* deadline) {
  // Spurious wake-ups are absorbed: only the flag ends a wait early.
  while (!signalled_) {
    if (waitOnce(deadline)) {
      signalled_ = false;
      return true;
    }
  }
  signalled_ = false;
  return false;
}

// One condition wait; true when it timed out.
bool TimedSem::waitOnce(const struct timespec* deadline) {
  const int result = deadline == nullptr
                         ? pthread_cond_wait(&cond_, mutex_.native())
                         : pthread_cond_timedwait(&cond_, mutex_.native(), deadline);
  if (result == ETIMEDOUT) {
    return true;
  }
  if (result != 0) {
    // A broken wait (a bad deadline, for instance) would otherwise hang the
    // owner's thread or make it spin; count it as a signal after a pause so the
    // thread goes round its loop at most once a second.
    signalled_ = true;
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
            FilterProperties::SEVERITY_ERROR, "TimedSem Problem: %d %d.%09ds", result,
            deadline != nullptr ? static_cast<int>(deadline->tv_sec) : 0,
            deadline != nullptr ? static_cast<int>(deadline->tv_nsec) : 0);
    sleep(1);
  }
  return false;
}

}  // namespace Core
}  // namespace Lum
