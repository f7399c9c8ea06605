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

  void initialize(const Core::ManagerContext& context) REQUIRES(Core::CoreMutex()) override;
  void cascadeStateChanges() REQUIRES(Core::CoreMutex()) override;
  void terminateBegin() REQUIRES(Core::CoreMutex()) override;
  void terminateEnd() EXCLUDES(Core::CoreMutex()) override;
  const char* waitName() const override { return "SupportView"; }
  void getStatus(LumStatus& status) REQUIRES(Core::CoreMutex()) override;
  void logStatusInfo(StatusSection section) REQUIRES(Core::CoreMutex()) override;

  // Behind LumSessionInit and LumSessionTerm; take the core mutex.
  unsigned sessionInitialize(bool allowSessionCodeBypass) EXCLUDES(Core::CoreMutex());
  unsigned sessionTerminate() EXCLUDES(Core::CoreMutex());
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
                                bool& finishedInTime) EXCLUDES(Core::CoreMutex());
  int runDownloadSpeedTest(SpeedTestResult& result) EXCLUDES(Core::CoreMutex());
  int runUploadSpeedTest(SpeedTestResult& result) EXCLUDES(Core::CoreMutex());
  int runLatencyTest(SpeedTestResult& result) EXCLUDES(Core::CoreMutex());

  // These two take the core mutex.
  std::string getSessionToken() EXCLUDES(Core::CoreMutex());
  std::string getSvLbrAwsDomain() EXCLUDES(Core::CoreMutex());

  // The screen video and training remote hooks (not owned; null: nothing to
  // start). Set before LumInit by the piece that implements them.
  void setSessionParts(SessionPart* video, SessionPart* trainingRemote);

  void logStateInfo() REQUIRES(Core::CoreMutex());
  void logStateDebug() REQUIRES(Core::CoreMutex());

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
    Step nextStep(timespec& deadline) REQUIRES(Core::CoreMutex()) override;
    void waitEnded(WaitOutcome outcome) REQUIRES(Core::CoreMutex()) override;
    void prepMicroService(Core::Http::Request& request) REQUIRES(Core::CoreMutex()) override;
    void postMicroService(Core::Http::Response& response) REQUIRES(Core::CoreMutex()) override;

   protected:
    virtual MicroService service() const REQUIRES(Core::CoreMutex()) = 0;
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
    std::string nextCallName() REQUIRES(Core::CoreMutex()) override;
    const std::atomic<bool>* cancelFlag(const std::atomic<bool>& agentStopping) override;

   private:
    MicroService service() const REQUIRES(Core::CoreMutex()) override;
  };
  class GetTaskCycle : public Cycle {
   public:
    using Cycle::Cycle;
    Step nextStep(timespec& deadline) REQUIRES(Core::CoreMutex()) override;
    std::string nextCallName() REQUIRES(Core::CoreMutex()) override;
    Core::Http::Request* keptRequest() override { return &owner_.getTaskRequest_; }

   private:
    MicroService service() const REQUIRES(Core::CoreMutex()) override { return GetCommand; }
  };
  class PutTaskCycle : public Cycle {
   public:
    using Cycle::Cycle;
    std::string nextCallName() REQUIRES(Core::CoreMutex()) override;

   private:
    MicroService service() const REQUIRES(Core::CoreMutex()) override { return PutCommand; }
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

  void prepMicroService(MicroService ms, Core::Http::Request& request) REQUIRES(Core::CoreMutex());
  std::string buildRequestBody(MicroService ms) REQUIRES(Core::CoreMutex());
  void postMicroService(MicroService ms, uint64_t session, const Core::Http::Response& response)
      REQUIRES(Core::CoreMutex());
  void getResponseBody(MicroService ms, const std::string& body) REQUIRES(Core::CoreMutex());
  void startTask(const LumJson::Value& answer) REQUIRES(Core::CoreMutex());
  void finishShutdownCall(MicroService ms) REQUIRES(Core::CoreMutex());
  ControlThread& threadFor(MicroService ms);
  void deadlineFor(ControlThread& thread, timespec& deadline) REQUIRES(Core::CoreMutex());

  void cascadeSessionTimeout() REQUIRES(Core::CoreMutex());
  void cascadeSessionThread() REQUIRES(Core::CoreMutex());
  void cascadeGetTaskThread() REQUIRES(Core::CoreMutex());
  void cascadePutTaskThread() REQUIRES(Core::CoreMutex());
  void cascadeSessionState() REQUIRES(Core::CoreMutex());
  void resetThread(ControlThread& thread, const char* name) REQUIRES(Core::CoreMutex());
  ThreadActivity busyOrDelay(const ControlThread& thread) const REQUIRES(Core::CoreMutex());

  bool sessionHeld() const REQUIRES(Core::CoreMutex()) { return !sessionToken_.empty(); }
  bool sessionShown() const REQUIRES(Core::CoreMutex());
  bool agentRunning() const REQUIRES(Core::CoreMutex());
  bool taskRoomLeft() const REQUIRES(Core::CoreMutex());
  void takeSession(const std::string& code, const std::string& token) REQUIRES(Core::CoreMutex());
  void storeSessionToken() REQUIRES(Core::CoreMutex());
  void loadSessionToken() REQUIRES(Core::CoreMutex());
  void retireSessionToken() REQUIRES(Core::CoreMutex());
  void startSessionParts() REQUIRES(Core::CoreMutex());
  void stopSessionParts() REQUIRES(Core::CoreMutex());
  void waitForShutdown(const timespec& deadline, bool tasks);
  void reapTasks(bool abandonRunning) REQUIRES(Core::CoreMutex());

  std::unique_ptr<SupportViewConfig> config_ GUARDED_BY(Core::CoreMutex());
  Core::CoreConfig* coreConfig_ = nullptr;        // not owned
  Core::ProductIdentity* identity_ = nullptr;     // not owned
  Core::DeviceValues* device_ = nullptr;          // not owned
  Core::PersistentValues* persistent_ = nullptr;  // not owned
  SessionPart* video_ = nullptr;                  // not owned
  SessionPart* trainingRemote_ = nullptr;         // not owned

  std::string sessionToken_ GUARDED_BY(Core::CoreMutex());
  std::string sessionCode_ GUARDED_BY(Core::CoreMutex());
  LumSessionState sessionState_ GUARDED_BY(Core::CoreMutex()) = LumSessionNone;
  SessionRequest sessionRequest_ GUARDED_BY(Core::CoreMutex()) = RequestNone;
  bool allowSessionCodeBypass_ GUARDED_BY(Core::CoreMutex()) = false;
  // Bumped whenever a session is taken or retired, so that an answer to a
  // call made for an earlier session is not applied to the current one.
  uint64_t sessionGeneration_ GUARDED_BY(Core::CoreMutex()) = 0;

  ControlThread session_;
  ControlThread getTask_;
  ControlThread putTask_;
  SessionCycle sessionCycle_{*this, session_};
  GetTaskCycle getTaskCycle_{*this, getTask_};
  PutTaskCycle putTaskCycle_{*this, putTask_};
  // The long poll's connection, kept between polls.
  Core::Http::Request getTaskRequest_;

  uint32_t getSeqNum_ GUARDED_BY(Core::CoreMutex()) = 0;
  uint32_t putSeqNum_ GUARDED_BY(Core::CoreMutex()) = 0;
  bool terminating_ GUARDED_BY(Core::CoreMutex()) = false;
  bool sessionTimeoutArmed_ GUARDED_BY(Core::CoreMutex()) = false;
  timespec sessionDeadline_ GUARDED_BY(Core::CoreMutex()){};

  std::deque<std::unique_ptr<SupportViewTask>> completedTasks_ GUARDED_BY(Core::CoreMutex());
  // The task whose answer PutTaskControl is returning, so that its removal
  // after the put is not applied to another one.
  const SupportViewTask* puttingTask_ GUARDED_BY(Core::CoreMutex()) = nullptr;
  unsigned runningTasks_ GUARDED_BY(Core::CoreMutex()) = 0;
  std::vector<TaskRun*> taskRuns_
      GUARDED_BY(Core::CoreMutex());  // owned, until joined or abandoned

  // Shutdown: SessionControl has ended, and the wake for the terminate
  // thread when it has or when a task finishes.
  bool sessionThreadDone_ GUARDED_BY(Core::CoreMutex()) = false;
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
