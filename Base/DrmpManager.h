#pragma once

#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Base/ControlLoop.h"
#include "Base/DrmpDocument.h"
#include "Base/Manager.h"
#include "Platform/Http.h"
#include "Platform/LumJson.h"
#include "Platform/Thread.h"
#include "Platform/TimedSem.h"

namespace Lum {
namespace Core {
class CoreConfig;
class PersistentValues;
class ProductIdentity;
}  // namespace Core

namespace Drmp {

class DrmpConfig;
class DrmpStore;

// Keeps the device's named objects as the back end lists them. A check
// fetches the signed list ("drmp/objects"), downloads every object that is
// new or changed, verifies and installs it (DrmpStore), deletes what is no
// longer listed and reports the outcome ("drmp/report").
//
// A check runs once the device is registered after a start, when the host
// asks (LumCheckForDrmpUpdate) and on the configured schedule; after a
// transport failure or a 5xx it runs again after the retry delay, a limited
// number of times. Each call of a check is one round of "DrmpControl" on the
// common control loop.
//
// Everything below is guarded by the core mutex (CoreManager::getMutex),
// which DrmpControl releases while it waits, while HTTP runs and while it
// writes objects; the store is touched only by DrmpControl and by
// terminateEnd after it has joined.
class DrmpManager : public Core::Manager, private Core::ControlCycle {
 public:
  enum MicroService { GetObjects = 0, GetObject = 1, PostReport = 2 };

  static DrmpManager* Instance();

  void initialize(const Core::ManagerContext& context) REQUIRES(Core::CoreMutex()) override;
  void cascadeStateChanges() REQUIRES(Core::CoreMutex()) override;
  void terminateBegin() REQUIRES(Core::CoreMutex()) override;
  void terminateEnd() EXCLUDES(Core::CoreMutex()) override;
  const char* waitName() const override { return "DRMP"; }

  // Behind LumCheckForDrmpUpdate; takes the core mutex. A check already
  // running is followed by another one.
  unsigned checkForDrmpUpdate() EXCLUDES(Core::CoreMutex());

  static const char* MicroServiceToString(int microService);

 private:
  enum Phase { Idle, Listing, Fetching, Reporting };

  DrmpManager();

  // ControlCycle, run by DrmpControl.
  Step nextStep(timespec& deadline) REQUIRES(Core::CoreMutex()) override;
  std::string nextCallName() REQUIRES(Core::CoreMutex()) override;
  void prepMicroService(Core::Http::Request& request) REQUIRES(Core::CoreMutex()) override;
  void prepResponse(Core::Http::Response& response) REQUIRES(Core::CoreMutex()) override;
  void postMicroService(Core::Http::Response& response) REQUIRES(Core::CoreMutex()) override;
  void waitStarted() REQUIRES(Core::CoreMutex()) override { waiting_ = true; }
  void waitEnded(WaitOutcome /*outcome*/) REQUIRES(Core::CoreMutex()) override { waiting_ = false; }

  static void* DrmpControl(void* arg);
  bool isTerminating() const REQUIRES(Core::CoreMutex());
  bool registered() const REQUIRES(Core::CoreMutex());
  MicroService currentCall() const REQUIRES(Core::CoreMutex());
  // Skips objects that cannot be fetched (no room); false when none is left.
  bool nextObjectToFetch() REQUIRES(Core::CoreMutex());
  void takeList(const Core::Http::Response& response) REQUIRES(Core::CoreMutex());
  void planRound(const std::vector<DrmpEntry>& entries, const std::vector<DrmpRefusal>& refused)
      REQUIRES(Core::CoreMutex());
  void takeObject(const Core::Http::Response& response) REQUIRES(Core::CoreMutex());
  void deleteUnlisted() REQUIRES(Core::CoreMutex());
  void endRound() REQUIRES(Core::CoreMutex());
  void resetRound() REQUIRES(Core::CoreMutex());
  void fail(const std::string& name, const std::string& reason) REQUIRES(Core::CoreMutex());
  void handleFailure(const Core::Http::Response& response) REQUIRES(Core::CoreMutex());
  std::string buildReport() const REQUIRES(Core::CoreMutex());

  std::unique_ptr<DrmpConfig> config_ GUARDED_BY(Core::CoreMutex());
  std::unique_ptr<DrmpStore> store_;
  Core::CoreConfig* coreConfig_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;        // not owned
  Core::ProductIdentity* identity_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;     // not owned
  Core::PersistentValues* persistent_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;  // not owned

  bool terminating_ GUARDED_BY(Core::CoreMutex()) = false;
  bool waiting_ GUARDED_BY(Core::CoreMutex()) = false;
  bool waitingForToken_ GUARDED_BY(Core::CoreMutex()) = false;  // the wait is for a GID token
  bool checkRequested_ GUARDED_BY(Core::CoreMutex()) = false;
  Phase phase_ GUARDED_BY(Core::CoreMutex()) = Idle;
  MicroService prepared_ GUARDED_BY(Core::CoreMutex()) = GetObjects;  // the call prepared last
  timespec nextCheck_ GUARDED_BY(Core::CoreMutex()){};                // monotonic
  unsigned retries_ GUARDED_BY(Core::CoreMutex()) = 0;
  bool retryWanted_ GUARDED_BY(Core::CoreMutex()) =
      false;  // this round met a failure worth repeating

  // The round in progress.
  std::vector<DrmpEntry> toFetch_ GUARDED_BY(Core::CoreMutex());
  size_t fetchIndex_ GUARDED_BY(Core::CoreMutex()) = 0;
  std::set<std::string> listed_ GUARDED_BY(Core::CoreMutex());
  LumJson::Value installedReport_ GUARDED_BY(Core::CoreMutex()){LumJson::arrayValue};
  LumJson::Value deletedReport_ GUARDED_BY(Core::CoreMutex()){LumJson::arrayValue};
  LumJson::Value failedReport_ GUARDED_BY(Core::CoreMutex()){LumJson::arrayValue};
  LumJson::Value keptReport_ GUARDED_BY(Core::CoreMutex()){LumJson::arrayValue};
  // The body of the answer being received, sized to its limit.
  std::vector<uint8_t> body_;

  Core::TimedSem sem_;  // bound to the core mutex
  Core::Thread thread_;
};

}  // namespace Drmp
}  // namespace Lum
