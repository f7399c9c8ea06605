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

void ControlLoop::Run(const ControlTexts& texts, int service, Mutex& mutex, TimedSem& delaySem,
                      ControlCycle& cycle, const std::atomic<bool>& cancel) {
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s started", texts.name);
  LockMutex lock(&mutex);
  bool running = true;
  while (running) {
    if (!ExceptionBarrier::Run(texts.name, [&]() REQUIRES(mutex) {
          running = runOnce(texts, service, mutex, delaySem, cycle, cancel);
        })) {
      // Whatever threw (a hostile answer, an exhausted heap) may throw again
      // at once; a pause that termination can cut short keeps that from
      // becoming a busy loop, and the next round starts from a fresh
      // evaluation.
      const timespec pause = AddMilliseconds(Clock::MonotonicNow(), kPauseAfterFailureMs);
      delaySem.wait(&pause);
    }
  }
  if (Http::Request* kept = cycle.keptRequest()) {
    Http::Cleanup(*kept);
  }
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s terminated", texts.name);
}

bool ControlLoop::runOnce(const ControlTexts& texts, int service, Mutex& mutex, TimedSem& delaySem,
                          ControlCycle& cycle, const std::atomic<bool>& cancel) {
  timespec deadline{};
  switch (cycle.nextStep(deadline)) {
    case ControlCycle::Step::Stop:
      return false;
    case ControlCycle::Step::WaitForever:
      waitForever(texts, service, delaySem, cycle);
      return true;
    case ControlCycle::Step::WaitUntil: {
      const long long remainingMs = DiffMilliseconds(deadline, Clock::MonotonicNow());
      if (remainingMs > 0) {
        waitUntil(texts, service, delaySem, cycle, deadline, remainingMs);
        // Woken or timed out: the schedule may have changed meanwhile, so it
        // is evaluated afresh (and the stop condition first).
        return true;
      }
      if (texts.skipsPassedDelay) {
        LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s skipping delay", texts.name);
        cycle.waitEnded(ControlCycle::WaitOutcome::Skipped);
        return true;
      }
      break;
    }
    case ControlCycle::Step::Call:
      if (texts.logsNotDelaying) {
        LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s not delaying", texts.name);
      }
      break;
  }
  call(texts, service, mutex, cycle, cancel);
  return true;
}

void ControlLoop::waitUntil(const ControlTexts& texts, int service, TimedSem& delaySem,
                            ControlCycle& cycle, const timespec& deadline, long long remainingMs) {
  const int seconds = static_cast<int>(remainingMs / 1000);
  const int millis = static_cast<int>(remainingMs % 1000);
  if (texts.delayNamesCall) {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
            "%s delaying %i.%03i seconds before running %s", texts.name, seconds, millis,
            cycle.nextCallName().c_str());
  } else {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delaying %i.%03i seconds",
            texts.name, seconds, millis);
  }
  cycle.waitStarted();
  const bool timedOut = delaySem.wait(&deadline);
  if (timedOut) {
    if (texts.logsDelayed) {
      LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delayed", texts.name);
    }
  } else {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delay was previously reset",
            texts.name);
  }
  cycle.waitEnded(timedOut ? ControlCycle::WaitOutcome::TimedOut
                           : ControlCycle::WaitOutcome::Woken);
}

void ControlLoop::waitForever(const ControlTexts& texts, int service, TimedSem& delaySem,
                              ControlCycle& cycle) {
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s delaying indefinitely", texts.name);
  cycle.waitStarted();
  delaySem.wait(nullptr);
  if (texts.indefiniteWaitEnded != nullptr) {
    LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s %s", texts.name,
            texts.indefiniteWaitEnded);
  }
  cycle.waitEnded(ControlCycle::WaitOutcome::Woken);
}

void ControlLoop::call(const ControlTexts& texts, int service, Mutex& mutex, ControlCycle& cycle,
                       const std::atomic<bool>& cancel) {
  LUM_LOG(service, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s calling %s%s", texts.name,
          cycle.nextCallName().c_str(), texts.callSuffix);
  Http::Request fresh;
  Http::Request* request = cycle.keptRequest();
  if (request != nullptr) {
    // Only the connection outlives a call: everything else is filled anew.
    CURL* const connection = request->handle;
    *request = Http::Request();
    request->handle = connection;
  } else {
    request = &fresh;
  }
  Http::Response response;
  cycle.prepMicroService(*request);
  cycle.prepResponse(response);
  request->cancel = cycle.cancelFlag(cancel);
  {
    UnlockMutex unlocked(mutex);
    cycle.perform(*request, response);
  }
  cycle.postMicroService(response);
}

}  // namespace Core
}  // namespace Lum
