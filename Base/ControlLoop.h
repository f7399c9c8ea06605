#pragma once

#include <atomic>
#include <ctime>
#include <string>

#include "Platform/Http.h"
#include "Platform/Mutex.h"
#include "Platform/ThreadSafety.h"

namespace Lum {
namespace Core {

class TimedSem;

// What one control thread writes to the log. Every line starts with the
// thread's name; the variations are those the threads really differ in.
struct ControlTexts {
  const char* name;  // the thread's name, e.g. "StateControl"
  // "%s calling %s" is followed by this (e.g. " (long poll)").
  const char* callSuffix = "";
  // "%s delaying %i.%03i seconds" names the call that follows the wait.
  bool delayNamesCall = false;
  // "%s not delaying" before a call made without a wait.
  bool logsNotDelaying = false;
  // "%s skipping delay" when a wait's deadline has already passed; the
  // round then ends and the cycle is told (ControlCycle::Skipped). Without
  // it the call follows in the same round.
  bool skipsPassedDelay = false;
  // "%s delayed" after a wait that ran out.
  bool logsDelayed = false;
  // After a wait without deadline ends, "%s " followed by this; null logs
  // nothing.
  const char* indefiniteWaitEnded = nullptr;
};

// One manager's scheduled conversation with the back end, as seen by one of
// its control threads. Every function is called with the owner's mutex
// held; the loop only knows that mutex as a parameter, so the overrides say
// REQUIRES on it themselves.
class ControlCycle {
 public:
  enum class Step { Stop, Call, WaitUntil, WaitForever };
  enum class WaitOutcome { Skipped, TimedOut, Woken };

  virtual ~ControlCycle() = default;

  // What to do next: leave the loop, call at once, wait until `deadline`
  // (absolute, monotonic) and then decide again, or wait until woken.
  virtual Step nextStep(timespec& deadline) = 0;
  // Name of the call about to run, for the log.
  virtual std::string nextCallName() = 0;
  virtual void prepMicroService(Http::Request& request) = 0;
  virtual void postMicroService(Http::Response& response) = 0;
  // Where the answer's body goes and how much of it is taken (a buffer and
  // its limit); by default all of it into `body`.
  virtual void prepResponse(Http::Response& /*response*/) {}
  // The call itself, run with the mutex released. A cycle whose work is not
  // (only) a network call, copying from a local file say, does it here.
  virtual void perform(Http::Request& request, Http::Response& response) {
    Http::Perform(request, response);
  }
  // Told when the thread starts and ends a wait, so that the owner resets
  // the semaphore only for a thread that is actually asleep on it, and
  // learns whether the wait ran its course or was cut short.
  virtual void waitStarted() {}
  virtual void waitEnded(WaitOutcome /*outcome*/) {}
  // A request the cycle keeps between calls, so that its connection stays
  // open (a long poll). Null: a fresh request for every call. The cycle may
  // release its connection (Http::Cleanup) whenever it is asked for a step;
  // the loop releases it when the thread ends.
  virtual Http::Request* keptRequest() { return nullptr; }
  // The flag that cuts this cycle's transfers short; by default the agent's
  // own stop. A call that must still go out while the agent stops (closing
  // a session) answers with a flag of its own.
  virtual const std::atomic<bool>* cancelFlag(const std::atomic<bool>& agentStopping) {
    return &agentStopping;
  }
};

// The body of every manager's control thread: ask the cycle for the next
// step, sleep on the manager's timed semaphore until the next scheduled call
// or an early wake, prepare the request under the mutex, perform it with the
// mutex released, and hand the answer back under the mutex. Written once so
// that the core, data services, support view and software update threads
// behave alike.
class ControlLoop {
 public:
  // Every transfer ends early once `cancel` is set (the agent stopping),
  // unless the cycle names a flag of its own for it.
  static void Run(const ControlTexts& texts, int service, Mutex& mutex, TimedSem& delaySem,
                  ControlCycle& cycle, const std::atomic<bool>& cancel) EXCLUDES(mutex);

 private:
  // One wait or one call; called and returning with the mutex held. False
  // once the cycle says stop.
  static bool runOnce(const ControlTexts& texts, int service, Mutex& mutex, TimedSem& delaySem,
                      ControlCycle& cycle, const std::atomic<bool>& cancel) REQUIRES(mutex);
  static void waitUntil(const ControlTexts& texts, int service, TimedSem& delaySem,
                        ControlCycle& cycle, const timespec& deadline, long long remainingMs);
  static void waitForever(const ControlTexts& texts, int service, TimedSem& delaySem,
                          ControlCycle& cycle);
  static void call(const ControlTexts& texts, int service, Mutex& mutex, ControlCycle& cycle,
                   const std::atomic<bool>& cancel) REQUIRES(mutex);
};

}  // namespace Core
}  // namespace Lum
