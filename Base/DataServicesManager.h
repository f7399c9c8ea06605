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

  void initialize(const Core::ManagerContext& context) override;
  void cascadeStateChanges() override;
  void terminateBegin() override;
  void terminateEnd() override;
  const char* waitName() const override { return "Data Services"; }

  // Behind LumSubmitDataItem; takes the core mutex itself.
  unsigned submitDataItem(const char* item);

  DataServicesConfig* getDsConfigPtr() { return config_.get(); }
  using Manager::logStatusInfo;  // the per-section override stays visible
  void logStatusInfo();

  static const char* MicroServiceToString(int microService);
  static const char* UploadStateToString(int state);

 private:
  DataServicesManager();

  // ControlCycle: the upload schedule, run by UploadControl.
  Step nextStep(timespec& deadline) override;
  std::string nextCallName() override;
  void prepMicroService(Core::Http::Request& request) override;
  void postMicroService(Core::Http::Response& response) override;
  void waitStarted() override { uploadWaiting_ = true; }
  void waitEnded(WaitOutcome /*outcome*/) override { uploadWaiting_ = false; }

  static void* UploadControl(void* arg);
  UploadState chooseUploadState() const;
  void computeDeadline();
  void getDelay(UploadState state, unsigned& fixedMs, unsigned& variedMs) const;
  std::string buildTokenRequestBody();
  void getResponseBody(const std::string& body);
  void handleFailure(MicroService ms, const Core::Http::Response& response);
  void releasePackage();
  void installAllowedIds();
  void loadTimeFile();
  void storeTimeFile();
  void loadQueueFile();
  void storeQueueFile();
  size_t queueFileLimit() const;
  bool isTerminating() const;

  const std::string timeFileName_ = "dsTime";
  const std::string queueFileName_ = "data";

  std::unique_ptr<DataServicesConfig> config_;
  std::unique_ptr<QueueManager> queue_;
  Core::CoreConfig* coreConfig_ = nullptr;        // not owned
  Core::PersistentValues* persistent_ = nullptr;  // not owned
  UploadState uploadState_ = Idle;
  MicroService microService_ = GetUploadToken;  // the call prepared last
  std::string uploadToken_;
  std::string uploadRegion_;
  bool uploadBusy_ = false;
  bool uploadWaiting_ = false;
  bool uploadRetry_ = false;
  bool uploadStartupDelay_ = false;
  // "dsTime" and "data" were read at start, so storing them at the end loses
  // nothing; a start that failed before that leaves them as they are.
  bool filesLoaded_ = false;
  // The stored "data" still holds items that have not left the agent.
  bool storedQueueLive_ = false;
  timespec lastUpload_{};  // monotonic
  // The end of the current wait, computed once per wait state so that a
  // random jitter is drawn once and a time-out leads straight to the call.
  bool deadlineSet_ = false;
  timespec deadline_{};
  Core::TimedSem sem_;  // bound to the core mutex
  Core::Thread thread_;
};

}  // namespace Ds
}  // namespace Lum
