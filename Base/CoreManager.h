#pragma once

#include <lum.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Base/ControlLoop.h"
#include "Base/CoreMicroService.h"
#include "Base/Manager.h"
#include "Platform/BinarySem.h"
#include "Platform/FilterProperties.h"
#include "Platform/Http.h"
#include "Platform/LumJson.h"
#include "Platform/Mutex.h"
#include "Platform/Thread.h"
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

  unsigned initialize(const char* identity, const char* config, const char* device);
  unsigned terminate(bool factoryReset);
  unsigned getStatus(LumStatusMethod method, LumStatus* status);
  unsigned freeStatus(LumStatus* status);
  unsigned enableTestMode();
  unsigned checkForSoftwareUpdate();
  unsigned supervisorLog(int severity, const std::string& text);

  // Called by other managers with the mutex held.
  void setNotSynchronized();
  void retireGidToken();
  void evaluateStateChanges();
  void signalStatusChange();

  Mutex& getMutex() { return mutex_; }
  DeviceAgentState getDeviceAgentState() const { return state_; }
  // Whether the managers store their files as they stop: only on a plain
  // termination, not on a factory reset and not when a failed start is
  // undone (the files must stay as that start found them).
  bool storesOnStop() const { return state_ == Terminating && !abandoning_; }
  // Set from the moment the agent starts to stop; every transfer of the
  // agent's threads ends when it is set.
  const std::atomic<bool>& transfersCancelled() const { return transfersCancelled_; }
  ProductIdentity* getCoreIdentityPtr() { return identity_.get(); }
  CoreConfig* getCoreConfigPtr() { return config_.get(); }
  DeviceValues* getCoreDevicePtr() { return device_.get(); }
  PersistentValues* getCorePersistentPtr() { return persistent_.get(); }

  // Request decorators shared by every manager's request cycle.
  static void setRequestHeaderDate(Http::Request& request);
  static void setRequestHeaderAcceptJson(Http::Request& request);
  static void setRequestHeaderContentTypeJson(Http::Request& request);
  void setRequestHeaderAuthorizedGid(Http::Request& request);
  void setRequestIdentity(Http::Request& request);

  // out := base + fixedMs, or + fixedMs + (random mod variedMs) + 1 ms; never
  // less than 100 ms after base.
  static void updateTimestamp(const timespec& base, timespec& out, unsigned fixedMs,
                              unsigned variedMs);

  static const char* DeviceAgentStateToString(int state);

  void logStateDebug();
  void logStateInfo();
  void logStatusInfo();

 private:
  CoreManager();

  // ControlCycle: the core's request cycle, run by StateControl.
  Step nextStep(timespec& deadline) override;
  std::string nextCallName() override;
  void prepMicroService(Http::Request& request) override;
  void postMicroService(Http::Response& response) override;

  static void* StateControl(void* arg);
  static void* TerminateThread(void* arg);
  // Builds the core values and starts every manager; may throw, and then
  // initialize undoes what it did.
  void startAgent(const char* identity, const char* config, const char* device);
  // Wakes every thread and tells every manager to stop; with the mutex held.
  void beginTermination();
  // Joins the managers' threads and releases the core values; without the
  // mutex. On the terminate thread it leaves the final step to
  // reapTermination.
  void runTermination(bool onTerminateThread);
  void storeOrDropCoreFiles();
  // Once the terminate thread has finished, joins it and reports state 0.
  // Called with the mutex held by every host call that reads the state.
  void reapTermination();
  // What a host call that needs a running agent answers (1 before a start,
  // 3 while stopping), or 0 when it runs; reaps first. With the mutex held.
  unsigned refusalUnlessRunning();

  // The call to run next; `holdBack` when it must wait a poll delay even
  // though it is not a poll.
  MicroService chooseNextCall(bool& holdBack);
  void scheduleNextCall(MicroService call, bool holdBack);
  // False when a registration or state answer is of no use (not a JSON
  // object, no token).
  bool getResponseBody(MicroService ms, const std::string& body);
  void readSynchronizeAnswer(const LumJson::Value& answer);
  void queueEvents(const LumJson::Value& events);
  std::string buildRequestBody(MicroService ms);
  void loadTimeFile();
  void storeTimeFile();
  void releaseCoreValues();
  void fillStatus(LumStatus* status);
  void logManagersStatus(Manager::StatusSection section);
  void registerManagers();
  bool isTerminating() const { return state_ == Terminating || state_ == FactoryResetting; }

  const std::string timeFileName_ = "daTime";
  const std::string swVersionFileName_ = "swVersion";
  Mutex mutex_;
  DeviceAgentState state_ = Uninitialized;
  std::unique_ptr<CoreConfig> config_;
  std::unique_ptr<ProductIdentity> identity_;
  std::unique_ptr<DeviceValues> device_;
  std::unique_ptr<PersistentValues> persistent_;
  std::unique_ptr<VolatileValues> volatile_;
  std::unique_ptr<TimedSem> delaySem_;
  BinarySem statusSem_;
  // Joinable, unlike the other threads it outlives the core values; joined
  // by reapTermination once terminationDone_ is set.
  Thread terminateThread_;
  bool terminationDone_ = false;
  // A failed start is being undone.
  bool abandoning_ = false;
  // "daTime" was read at start, so storing it at the end loses nothing.
  bool timeFileLoaded_ = false;
  // Read by the HTTP transfers of every manager's thread without the mutex.
  std::atomic<bool> transfersCancelled_{false};
  // The managers in start order (events first); the core starts, cascades
  // to, asks for status and stops them.
  std::vector<Manager*> managers_;
};

}  // namespace Core
}  // namespace Lum
