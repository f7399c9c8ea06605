#pragma once

#include <lum.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Base/ControlLoop.h"
#include "Base/CoreMicroService.h"
#include "Base/CoreMutex.h"
#include "Base/Manager.h"
#include "Platform/BinarySem.h"
#include "Platform/FilterProperties.h"
#include "Platform/Http.h"
#include "Platform/LumJson.h"
#include "Platform/Mutex.h"
#include "Platform/Thread.h"
#include "Platform/ThreadSafety.h"
#include "Platform/TimedSem.h"

namespace Lum {
namespace Core {

class CoreConfig;
class DeviceValues;
class PersistentValues;
class ProductIdentity;
class VolatileValues;

enum DeviceAgentState { Uninitialized = 0, Initialized = 1, Terminating = 2, FactoryResetting = 3 };

// Owns the agent's lifecycle and its registration with the back end: it
// builds the core value objects at start, keeps the device synchronised
// through "StateControl", starts and stops every other manager, and fills
// the host's status record.
//
// Everything below is guarded by mutex_ (the core mutex, which every manager
// shares); StateControl releases it only while it waits and while HTTP runs.
class CoreManager : private ControlCycle {
 public:
  static CoreManager* Instance();

  unsigned initialize(const char* identity, const char* config, const char* device)
      EXCLUDES(CoreMutex());
  unsigned terminate(bool factoryReset) EXCLUDES(CoreMutex());
  unsigned getStatus(LumStatusMethod method, LumStatus* status) EXCLUDES(CoreMutex());
  unsigned freeStatus(LumStatus* status) EXCLUDES(CoreMutex());
  unsigned enableTestMode() EXCLUDES(CoreMutex());
  unsigned checkForSoftwareUpdate() EXCLUDES(CoreMutex());
  unsigned supervisorLog(int severity, const std::string& text) EXCLUDES(CoreMutex());

  // Called by other managers with the mutex held.
  void setNotSynchronized() REQUIRES(CoreMutex());
  void retireGidToken() REQUIRES(CoreMutex());
  void evaluateStateChanges() REQUIRES(CoreMutex());
  void signalStatusChange() REQUIRES(CoreMutex());

  Mutex& getMutex() RETURN_CAPABILITY(CoreMutex()) { return mutex_; }
  DeviceAgentState getDeviceAgentState() const REQUIRES(CoreMutex()) { return state_; }
  // Whether the managers store their files as they stop: only on a plain
  // termination, not on a factory reset and not when a failed start is
  // undone (the files must stay as that start found them).
  bool storesOnStop() const REQUIRES(CoreMutex()) { return state_ == Terminating && !abandoning_; }
  // Set from the moment the agent starts to stop; every transfer of the
  // agent's threads ends when it is set.
  const std::atomic<bool>& transfersCancelled() const { return transfersCancelled_; }
  ProductIdentity* getCoreIdentityPtr() REQUIRES(CoreMutex()) { return identity_.get(); }
  CoreConfig* getCoreConfigPtr() REQUIRES(CoreMutex()) { return config_.get(); }
  DeviceValues* getCoreDevicePtr() REQUIRES(CoreMutex()) { return device_.get(); }
  PersistentValues* getCorePersistentPtr() REQUIRES(CoreMutex()) { return persistent_.get(); }

  // Request decorators shared by every manager's request cycle.
  static void setRequestHeaderDate(Http::Request& request);
  static void setRequestHeaderAcceptJson(Http::Request& request);
  static void setRequestHeaderContentTypeJson(Http::Request& request);
  void setRequestHeaderAuthorizedGid(Http::Request& request) REQUIRES(CoreMutex());
  void setRequestIdentity(Http::Request& request) REQUIRES(CoreMutex());

  // out := base + fixedMs, or + fixedMs + (random mod variedMs) + 1 ms; never
  // less than 100 ms after base.
  static void updateTimestamp(const timespec& base, timespec& out, unsigned fixedMs,
                              unsigned variedMs);

  static const char* DeviceAgentStateToString(int state);

  void logStateDebug() REQUIRES(CoreMutex());
  void logStateInfo() REQUIRES(CoreMutex());
  void logStatusInfo() REQUIRES(CoreMutex());

 private:
  CoreManager();

  // ControlCycle: the core's request cycle, run by StateControl.
  Step nextStep(timespec& deadline) REQUIRES(CoreMutex()) override;
  std::string nextCallName() REQUIRES(CoreMutex()) override;
  void prepMicroService(Http::Request& request) REQUIRES(CoreMutex()) override;
  void postMicroService(Http::Response& response) REQUIRES(CoreMutex()) override;

  static void* StateControl(void* arg);
  static void* TerminateThread(void* arg);
  // Builds the core values and starts every manager; may throw, and then
  // initialize undoes what it did.
  void startAgent(const char* identity, const char* config, const char* device)
      REQUIRES(CoreMutex());
  // Wakes every thread and tells every manager to stop; with the mutex held.
  void beginTermination() REQUIRES(CoreMutex());
  // Joins the managers' threads and releases the core values; without the
  // mutex. On the terminate thread it leaves the final step to
  // reapTermination.
  void runTermination(bool onTerminateThread) EXCLUDES(CoreMutex());
  void storeOrDropCoreFiles() REQUIRES(CoreMutex());
  // Once the terminate thread has finished, joins it and reports state 0.
  // Called with the mutex held by every host call that reads the state.
  void reapTermination() REQUIRES(CoreMutex());
  // What a host call that needs a running agent answers (1 before a start,
  // 3 while stopping), or 0 when it runs; reaps first. With the mutex held.
  unsigned refusalUnlessRunning() REQUIRES(CoreMutex());

  // The call to run next; `holdBack` when it must wait a poll delay even
  // though it is not a poll.
  MicroService chooseNextCall(bool& holdBack) REQUIRES(CoreMutex());
  void scheduleNextCall(MicroService call, bool holdBack) REQUIRES(CoreMutex());
  // False when a registration or state answer is of no use (not a JSON
  // object, no token).
  bool getResponseBody(MicroService ms, const std::string& body) REQUIRES(CoreMutex());
  void readSynchronizeAnswer(const LumJson::Value& answer) REQUIRES(CoreMutex());
  void queueEvents(const LumJson::Value& events) REQUIRES(CoreMutex());
  std::string buildRequestBody(MicroService ms) REQUIRES(CoreMutex());
  void loadTimeFile() REQUIRES(CoreMutex());
  void storeTimeFile() REQUIRES(CoreMutex());
  void releaseCoreValues() REQUIRES(CoreMutex());
  void fillStatus(LumStatus* status) REQUIRES(CoreMutex());
  void logManagersStatus(Manager::StatusSection section) REQUIRES(CoreMutex());
  void registerManagers() REQUIRES(CoreMutex());
  bool isTerminating() const REQUIRES(CoreMutex()) {
    return state_ == Terminating || state_ == FactoryResetting;
  }

  const std::string timeFileName_ = "daTime";
  const std::string swVersionFileName_ = "swVersion";
  Mutex mutex_;
  DeviceAgentState state_ GUARDED_BY(CoreMutex()) = Uninitialized;
  std::unique_ptr<CoreConfig> config_ GUARDED_BY(CoreMutex());
  std::unique_ptr<ProductIdentity> identity_ GUARDED_BY(CoreMutex());
  std::unique_ptr<DeviceValues> device_ GUARDED_BY(CoreMutex());
  std::unique_ptr<PersistentValues> persistent_ GUARDED_BY(CoreMutex());
  std::unique_ptr<VolatileValues> volatile_ GUARDED_BY(CoreMutex());
  std::unique_ptr<TimedSem> delaySem_;
  BinarySem statusSem_;
  // Joinable, unlike the other threads it outlives the core values; joined
  // by reapTermination once terminationDone_ is set.
  Thread terminateThread_;
  bool terminationDone_ GUARDED_BY(CoreMutex()) = false;
  // A failed start is being undone.
  bool abandoning_ GUARDED_BY(CoreMutex()) = false;
  // "daTime" was read at start, so storing it at the end loses nothing.
  bool timeFileLoaded_ GUARDED_BY(CoreMutex()) = false;
  // Read by the HTTP transfers of every manager's thread without the mutex.
  std::atomic<bool> transfersCancelled_{false};
  // The managers in start order (events first); the core starts, cascades
  // to, asks for status and stops them.
  std::vector<Manager*> managers_;
};

}  // namespace Core
}  // namespace Lum
