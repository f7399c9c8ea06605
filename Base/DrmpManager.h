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

  void initialize(const Core::ManagerContext& context) override;
  void cascadeStateChanges() override;
  void terminateBegin() override;
  void terminateEnd() override;
  const char* waitName() const override { return "DRMP"; }

  // Behind LumCheckForDrmpUpdate; takes the core mutex. A check already
  // running is followed by another one.
  unsigned checkForDrmpUpdate();

  static const char* MicroServiceToString(int microService);

 private:
  enum Phase { Idle, Listing, Fetching, Reporting };

  DrmpManager();

  // ControlCycle, run by DrmpControl.
  Step nextStep(timespec& deadline) override;
  std::string nextCallName() override;
  void prepMicroService(Core::Http::Request& request) override;
  void prepResponse(Core::Http::Response& response) override;
  void postMicroService(Core::Http::Response& response) override;
  void waitStarted() override { waiting_ = true; }
  void waitEnded(WaitOutcome /*outcome*/) override { waiting_ = false; }

  static void* DrmpControl(void* arg);
  bool isTerminating() const;
  bool registered() const;
  MicroService currentCall() const;
  // Skips objects that cannot be fetched (no room); false when none is left.
  bool nextObjectToFetch();
  void takeList(const Core::Http::Response& response);
  void planRound(const std::vector<DrmpEntry>& entries, const std::vector<DrmpRefusal>& refused);
  void takeObject(const Core::Http::Response& response);
  void deleteUnlisted();
  void endRound();
  void resetRound();
  void fail(const std::string& name, const std::string& reason);
  void handleFailure(const Core::Http::Response& response);
  std::string buildReport() const;

  std::unique_ptr<DrmpConfig> config_;
  std::unique_ptr<DrmpStore> store_;
  Core::CoreConfig* coreConfig_ = nullptr;        // not owned
  Core::ProductIdentity* identity_ = nullptr;     // not owned
  Core::PersistentValues* persistent_ = nullptr;  // not owned

  bool terminating_ = false;
  bool waiting_ = false;
  bool waitingForToken_ = false;  // the wait is for a GID token
  bool checkRequested_ = false;
  Phase phase_ = Idle;
  MicroService prepared_ = GetObjects;  // the call prepared last
  timespec nextCheck_{};                // monotonic
  unsigned retries_ = 0;
  bool retryWanted_ = false;  // this round met a failure worth repeating

  // The round in progress.
  std::vector<DrmpEntry> toFetch_;
  size_t fetchIndex_ = 0;
  std::set<std::string> listed_;
  LumJson::Value installedReport_{LumJson::arrayValue};
  LumJson::Value deletedReport_{LumJson::arrayValue};
  LumJson::Value failedReport_{LumJson::arrayValue};
  LumJson::Value keptReport_{LumJson::arrayValue};
  // The body of the answer being received, sized to its limit.
  std::vector<uint8_t> body_;

  Core::TimedSem sem_;  // bound to the core mutex
  Core::Thread thread_;
};

}  // namespace Drmp
}  // namespace Lum
