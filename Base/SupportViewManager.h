#pragma once

#include <lum.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Base/ControlLoop.h"
#include "Base/Manager.h"
#include "Base/NetworkDiagnostics.h"
#include "Base/SpeedTestResult.h"
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
}  // namespace Core

namespace Sv {

class SessionPart;
class SupportViewConfig;

// One task received from the back end: the command document, its answer
// once executed, and the sequence number it came with.
struct SupportViewTask {
  std::string taskRequest;
  std::string taskResponse;
  uint32_t seqNum = 0;
};

// Runs remote support sessions: a session is opened on the user's request
// (or the back end's, when allowed), the television long-polls the back end
// for tasks, runs each in a thread of its own through the command framework
// and returns the answers. A session held at shutdown is suspended and
// resumed at the next start, or ended.
//
// Three control threads, each on the common control loop: "SessionControl"
// (initialize, terminate, suspend, resume), "GetTaskControl" (the long
// poll) and "PutTaskControl" (the answers); plus one "ExecuteTask" thread
// per task.
//
// Everything below is guarded by the core mutex (CoreManager::getMutex): the
// control threads release it only while they wait and while HTTP runs, the
// task threads only while the command runs.
class SupportViewManager : public Core::Manager {
 public:
  enum SessionRequest {
    RequestInitialize = 0,
    RequestTerminate = 1,
    RequestSuspend = 2,
    RequestResume = 3,
    RequestNone = 4
  };
  enum ThreadActivity {
    ThreadActivityChecking = 0,
    ThreadActivityBusy = 1,
    ThreadActivityIdle = 2,
    ThreadActivityDelay = 3
  };
  // The session calls share their numbers with the requests they carry out.
  enum MicroService {
    InitializeSession = 0,
    TerminateSession = 1,
    SuspendSession = 2,
    ResumeSession = 3,
    GetCommand = 4,
    PutCommand = 5
  };

  static SupportViewManager* Instance();

  void initialize(const Core::ManagerContext& context) override;
  void cascadeStateChanges() override;
  void terminateBegin() override;
  void terminateEnd() override;
  const char* waitName() const override { return "SupportView"; }
  void getStatus(LumStatus& status) override;
  void logStatusInfo(StatusSection section) override;

  // Behind LumSessionInit and LumSessionTerm; take the core mutex.
  unsigned sessionInitialize(bool allowSessionCodeBypass);
  unsigned sessionTerminate();
  // Runs one task document through the command framework without the core
  // mutex; 0 with the answer in `taskResponse`, 1 when the agent is not
  // running, 5 when the document is not JSON.
  unsigned executeCommand(const std::string& taskRequest, std::string& taskResponse);

  // The network tests of the diagnostic commands. They take the core mutex
  // only to read their settings, then run without it on the caller's (task)
  // thread, one test at a time. The reachability test returns 0 when all
  // three stages ran, 2 when its budget ran out first; the speed tests 0 on
  // a 2xx answer, 3 without an https URL, 4 when the transfer failed; all
  // return 1 while the agent is not running.
  int runNetworkDiagnosticsTest(bool& dnsLookupOk, bool& gatewayPingOk, bool& internetPingOk,
                                bool& finishedInTime);
  int runDownloadSpeedTest(SpeedTestResult& result);
  int runUploadSpeedTest(SpeedTestResult& result);
  int runLatencyTest(SpeedTestResult& result);

  // Under the core mutex.
  std::string getSessionToken();
  std::string getSvLbrAwsDomain();
  SupportViewConfig* getSupportViewConfigPtr() { return config_.get(); }

  // The screen video and training remote hooks (not owned; null: nothing to
  // start). Set before LumInit by the piece that implements them.
  void setSessionParts(SessionPart* video, SessionPart* trainingRemote);

  void logStateInfo();
  void logStateDebug();

  // The code and token of a stored "session" file; false when the text is
  // not an object with a text code and a non-empty text token.
  static bool ReadSessionRecord(const std::string& text, std::string& code, std::string& token);

  // The request cycle of the control thread that makes `ms`, so that its
  // rounds can be driven by hand where the thread does not run.
  Core::ControlCycle& cycleFor(MicroService ms);

  static const char* SessionStateToString(int state);
  static const char* SessionRequestToString(int request);
  static const char* ThreadActivityToString(int activity);
  static const char* MicroServiceToString(int microService);

 private:
  // What the manager keeps for each control thread.
  struct ControlThread {
    explicit ControlThread(Core::Mutex& mutex) : sem(mutex) {}
    Core::Thread thread;
    Core::TimedSem sem;  // bound to the core mutex
    ThreadActivity activity = ThreadActivityIdle;
    bool failed = false;  // the last call was answered with an error
    bool retry = false;   // the next call waits for the retry delay
    timespec lastCall{};  // monotonic start of the last call
  };

  // A task thread and what it works on. Joined once finished; one still
  // running at shutdown after the grace time is abandoned and frees itself.
  struct TaskRun {
    std::unique_ptr<SupportViewTask> task;
    Core::Thread thread;
    uint64_t session = 0;  // sessionGeneration_ when it arrived
    bool finished = false;
    bool abandoned = false;
  };

  // The request cycle of one control thread, for the control loop.
  class Cycle : public Core::ControlCycle {
   public:
    Cycle(SupportViewManager& owner, ControlThread& thread) : owner_(owner), thread_(thread) {}
    Step nextStep(timespec& deadline) override;
    void waitEnded(WaitOutcome outcome) override;
    void prepMicroService(Core::Http::Request& request) override;
    void postMicroService(Core::Http::Response& response) override;

   protected:
    virtual MicroService service() const = 0;
    SupportViewManager& owner_;
    ControlThread& thread_;
    uint64_t session_ = 0;  // sessionGeneration_ when the call was prepared
    // The call prepared last: the request that chose it may have changed
    // by the time its answer is handled.
    MicroService prepared_ = InitializeSession;
  };
  class SessionCycle : public Cycle {
   public:
    using Cycle::Cycle;
    std::string nextCallName() override;
    const std::atomic<bool>* cancelFlag(const std::atomic<bool>& agentStopping) override;

   private:
    MicroService service() const override;
  };
  class GetTaskCycle : public Cycle {
   public:
    using Cycle::Cycle;
    Step nextStep(timespec& deadline) override;
    std::string nextCallName() override;
    Core::Http::Request* keptRequest() override { return &owner_.getTaskRequest_; }

   private:
    MicroService service() const override { return GetCommand; }
  };
  class PutTaskCycle : public Cycle {
   public:
    using Cycle::Cycle;
    std::string nextCallName() override;

   private:
    MicroService service() const override { return PutCommand; }
  };

  SupportViewManager();

  static void* SessionControl(void* arg);
  static void* GetTaskControl(void* arg);
  static void* PutTaskControl(void* arg);
  static void* ExecuteTask(void* arg);
  void runTask(TaskRun& run);

  enum SpeedTest { SpeedDownload, SpeedUpload, SpeedLatency };
  // The transfer's settings, read under the core mutex; false while the agent
  // is not running.
  bool speedTestTransfer(SpeedTest test, NetworkDiagnostics::Transfer& transfer);
  int runSpeedTest(SpeedTest test, SpeedTestResult& result);

  void prepMicroService(MicroService ms, Core::Http::Request& request);
  std::string buildRequestBody(MicroService ms);
  void postMicroService(MicroService ms, uint64_t session, const Core::Http::Response& response);
  void getResponseBody(MicroService ms, const std::string& body);
  void startTask(const LumJson::Value& answer);
  void finishShutdownCall(MicroService ms);
  ControlThread& threadFor(MicroService ms);
  void deadlineFor(ControlThread& thread, timespec& deadline);

  void cascadeSessionTimeout();
  void cascadeSessionThread();
  void cascadeGetTaskThread();
  void cascadePutTaskThread();
  void cascadeSessionState();
  void resetThread(ControlThread& thread, const char* name);
  ThreadActivity busyOrDelay(const ControlThread& thread) const;

  bool sessionHeld() const { return !sessionToken_.empty(); }
  bool sessionShown() const;
  bool agentRunning() const;
  bool taskRoomLeft() const;
  void takeSession(const std::string& code, const std::string& token);
  void storeSessionToken();
  void loadSessionToken();
  void retireSessionToken();
  void startSessionParts();
  void stopSessionParts();
  void waitForShutdown(const timespec& deadline, bool tasks);
  void reapTasks(bool abandonRunning);

  std::unique_ptr<SupportViewConfig> config_;
  Core::CoreConfig* coreConfig_ = nullptr;        // not owned
  Core::ProductIdentity* identity_ = nullptr;     // not owned
  Core::DeviceValues* device_ = nullptr;          // not owned
  Core::PersistentValues* persistent_ = nullptr;  // not owned
  SessionPart* video_ = nullptr;                  // not owned
  SessionPart* trainingRemote_ = nullptr;         // not owned

  std::string sessionToken_;
  std::string sessionCode_;
  LumSessionState sessionState_ = LumSessionNone;
  SessionRequest sessionRequest_ = RequestNone;
  bool allowSessionCodeBypass_ = false;
  // Bumped whenever a session is taken or retired, so that an answer to a
  // call made for an earlier session is not applied to the current one.
  uint64_t sessionGeneration_ = 0;

  ControlThread session_;
  ControlThread getTask_;
  ControlThread putTask_;
  SessionCycle sessionCycle_{*this, session_};
  GetTaskCycle getTaskCycle_{*this, getTask_};
  PutTaskCycle putTaskCycle_{*this, putTask_};
  // The long poll's connection, kept between polls.
  Core::Http::Request getTaskRequest_;

  uint32_t getSeqNum_ = 0;
  uint32_t putSeqNum_ = 0;
  bool terminating_ = false;
  bool sessionTimeoutArmed_ = false;
  timespec sessionDeadline_{};

  std::deque<std::unique_ptr<SupportViewTask>> completedTasks_;
  // The task whose answer PutTaskControl is returning, so that its removal
  // after the put is not applied to another one.
  const SupportViewTask* puttingTask_ = nullptr;
  unsigned runningTasks_ = 0;
  std::vector<TaskRun*> taskRuns_;  // owned, until joined or abandoned

  // Shutdown: SessionControl has ended, and the wake for the terminate
  // thread when it has or when a task finishes.
  bool sessionThreadDone_ = false;
  Core::TimedSem shutdownSem_;
  // Set by the terminate thread when SessionControl's last call outlives the
  // grace time; read by that call's transfer without the mutex.
  std::atomic<bool> sessionCallsCancelled_{false};

  // Serialises the network tests, so that none distorts another's
  // measurement. Taken before the core mutex, never while holding it.
  Core::Mutex networkTestMutex_;
};

}  // namespace Sv
}  // namespace Lum
