#pragma once

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>

#include "Base/ControlLoop.h"
#include "Base/Manager.h"
#include "Platform/Http.h"
#include "Platform/Thread.h"
#include "Platform/TimedSem.h"

namespace Lum {
namespace Core {
class CoreConfig;
class PersistentValues;
}  // namespace Core

namespace Ds {

class DataServicesConfig;
class QueueManager;

// Takes the host's data items into the queue and uploads them from
// "UploadControl": the package's hash buys a one-time token and a region,
// then the package goes to the region's host with that token. The queue and
// the time of the last upload survive a restart in the files "data" and
// "dsTime".
//
// Everything below is guarded by the core mutex (CoreManager::getMutex),
// which UploadControl releases only while it waits on sem_ and while HTTP
// runs; the host's submissions take the same mutex.
class DataServicesManager : public Core::Manager, private Core::ControlCycle {
 public:
  enum MicroService { GetUploadToken = 0, UploadDataPackage = 1 };
  enum UploadState { Idle = 0, Upload = 1, WaitRetry = 2, WaitStandard = 3, WaitAggressive = 4 };

  static DataServicesManager* Instance();

  void initialize(const Core::ManagerContext& context) REQUIRES(Core::CoreMutex()) override;
  void cascadeStateChanges() REQUIRES(Core::CoreMutex()) override;
  void terminateBegin() REQUIRES(Core::CoreMutex()) override;
  void terminateEnd() EXCLUDES(Core::CoreMutex()) override;
  const char* waitName() const override { return "Data Services"; }

  // Behind LumSubmitDataItem; takes the core mutex itself.
  unsigned submitDataItem(const char* item) EXCLUDES(Core::CoreMutex());

  DataServicesConfig* getDsConfigPtr() REQUIRES(Core::CoreMutex()) { return config_.get(); }
  using Manager::logStatusInfo;  // the per-section override stays visible
  void logStatusInfo() REQUIRES(Core::CoreMutex());

  static const char* MicroServiceToString(int microService);
  static const char* UploadStateToString(int state);

 private:
  DataServicesManager();

  // ControlCycle: the upload schedule, run by UploadControl.
  Step nextStep(timespec& deadline) REQUIRES(Core::CoreMutex()) override;
  std::string nextCallName() REQUIRES(Core::CoreMutex()) override;
  void prepMicroService(Core::Http::Request& request) REQUIRES(Core::CoreMutex()) override;
  void postMicroService(Core::Http::Response& response) REQUIRES(Core::CoreMutex()) override;
  void waitStarted() REQUIRES(Core::CoreMutex()) override { uploadWaiting_ = true; }
  void waitEnded(WaitOutcome /*outcome*/) REQUIRES(Core::CoreMutex()) override {
    uploadWaiting_ = false;
  }

  static void* UploadControl(void* arg);
  UploadState chooseUploadState() const REQUIRES(Core::CoreMutex());
  void computeDeadline() REQUIRES(Core::CoreMutex());
  void getDelay(UploadState state, unsigned& fixedMs, unsigned& variedMs) const
      REQUIRES(Core::CoreMutex());
  std::string buildTokenRequestBody() REQUIRES(Core::CoreMutex());
  void getResponseBody(const std::string& body) REQUIRES(Core::CoreMutex());
  void handleFailure(MicroService ms, const Core::Http::Response& response)
      REQUIRES(Core::CoreMutex());
  void releasePackage() REQUIRES(Core::CoreMutex());
  void installAllowedIds() REQUIRES(Core::CoreMutex());
  void loadTimeFile() REQUIRES(Core::CoreMutex());
  void storeTimeFile() REQUIRES(Core::CoreMutex());
  void loadQueueFile() REQUIRES(Core::CoreMutex());
  void storeQueueFile() REQUIRES(Core::CoreMutex());
  size_t queueFileLimit() const REQUIRES(Core::CoreMutex());
  bool isTerminating() const REQUIRES(Core::CoreMutex());

  const std::string timeFileName_ = "dsTime";
  const std::string queueFileName_ = "data";

  std::unique_ptr<DataServicesConfig> config_ GUARDED_BY(Core::CoreMutex());
  std::unique_ptr<QueueManager> queue_ GUARDED_BY(Core::CoreMutex());
  Core::CoreConfig* coreConfig_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;        // not owned
  Core::PersistentValues* persistent_ PT_GUARDED_BY(Core::CoreMutex()) = nullptr;  // not owned
  UploadState uploadState_ GUARDED_BY(Core::CoreMutex()) = Idle;
  MicroService microService_ GUARDED_BY(Core::CoreMutex()) =
      GetUploadToken;  // the call prepared last
  std::string uploadToken_ GUARDED_BY(Core::CoreMutex());
  std::string uploadRegion_ GUARDED_BY(Core::CoreMutex());
  bool uploadBusy_ GUARDED_BY(Core::CoreMutex()) = false;
  bool uploadWaiting_ GUARDED_BY(Core::CoreMutex()) = false;
  bool uploadRetry_ GUARDED_BY(Core::CoreMutex()) = false;
  bool uploadStartupDelay_ GUARDED_BY(Core::CoreMutex()) = false;
  // "dsTime" and "data" were read at start, so storing them at the end loses
  // nothing; a start that failed before that leaves them as they are.
  bool filesLoaded_ GUARDED_BY(Core::CoreMutex()) = false;
  // The stored "data" still holds items that have not left the agent.
  bool storedQueueLive_ GUARDED_BY(Core::CoreMutex()) = false;
  timespec lastUpload_ GUARDED_BY(Core::CoreMutex()){};  // monotonic
  // The end of the current wait, computed once per wait state so that a
  // random jitter is drawn once and a time-out leads straight to the call.
  bool deadlineSet_ GUARDED_BY(Core::CoreMutex()) = false;
  timespec deadline_ GUARDED_BY(Core::CoreMutex()){};
  Core::TimedSem sem_;  // bound to the core mutex
  Core::Thread thread_;
};

}  // namespace Ds
}  // namespace Lum
