#include "Base/ControlLoop.h"

#include "Platform/Clock.h"
#include "Platform/ExceptionBarrier.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/Mutex.h"
#include "Platform/TimedSem.h"
#include "Platform/UnlockMutex.h"

LUM_SOURCE_FILE("Base/ControlLoop");

namespace Lum {
namespace Core {

using FP = FilterProperties;

namespace {
constexpr unsigned long long kPauseAfterFailureMs = 1000;
}  // namespace

void ControlLoop::logDelay(const char* name, int service, long long ms, ControlCycle& cycle) {
  const int seconds = static_cast<int>(ms / 1000);
  const int millis = static_cast<int>(ms % 1000);
  if (cycle.delayNamesCall()) {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
            "%s delaying %i.%03i seconds before running %s", name, seconds, millis,
            cycle.nextCallName().c_str());
  } else {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delaying %i.%03i seconds", name,
            seconds, millis);
  }
}

void ControlLoop::Run(const char* name, int service, Mutex& mutex, TimedSem& delaySem,
                      ControlCycle& cycle, const std::atomic<bool>& cancel) {
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s started", name);
  LockMutex lock(&mutex);
  while (!cycle.stopping()) {
    if (!ExceptionBarrier::Run(name,
                               [&] { runOnce(name, service, mutex, delaySem, cycle, cancel); })) {
      // Whatever threw (a hostile answer, an exhausted heap) may throw again
      // at once; a pause that termination can cut short keeps that from
      // becoming a busy loop, and the next round starts from a fresh
      // evaluation.
      const timespec pause = AddMilliseconds(Clock::MonotonicNow(), kPauseAfterFailureMs);
      delaySem.wait(&pause);
    }
  }
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s terminated", name);
}

void ControlLoop::runOnce(const char* name, int service, Mutex& mutex, TimedSem& delaySem,
                          ControlCycle& cycle, const std::atomic<bool>& cancel) {
  timespec deadline{};
  const ControlCycle::Wait wait = cycle.nextWait(deadline);
  if (wait == ControlCycle::Wait::Forever) {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delaying indefinitely", name);
    cycle.setWaiting(true);
    delaySem.wait(nullptr);
    cycle.setWaiting(false);
    return;
  }
  if (wait == ControlCycle::Wait::None) {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s not delaying", name);
  }
  const timespec now = Clock::MonotonicNow();
  if (wait == ControlCycle::Wait::Until && IsBefore(now, deadline)) {
    logDelay(name, service, DiffMilliseconds(deadline, now), cycle);
    cycle.setWaiting(true);
    const bool timedOut = delaySem.wait(&deadline);
    cycle.setWaiting(false);
    if (!timedOut) {
      LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delay was previously reset",
              name);
    }
    // Woken or timed out: the schedule may have changed meanwhile, so it is
    // evaluated afresh (and the stop condition first).
    return;
  }
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s calling %s", name,
          cycle.nextCallName().c_str());
  Http::Request request;
  Http::Response response;
  cycle.prepMicroService(request);
  request.cancel = &cancel;
  {
    UnlockMutex unlocked(mutex);
    Http::Perform(request, response);
  }
  cycle.postMicroService(response);
}

}  // namespace Core
}  // namespace Lum
