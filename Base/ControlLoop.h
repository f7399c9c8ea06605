#pragma once

#include <atomic>
#include <ctime>
#include <string>

#include "Platform/Http.h"

namespace Lum {
namespace Core {

class Mutex;
class TimedSem;

// One manager's scheduled conversation with the back end, as seen by its
// control thread. Every function is called with the owner's mutex held.
class ControlCycle {
 public:
  enum class Wait { None, Until, Forever };

  virtual ~ControlCycle() = default;
  // True once the thread must leave its loop.
  virtual bool stopping() = 0;
  // How long to wait before the next call: not at all, until `deadline`
  // (absolute, monotonic), or until woken.
  virtual Wait nextWait(timespec& deadline) = 0;
  // Name of the call about to run, for the log.
  virtual std::string nextCallName() = 0;
  virtual void prepMicroService(Http::Request& request) = 0;
  virtual void postMicroService(Http::Response& response) = 0;
  // Told when the thread starts and ends a wait, so that the owner resets
  // the semaphore only for a thread that is actually asleep on it.
  virtual void setWaiting(bool /*waiting*/) {}
  // Whether the delay line names the call that follows the wait.
  virtual bool delayNamesCall() const { return true; }
};

// The body of every manager's control thread: sleep on the manager's timed
// semaphore until the next scheduled call or an early wake, prepare the
// request under the mutex, perform it with the mutex released, and hand the
// answer back under the mutex. Written once so that the core, data
// services, support view and software update threads behave alike.
class ControlLoop {
 public:
  // Every transfer ends early once `cancel` is set (the agent stopping).
  static void Run(const char* name, int service, Mutex& mutex, TimedSem& delaySem,
                  ControlCycle& cycle, const std::atomic<bool>& cancel);

 private:
  // One wait or one call; called and returning with the mutex held.
  static void runOnce(const char* name, int service, Mutex& mutex, TimedSem& delaySem,
                      ControlCycle& cycle, const std::atomic<bool>& cancel);
  static void logDelay(const char* name, int service, long long ms, ControlCycle& cycle);
};

}  // namespace Core
}  // namespace Lum
