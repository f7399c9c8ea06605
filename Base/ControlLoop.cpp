#include "Base/ControlLoop.h"

#include "Platform/Clock.h"
#include "Platform/Logger.h"
#include "Platform/Mutex.h"
#include "Platform/TimedSem.h"

LUM_SOURCE_FILE("Base/ControlLoop");

namespace Lum {
namespace Core {

using FP = FilterProperties;

void ControlLoop::Run(const char* name, int service, Mutex& mutex, TimedSem& delaySem,
                      ControlCycle& cycle) {
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s started", name);
  mutex.lock();
  while (!cycle.stopping()) {
    timespec deadline{};
    const ControlCycle::Wait wait = cycle.nextWait(deadline);
    if (wait == ControlCycle::Wait::Forever) {
      LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delaying indefinitely", name);
      delaySem.wait(nullptr);
      continue;
    }
    const timespec now = Clock::MonotonicNow();
    if (wait == ControlCycle::Wait::Until && IsBefore(now, deadline)) {
      const long long ms = DiffMilliseconds(deadline, now);
      LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
              "%s delaying %i.%03i seconds before running %s", name, static_cast<int>(ms / 1000),
              static_cast<int>(ms % 1000), cycle.nextCallName().c_str());
      if (!delaySem.wait(&deadline)) {
        LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delay was previously reset",
                name);
      }
      // Woken or timed out: the schedule may have changed meanwhile, so it is
      // evaluated afresh (and the stop condition first).
      continue;
    }
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s calling %s", name,
            cycle.nextCallName().c_str());
    Http::Request request;
    Http::Response response;
    cycle.prepMicroService(request);
    mutex.unlock();
    Http::Perform(request, response);
    mutex.lock();
    cycle.postMicroService(response);
  }
  mutex.unlock();
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s terminated", name);
}

}  // namespace Core
}  // namespace Lum
