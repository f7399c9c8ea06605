#include "Base/SupportViewManager.h"

#include <algorithm>

#include "Base/CommandExecutor.h"
#include "Base/CoreConfig.h"
#include "Base/CoreManager.h"
#include "Base/DeviceValues.h"
#include "Base/EventManager.h"
#include "Base/PersistentValues.h"
#include "Base/SessionPart.h"
#include "Base/SupportViewConfig.h"
#include "Platform/Clock.h"
#include "Platform/ExceptionBarrier.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/StringUtil.h"
#include "Platform/ThreadUtil.h"
#include "Project/CommandManager.h"
#include "Project/NorvikInterfaces.h"

LUM_SOURCE_FILE("Base/SupportViewManager");

namespace Lum {
namespace Sv {

using Core::CoreManager;
using Core::LockMutex;
using FP = Core::FilterProperties;

namespace {

constexpr int kSv = FP::SERVICE_SV;
const char* const kSessionFileName = "session";
// Tasks running or waiting to be returned; the long poll pauses at this
// many, so that a back end cannot make the agent start threads without end.
constexpr size_t kMaxTasksInHand = 8;
// A long poll answered without a task sooner than this is not a long poll:
// the next one waits the retry delay instead of following at once.
constexpr long long kMinLongPollMs = 100;
// The longest a shutdown waits for the session's last call and the running
// tasks, whatever message time-out the back end has set.
constexpr uint32_t kMaxShutdownGraceMs = 15000;

CoreManager& TheCore() {
  return *CoreManager::Instance();
}

Core::ControlTexts MakeTexts(const char* name, const char* callSuffix, bool logsDelayed,
                             const char* indefiniteWaitEnded) {
  Core::ControlTexts texts;
  texts.name = name;
  texts.callSuffix = callSuffix;
  texts.skipsPassedDelay = true;
  texts.logsDelayed = logsDelayed;
  texts.indefiniteWaitEnded = indefiniteWaitEnded;
  return texts;
}

// The put thread's line after a wait without deadline keeps its old
// spelling: log readers search for it as it is.
const Core::ControlTexts kSessionTexts =
    MakeTexts("SessionControl", "", true, "delay was previously reset");
const Core::ControlTexts kGetTaskTexts =
    MakeTexts("GetTaskControl", " (long poll)", false, "delay was previously reset");
const Core::ControlTexts kPutTaskTexts =
    MakeTexts("PutTaskControl", "", false, "delay was previosly reset");

void LogJson(const char* key, const LumJson::Value& value) {
  if (Core::Logger::Instance().test(kSv, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG)) {
    LumJson::Value wrapper(LumJson::objectValue);
    wrapper[key] = value;
    LUM_LOG(kSv, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG, "%s",
            Core::JsonUtil::WriteCompact(wrapper).c_str());
  }
}

uint32_t ShutdownGraceMs(const Core::PersistentValues* persistent) {
  const uint32_t messageMs = persistent != nullptr ? persistent->getSvMessageTimeoutMs() : 0;
  return std::min(Core::Http::ClampMessageTimeoutMs(messageMs), kMaxShutdownGraceMs);
}

}  // namespace

// Never destroyed: the host may exit while the control and task threads run.
SupportViewManager* SupportViewManager::Instance() {
  static SupportViewManager* const instance = new SupportViewManager();
  return instance;
}

SupportViewManager::SupportViewManager()
    : session_(TheCore().getMutex()),
      getTask_(TheCore().getMutex()),
      putTask_(TheCore().getMutex()),
      sessionThreadDone_(true),
      shutdownSem_(TheCore().getMutex()) {}

// ---------------------------------------------------------------- names

const char* SupportViewManager::SessionStateToString(int state) {
  static const char* const kNames[] = {"Initializing", "Terminating", "Suspending",
                                       "Resuming",     "Ready",       "Joined",
                                       "None",         "Disabled",    "Unsupported"};
  return state >= 0 && state <= LumSessionUnsupported ? kNames[state] : "Unknown";
}

const char* SupportViewManager::SessionRequestToString(int request) {
  static const char* const kNames[] = {"Initialize", "Terminate", "Suspend", "Resume", "None"};
  return request >= 0 && request <= RequestNone ? kNames[request] : "Unknown";
}

const char* SupportViewManager::ThreadActivityToString(int activity) {
  static const char* const kNames[] = {"Checking", "Busy", "Idle", "Delay"};
  return activity >= 0 && activity <= ThreadActivityDelay ? kNames[activity] : "Unknown";
}

const char* SupportViewManager::MicroServiceToString(int microService) {
  static const char* const kNames[] = {"InitializeSession", "TerminateSession", "SuspendSession",
                                       "ResumeSession",     "GetCommand",       "PutCommand"};
  return microService >= 0 && microService <= PutCommand ? kNames[microService] : "Unknown";
}

// ---------------------------------------------------------------- lifecycle

void SupportViewManager::initialize(const Core::ManagerContext& context) {
  LUM_TRACE(kSv);
  config_.reset(new SupportViewConfig(context.configText));
  coreConfig_ = context.config;
  identity_ = context.identity;
  device_ = context.device;
  persistent_ = context.persistent;
  sessionToken_.clear();
  sessionCode_.clear();
  sessionState_ = LumSessionNone;
  sessionRequest_ = RequestNone;
  allowSessionCodeBypass_ = false;
  for (ControlThread* thread : {&session_, &getTask_, &putTask_}) {
    thread->activity = ThreadActivityIdle;
    thread->failed = false;
    thread->retry = false;
    // A wake given by the previous run's shutdown that no wait took must
    // not cut this run's first wait short.
    thread->sem.clear();
  }
  shutdownSem_.clear();
  getSeqNum_ = 0;
  putSeqNum_ = 0;
  terminating_ = false;
  sessionTimeoutArmed_ = false;
  completedTasks_.clear();
  puttingTask_ = nullptr;
  runningTasks_ = 0;
  sessionCallsCancelled_.store(false);

  loadSessionToken();
  if (sessionHeld()) {
    sessionRequest_ = RequestResume;
  }
  CommandManager::Instance()->initialize(persistent_->getCertOpid(), persistent_->getCertInstance(),
                                         device_->getId(), device_->getModel(), device_->getBrand(),
                                         device_->getEsn(), device_->getMac(),
                                         device_->getSwVersion());
  // The back end may open a session itself, when the configuration lets it.
  Core::EventManager::Instance()->setSessionStarter([](uint32_t, const std::string&) {
    SupportViewManager* self = Instance();
    {
      LockMutex lock(&TheCore().getMutex());
      if (self->config_ == nullptr || !self->config_->getAllowRemoteSession()) {
        return false;
      }
    }
    self->sessionInitialize(false);
    return true;
  });

  sessionThreadDone_ = false;
  Core::ThreadUtil::Start(session_.thread, SessionControl, this, "SessionControl");
  sessionThreadDone_ = !session_.thread.started();
  Core::ThreadUtil::Start(getTask_.thread, GetTaskControl, this, "GetTaskControl");
  Core::ThreadUtil::Start(putTask_.thread, PutTaskControl, this, "PutTaskControl");
  logStateInfo();
}

void SupportViewManager::terminateBegin() {
  terminating_ = true;
  const bool factoryReset = TheCore().getDeviceAgentState() == Core::FactoryResetting;
  const bool pause = config_ != nullptr && config_->getPauseSessionOnTerm() && !factoryReset;
  if (!sessionHeld()) {
    sessionRequest_ = RequestNone;
  } else if (sessionRequest_ == RequestResume && pause) {
    // Still suspended at the back end: it stays so, without a call. The
    // threads below are woken even if storing the token fails.
    Core::ExceptionBarrier::Run("LumTerm", [this]() REQUIRES(Core::CoreMutex()) {
      storeSessionToken();
      retireSessionToken();
    });
  } else if (sessionRequest_ != RequestTerminate) {
    // Whatever was pending, the session thread's one job now is to suspend
    // or end the session before it leaves.
    sessionRequest_ = pause ? RequestSuspend : RequestTerminate;
  }
  // One attempt, at once: a shutdown does not wait out retry delays.
  session_.retry = false;
  resetThread(session_, "SessionControl delay being reset");
  resetThread(getTask_, "GetTaskControl delay being reset");
  resetThread(putTask_, "PutTaskControl delay being reset");
}

void SupportViewManager::terminateEnd() {
  LUM_TRACE(kSv);
  timespec deadline{};
  {
    LockMutex lock(&TheCore().getMutex());
    deadline = Core::AddMilliseconds(Core::Clock::MonotonicNow(), ShutdownGraceMs(persistent_));
  }
  waitForShutdown(deadline, false);
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for SessionControl to join");
  Core::ThreadUtil::Join(session_.thread);
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for GetTaskControl to join");
  Core::ThreadUtil::Join(getTask_.thread);
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for PutTaskControl to join");
  Core::ThreadUtil::Join(putTask_.thread);
  waitForShutdown(deadline, true);
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Performing SupportView cleanup");
  LockMutex lock(&TheCore().getMutex());
  reapTasks(true);
  if (TheCore().getDeviceAgentState() == Core::FactoryResetting && coreConfig_ != nullptr) {
    // Nothing of this device's past may survive a factory reset.
    Core::FileUtil::Drop(coreConfig_->getPersistentPath(), kSessionFileName);
  }
  stopSessionParts();
  sessionToken_.clear();
  sessionCode_.clear();
  sessionState_ = LumSessionNone;
  completedTasks_.clear();
  puttingTask_ = nullptr;
  CommandManager::Instance()->terminate();
  config_.reset();
  coreConfig_ = nullptr;
  identity_ = nullptr;
  device_ = nullptr;
  persistent_ = nullptr;
}

// Waits, until `deadline`, for SessionControl to end (its last call
// suspends or ends the session) or for the running tasks to finish. A
// session call still running then is cut short.
void SupportViewManager::waitForShutdown(const timespec& deadline, bool tasks) {
  LockMutex lock(&TheCore().getMutex());
  auto done = [&]() REQUIRES(Core::CoreMutex()) {
    return tasks ? runningTasks_ == 0 : sessionThreadDone_;
  };
  while (!done() && !shutdownSem_.wait(&deadline)) {
  }
  if (!done() && !tasks) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "SessionControl still busy at shutdown, cancelling its call");
    sessionCallsCancelled_.store(true);
  }
}

// Joins the task threads that have finished; with `abandonRunning`, leaves
// the others to free themselves when their command returns.
void SupportViewManager::reapTasks(bool abandonRunning) {
  unsigned abandoned = 0;
  auto reaped = [&](TaskRun* run) {
    if (run->finished) {
      Core::ThreadUtil::Join(run->thread);
      delete run;
      return true;
    }
    if (abandonRunning) {
      run->abandoned = true;
      ++abandoned;
      return true;
    }
    return false;
  };
  taskRuns_.erase(std::remove_if(taskRuns_.begin(), taskRuns_.end(), reaped), taskRuns_.end());
  if (abandoned > 0) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Abandoning %u tasks still running at shutdown", abandoned);
    runningTasks_ = 0;
  }
}

void SupportViewManager::setSessionParts(SessionPart* video, SessionPart* trainingRemote) {
  LockMutex lock(&TheCore().getMutex());
  video_ = video;
  trainingRemote_ = trainingRemote;
}

void SupportViewManager::startSessionParts() {
  if (video_ != nullptr) video_->sessionStarted();
  if (trainingRemote_ != nullptr) trainingRemote_->sessionStarted();
}

void SupportViewManager::stopSessionParts() {
  if (video_ != nullptr) video_->sessionEnded();
  if (trainingRemote_ != nullptr) trainingRemote_->sessionEnded();
}

// ---------------------------------------------------------------- host calls

bool SupportViewManager::agentRunning() const {
  return TheCore().getDeviceAgentState() == Core::Initialized && persistent_ != nullptr;
}

unsigned SupportViewManager::sessionInitialize(bool allowSessionCodeBypass) {
  LUM_TRACE(kSv);
  // Asked before the mutex is taken: it is the host's callback.
  const int timedOut = NkGetTimeOutFlag();
  LockMutex lock(&TheCore().getMutex());
  if (!agentRunning()) {
    return LUM_RESULT_NOT_INITIALIZED;
  }
  switch (sessionState_) {
    case LumSessionDisabled:
      return LUM_RESULT_NOT_INITIALIZED;
    case LumSessionTerminating:
    case LumSessionSuspending:
      return LUM_RESULT_TERMINATING;
    case LumSessionInitializing:
    case LumSessionResuming:
    case LumSessionJoined:
      return LUM_RESULT_REFUSED;
    case LumSessionReady:
      if (timedOut == 0) {
        return LUM_RESULT_REFUSED;
      }
      break;
    default:
      break;
  }
  allowSessionCodeBypass_ = allowSessionCodeBypass;
  sessionRequest_ = RequestInitialize;
  TheCore().evaluateStateChanges();
  return LUM_RESULT_SUCCESS;
}

unsigned SupportViewManager::sessionTerminate() {
  LUM_TRACE(kSv);
  LockMutex lock(&TheCore().getMutex());
  if (!agentRunning() || sessionState_ == LumSessionNone) {
    return LUM_RESULT_NOT_INITIALIZED;
  }
  if (sessionState_ == LumSessionTerminating || sessionState_ == LumSessionSuspending) {
    return LUM_RESULT_TERMINATING;
  }
  sessionRequest_ = RequestTerminate;
  TheCore().evaluateStateChanges();
  return LUM_RESULT_SUCCESS;
}

unsigned SupportViewManager::executeCommand(const std::string& taskRequest,
                                            std::string& taskResponse) {
  LUM_TRACE(kSv);
  {
    LockMutex lock(&TheCore().getMutex());
    if (!agentRunning()) {
      return LUM_RESULT_NOT_INITIALIZED;
    }
  }
  LumJson::Value request;
  if (!Core::JsonUtil::ParseObject(taskRequest, request)) {
    return LUM_RESULT_BAD_ARGUMENT;
  }
  LumJson::Value response(LumJson::objectValue);
  response["SESSION_ID"] = request["SESSION_ID"];
  response["TASK_ID"] = request["TASK_ID"];
  CommandExecutor::processCommands(request, response["TASK_OUTPUT"]);
  taskResponse = Core::JsonUtil::WriteCompact(response);
  return LUM_RESULT_SUCCESS;
}

// ---------------------------------------------------------------- network tests

int SupportViewManager::runNetworkDiagnosticsTest(bool& dnsLookupOk, bool& gatewayPingOk,
                                                  bool& internetPingOk, bool& finishedInTime) {
  LUM_TRACE(kSv);
  dnsLookupOk = gatewayPingOk = internetPingOk = finishedInTime = false;
  LockMutex testLock(&networkTestMutex_);
  std::string hostname;
  int budgetSeconds = 0;
  {
    LockMutex lock(&TheCore().getMutex());
    if (!agentRunning()) {
      return NetworkDiagnostics::NotRunning;
    }
    hostname = persistent_->getSvPingTestHostname();
    budgetSeconds = static_cast<int>(persistent_->getSvNetworkDiagTimeoutMs() / 1000);
  }
  return NetworkDiagnostics::RunReachability(hostname, budgetSeconds, dnsLookupOk, gatewayPingOk,
                                             internetPingOk, finishedInTime);
}

int SupportViewManager::runDownloadSpeedTest(SpeedTestResult& result) {
  return runSpeedTest(SpeedDownload, result);
}

int SupportViewManager::runUploadSpeedTest(SpeedTestResult& result) {
  return runSpeedTest(SpeedUpload, result);
}

int SupportViewManager::runLatencyTest(SpeedTestResult& result) {
  return runSpeedTest(SpeedLatency, result);
}

int SupportViewManager::runSpeedTest(SpeedTest test, SpeedTestResult& result) {
  LUM_TRACE(kSv);
  result = SpeedTestResult();
  LockMutex testLock(&networkTestMutex_);
  NetworkDiagnostics::Transfer transfer;
  if (!speedTestTransfer(test, transfer)) {
    return NetworkDiagnostics::NotRunning;
  }
  switch (test) {
    case SpeedDownload:
      return NetworkDiagnostics::Download(transfer, result);
    case SpeedUpload:
      return NetworkDiagnostics::Upload(transfer, result);
    case SpeedLatency:
      break;
  }
  return NetworkDiagnostics::Latency(transfer, result);
}

bool SupportViewManager::speedTestTransfer(SpeedTest test, NetworkDiagnostics::Transfer& transfer) {
  LockMutex lock(&TheCore().getMutex());
  if (!agentRunning() || identity_ == nullptr) {
    return false;
  }
  const Core::PersistentValues& p = *persistent_;
  if (test == SpeedUpload) {
    transfer.url = p.getSvSpeedTestUploadUrl();
    transfer.size = p.getSvSpeedTestUploadSize();
    transfer.timeMs = p.getSvSpeedTestUploadTimeMs();
  } else {
    transfer.url = p.getSvSpeedTestDownloadUrl();
    transfer.size = p.getSvSpeedTestDownloadSize();
    transfer.timeMs = p.getSvSpeedTestDownloadTimeMs();
  }
  transfer.connectTimeoutMs = p.getSvConnectTimeoutMs();
  // The same credentials as every other call, copied: the identity may be
  // gone by the time the transfer ends.
  Core::Http::Request identity;
  TheCore().setRequestIdentity(identity);
  transfer.clientCertificate = identity.clientCertificate;
  transfer.clientKey = identity.clientKey;
  transfer.clientKeyPassword = identity.clientKeyPassword;
  transfer.caCertificates = identity.caCertificates;
  transfer.cancel = &TheCore().transfersCancelled();
  return true;
}

std::string SupportViewManager::getSessionToken() {
  LockMutex lock(&TheCore().getMutex());
  return sessionToken_;
}

std::string SupportViewManager::getSvLbrAwsDomain() {
  LockMutex lock(&TheCore().getMutex());
  return persistent_ != nullptr ? persistent_->getSvLbrAwsDomain() : std::string();
}

// ---------------------------------------------------------------- status

bool SupportViewManager::sessionShown() const {
  return sessionState_ == LumSessionReady || sessionState_ == LumSessionJoined;
}

void SupportViewManager::getStatus(LumStatus& status) {
  status.sessionState = sessionState_;
  status.sessionCode = sessionShown() ? Core::StringUtil::DuplicateForHost(sessionCode_) : nullptr;
}

void SupportViewManager::logStatusInfo(StatusSection section) {
  if (section == StatusSection::BeforeSoftwareVersion) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Session State         = %s",
            SessionStateToString(sessionState_));
  }
}

void SupportViewManager::logStateInfo() {
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
          "SupportView State:  session=%c tasks=%u/%u %u/%u", sessionHeld() ? 'y' : 'n',
          runningTasks_, static_cast<unsigned>(completedTasks_.size()), getSeqNum_, putSeqNum_);
}

void SupportViewManager::logStateDebug() {
  if (!Core::Logger::Instance().test(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "sessionState                         : %s",
          SessionStateToString(sessionState_));
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "sessionRequest                       : %s",
          SessionRequestToString(sessionRequest_));
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "sessionActivity                      : %s",
          ThreadActivityToString(session_.activity));
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "getTaskActivity                      : %s",
          ThreadActivityToString(getTask_.activity));
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "putTaskActivity                      : %s",
          ThreadActivityToString(putTask_.activity));
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "sessionTimeoutArmed                  : %s",
          sessionTimeoutArmed_ ? "true" : "false");
}

// ---------------------------------------------------------------- session store

void SupportViewManager::storeSessionToken() {
  if (coreConfig_ == nullptr) {
    return;
  }
  LumJson::Value record(LumJson::objectValue);
  record["code"] = sessionCode_;
  record["token"] = sessionToken_;
  Core::FileUtil::Store(coreConfig_->getPersistentPath(), kSessionFileName,
                        Core::JsonUtil::WriteCompact(record));
  LogJson("svSessionStore", record);
}

// The file is deleted as soon as it is read: a session is resumed once, and
// a resume that fails must not be tried again at every start.
void SupportViewManager::loadSessionToken() {
  const std::string& path = coreConfig_->getPersistentPath();
  const std::string text = Core::FileUtil::Load(path, kSessionFileName);
  if (text.empty()) {
    return;
  }
  Core::FileUtil::Drop(path, kSessionFileName);
  std::string code;
  std::string token;
  if (!ReadSessionRecord(text, code, token)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Ignoring unusable %s file",
            kSessionFileName);
    return;
  }
  takeSession(code, token);
  LumJson::Value record(LumJson::objectValue);
  record["code"] = code;
  record["token"] = token;
  LogJson("svSessionLoad", record);
  startSessionParts();
}

bool SupportViewManager::ReadSessionRecord(const std::string& text, std::string& code,
                                           std::string& token) {
  LumJson::Value record;
  if (!Core::JsonUtil::ParseObject(text, record) || !record["code"].isString() ||
      !record["token"].isString() || record["token"].asString().empty()) {
    return false;
  }
  code = record["code"].asString();
  token = record["token"].asString();
  return true;
}

void SupportViewManager::takeSession(const std::string& code, const std::string& token) {
  sessionCode_ = code;
  sessionToken_ = token;
  ++sessionGeneration_;
}

void SupportViewManager::retireSessionToken() {
  if (!sessionHeld()) {
    return;
  }
  stopSessionParts();
  sessionToken_.clear();
  sessionCode_.clear();
  ++sessionGeneration_;
  completedTasks_.clear();
  puttingTask_ = nullptr;
  putSeqNum_ = 0;
  sessionRequest_ = RequestNone;
  allowSessionCodeBypass_ = false;
  getSeqNum_ = 0;
  for (ControlThread* thread : {&session_, &getTask_, &putTask_}) {
    thread->failed = false;
    thread->retry = false;
  }
  logStateInfo();
}

// ---------------------------------------------------------------- cascade

void SupportViewManager::cascadeStateChanges() {
  LUM_TRACE(kSv);
  if (persistent_ == nullptr) {
    return;
  }
  cascadeSessionTimeout();
  cascadeSessionThread();
  cascadeGetTaskThread();
  cascadePutTaskThread();
  cascadeSessionState();
  logStateDebug();
}

void SupportViewManager::cascadeSessionTimeout() {
  const bool failing = session_.failed || getTask_.failed || putTask_.failed;
  if (!sessionTimeoutArmed_ && failing) {
    sessionTimeoutArmed_ = true;
    const ControlThread& first = session_.failed ? session_ : getTask_.failed ? getTask_ : putTask_;
    sessionDeadline_ = Core::AddMilliseconds(first.lastCall, persistent_->getSvActiveTimeoutMs());
  } else if (sessionTimeoutArmed_ && !failing) {
    sessionTimeoutArmed_ = false;
    sessionDeadline_ = timespec{};
  }
  if (sessionTimeoutArmed_ && !Core::IsBefore(Core::Clock::MonotonicNow(), sessionDeadline_)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Session timed out");
    retireSessionToken();
    // Without a session to retire (an initialize that keeps failing) the
    // request itself is given up, or it would be retried for ever.
    sessionRequest_ = RequestNone;
    for (ControlThread* thread : {&session_, &getTask_, &putTask_}) {
      thread->failed = false;
      thread->retry = false;
    }
    sessionTimeoutArmed_ = false;
  }
}

SupportViewManager::ThreadActivity SupportViewManager::busyOrDelay(
    const ControlThread& thread) const {
  return thread.retry ? ThreadActivityDelay : ThreadActivityBusy;
}

// Woken first: the log line may allocate, and a thread left asleep at a stop
// would be joined for ever.
void SupportViewManager::resetThread(ControlThread& thread, const char* line) {
  thread.sem.reset();
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%s", line);
}

bool SupportViewManager::taskRoomLeft() const {
  return runningTasks_ + completedTasks_.size() < kMaxTasksInHand;
}

// An idle thread is woken only when its next check would find work: waking
// it on anything else would make two idle threads wake each other for ever.
void SupportViewManager::cascadeSessionThread() {
  const bool nothingToEnd =
      !sessionHeld() && (sessionRequest_ == RequestTerminate || sessionRequest_ == RequestSuspend);
  // A session asked for before the device is registered waits for the
  // registration: without a GID token the back end could only refuse it,
  // and its refusal would retire the token the core is about to get.
  const bool unregistered =
      sessionRequest_ == RequestInitialize && persistent_->getGidToken().empty();
  switch (session_.activity) {
    case ThreadActivityChecking:
      if (nothingToEnd) {
        sessionRequest_ = RequestNone;
      }
      session_.activity = sessionRequest_ == RequestNone || unregistered ? ThreadActivityIdle
                                                                         : busyOrDelay(session_);
      break;
    case ThreadActivityIdle:
      if (terminating_ || (sessionRequest_ != RequestNone && !unregistered)) {
        resetThread(session_, "SessionControl delay being reset");
      }
      break;
    case ThreadActivityDelay:
      if (nothingToEnd || (terminating_ && (sessionRequest_ == RequestResume ||
                                            sessionRequest_ == RequestInitialize))) {
        resetThread(session_, "SessionControl delay being reset");
      }
      break;
    default:
      break;
  }
}

void SupportViewManager::cascadeGetTaskThread() {
  const bool work = !terminating_ && sessionHeld() && sessionShown() && taskRoomLeft();
  switch (getTask_.activity) {
    case ThreadActivityChecking:
      getTask_.activity = work ? busyOrDelay(getTask_) : ThreadActivityIdle;
      break;
    case ThreadActivityIdle:
      if (terminating_ || work) {
        resetThread(getTask_, "GetTaskControl delay being reset");
      }
      break;
    case ThreadActivityDelay:
      if (terminating_ || !sessionHeld()) {
        resetThread(getTask_, "GetTaskControl delay being reset");
      }
      break;
    default:
      break;
  }
}

void SupportViewManager::cascadePutTaskThread() {
  const bool work = !terminating_ && sessionHeld() && sessionShown() && !completedTasks_.empty();
  switch (putTask_.activity) {
    case ThreadActivityChecking:
      putTask_.activity = work ? busyOrDelay(putTask_) : ThreadActivityIdle;
      break;
    case ThreadActivityIdle:
      if (terminating_ || work) {
        resetThread(putTask_, "PutTaskControl delay being reset");
      }
      break;
    case ThreadActivityDelay:
      if (terminating_ || !sessionHeld()) {
        resetThread(putTask_, "PutTaskControl delay being reset");
      }
      break;
    default:
      break;
  }
}

void SupportViewManager::cascadeSessionState() {
  LumSessionState next = LumSessionNone;
  switch (sessionRequest_) {
    case RequestNone:
      if (!sessionHeld()) {
        next = persistent_->getDaSupportViewEnabled() ? LumSessionNone : LumSessionDisabled;
      } else {
        next = getSeqNum_ == 0 ? LumSessionReady : LumSessionJoined;
      }
      break;
    case RequestInitialize:
      next = LumSessionInitializing;
      break;
    case RequestTerminate:
      next = LumSessionTerminating;
      break;
    case RequestSuspend:
      next = LumSessionSuspending;
      break;
    case RequestResume:
      next = LumSessionResuming;
      break;
  }
  if (next != sessionState_) {
    sessionState_ = next;
    TheCore().signalStatusChange();
  }
}

// ---------------------------------------------------------------- control threads

void* SupportViewManager::SessionControl(void* arg) {
  SupportViewManager* self = static_cast<SupportViewManager*>(arg);
  Core::ControlLoop::Run(kSessionTexts, kSv, TheCore().getMutex(), self->session_.sem,
                         self->sessionCycle_, TheCore().transfersCancelled());
  LockMutex lock(&TheCore().getMutex());
  self->sessionThreadDone_ = true;
  self->shutdownSem_.reset();
  return nullptr;
}

void* SupportViewManager::GetTaskControl(void* arg) {
  SupportViewManager* self = static_cast<SupportViewManager*>(arg);
  Core::ControlLoop::Run(kGetTaskTexts, kSv, TheCore().getMutex(), self->getTask_.sem,
                         self->getTaskCycle_, TheCore().transfersCancelled());
  return nullptr;
}

void* SupportViewManager::PutTaskControl(void* arg) {
  SupportViewManager* self = static_cast<SupportViewManager*>(arg);
  Core::ControlLoop::Run(kPutTaskTexts, kSv, TheCore().getMutex(), self->putTask_.sem,
                         self->putTaskCycle_, TheCore().transfersCancelled());
  return nullptr;
}

Core::ControlCycle::Step SupportViewManager::Cycle::nextStep(timespec& deadline) {
  thread_.activity = ThreadActivityChecking;
  TheCore().evaluateStateChanges();
  switch (thread_.activity) {
    case ThreadActivityBusy:
      if (&thread_ == &owner_.session_ && owner_.sessionRequest_ == RequestNone) {
        LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
                "SessionControl busy with nothing to do");
        thread_.activity = ThreadActivityIdle;
        return owner_.terminating_ ? Step::Stop : Step::WaitForever;
      }
      return Step::Call;
    case ThreadActivityDelay:
      owner_.deadlineFor(thread_, deadline);
      return Step::WaitUntil;
    case ThreadActivityIdle:
      return owner_.terminating_ ? Step::Stop : Step::WaitForever;
    default:
      if (&thread_ == &owner_.session_) {
        LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
                "SessionControl sessionActivity == ThreadActivityChecking");
      }
      thread_.activity = ThreadActivityIdle;
      return owner_.terminating_ ? Step::Stop : Step::WaitForever;
  }
}

void SupportViewManager::Cycle::waitEnded(WaitOutcome outcome) {
  if (outcome != WaitOutcome::Woken) {
    thread_.retry = false;
  }
}

void SupportViewManager::Cycle::prepMicroService(Core::Http::Request& request) {
  thread_.lastCall = Core::Clock::MonotonicNow();
  session_ = owner_.sessionGeneration_;
  prepared_ = service();
  owner_.prepMicroService(prepared_, request);
}

void SupportViewManager::Cycle::postMicroService(Core::Http::Response& response) {
  owner_.postMicroService(prepared_, session_, response);
}

SupportViewManager::MicroService SupportViewManager::SessionCycle::service() const {
  return static_cast<MicroService>(owner_.sessionRequest_);
}

std::string SupportViewManager::SessionCycle::nextCallName() {
  return MicroServiceToString(service());
}

const std::atomic<bool>* SupportViewManager::SessionCycle::cancelFlag(
    const std::atomic<bool>& /*agentStopping*/) {
  // The session's last call goes out while the agent stops.
  return &owner_.sessionCallsCancelled_;
}

Core::ControlCycle::Step SupportViewManager::GetTaskCycle::nextStep(timespec& deadline) {
  // The long poll starts on a fresh connection after a failure or once the
  // session is no longer shown.
  if (owner_.getTaskRequest_.handle != nullptr && (!owner_.sessionShown() || thread_.retry)) {
    Core::Http::Cleanup(owner_.getTaskRequest_);
  }
  return Cycle::nextStep(deadline);
}

std::string SupportViewManager::GetTaskCycle::nextCallName() {
  return MicroServiceToString(GetCommand);
}

std::string SupportViewManager::PutTaskCycle::nextCallName() {
  return MicroServiceToString(PutCommand);
}

// The retry delay, cut short by the session time-out when that comes first.
void SupportViewManager::deadlineFor(ControlThread& thread, timespec& deadline) {
  CoreManager::updateTimestamp(thread.lastCall, deadline, persistent_->getSvRetryDelayFixedMs(),
                               persistent_->getSvRetryDelayVariedMs());
  if (sessionTimeoutArmed_ && Core::IsBefore(sessionDeadline_, deadline)) {
    deadline = sessionDeadline_;
  }
}

Core::ControlCycle& SupportViewManager::cycleFor(MicroService ms) {
  if (ms == GetCommand) {
    return getTaskCycle_;
  }
  if (ms == PutCommand) {
    return putTaskCycle_;
  }
  return sessionCycle_;
}

SupportViewManager::ControlThread& SupportViewManager::threadFor(MicroService ms) {
  return ms == GetCommand ? getTask_ : ms == PutCommand ? putTask_ : session_;
}

// ---------------------------------------------------------------- request cycle

void SupportViewManager::prepMicroService(MicroService ms, Core::Http::Request& request) {
  LUM_LOG(kSv, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s initiated",
          MicroServiceToString(ms));
  static const char* const kPaths[] = {"sv/session/initialize", "sv/session/terminate",
                                       "sv/session/suspend",    "sv/session/resume",
                                       "sv/command/get",        "sv/command/put"};
  request.verb = Core::Http::POST;
  TheCore().setRequestIdentity(request);
  request.url = "https://" + persistent_->getCertOpid() + "-sv." + persistent_->getCertInstance() +
                "/api/v1/" + kPaths[ms];
  CoreManager::setRequestHeaderDate(request);
  CoreManager::setRequestHeaderAcceptJson(request);
  CoreManager::setRequestHeaderContentTypeJson(request);
  if (ms == InitializeSession) {
    TheCore().setRequestHeaderAuthorizedGid(request);
  } else if (sessionHeld()) {
    request.headers.push_back("Authorization: " + sessionToken_);
  }
  request.body = buildRequestBody(ms);
  request.connectTimeout = persistent_->getSvConnectTimeoutMs();
  request.messageTimeout = persistent_->getSvMessageTimeoutMs();
  if (terminating_) {
    request.messageTimeout = std::min(request.messageTimeout, ShutdownGraceMs(persistent_));
  }
  request.keepAlive = ms == GetCommand;
  TheCore().evaluateStateChanges();
}

std::string SupportViewManager::buildRequestBody(MicroService ms) {
  LumJson::Value body(LumJson::objectValue);
  switch (ms) {
    case InitializeSession:
      body["allowSessionCodeBypass"] = allowSessionCodeBypass_;
      body["timeoutMs"] = persistent_->getSvActiveTimeoutMs();
      break;
    case TerminateSession:
    case SuspendSession:
      body = LumJson::Value();
      break;
    case ResumeSession:
      body["timeoutMs"] = persistent_->getSvPausedTimeoutMs();
      break;
    case GetCommand:
      body["seqNum"] = getSeqNum_;
      break;
    case PutCommand:
      puttingTask_ = completedTasks_.empty() ? nullptr : completedTasks_.front().get();
      body["taskResponse"] = puttingTask_ != nullptr ? puttingTask_->taskResponse : "";
      body["seqNum"] = putSeqNum_;
      break;
  }
  return Core::JsonUtil::WriteCompact(body);
}

void SupportViewManager::postMicroService(MicroService ms, uint64_t session,
                                          const Core::Http::Response& response) {
  ControlThread& thread = threadFor(ms);
  const long status = response.statusCode;
  const uint32_t seqNumBefore = getSeqNum_;
  if (status < 300) {
    thread.failed = false;
    if (ms <= ResumeSession) {
      // An answer without a body still carries the call out: a back end
      // that answers 204 must not get the same call again at once.
      getResponseBody(ms, status == 204 ? std::string() : response.body);
    } else if (session == sessionGeneration_ && sessionHeld() && sessionRequest_ == RequestNone) {
      if (status != 204 || ms == PutCommand) {
        getResponseBody(ms, status == 204 ? std::string() : response.body);
      }
    }
    if (ms == GetCommand && session == sessionGeneration_ &&
        Core::DiffMilliseconds(Core::Clock::MonotonicNow(), thread.lastCall) < kMinLongPollMs &&
        seqNumBefore == getSeqNum_) {
      thread.retry = true;
    }
  } else {
    thread.failed = true;
    thread.retry = true;
    if (status == 422) {
      if (ms == InitializeSession) {
        TheCore().retireGidToken();
      } else if (session == sessionGeneration_) {
        // The refused token is the one held, not one taken since.
        retireSessionToken();
      }
    } else if (status == 428) {
      TheCore().setNotSynchronized();
    }
    if (terminating_ && (ms == TerminateSession || ms == SuspendSession)) {
      finishShutdownCall(ms);
    }
  }
  TheCore().evaluateStateChanges();
  LUM_LOG(kSv, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s processed (%u)",
          MicroServiceToString(ms), static_cast<unsigned>(status));
}

// A shutdown makes one attempt to suspend or end the session. When the back
// end cannot be reached the session is still suspended (kept, for a resume
// that the back end will accept or refuse) or ended locally, so that the
// shutdown never waits on retries.
void SupportViewManager::finishShutdownCall(MicroService ms) {
  if (!sessionHeld()) {
    return;
  }
  if (ms == SuspendSession) {
    storeSessionToken();
  }
  retireSessionToken();
}

void SupportViewManager::getResponseBody(MicroService ms, const std::string& body) {
  LumJson::Value answer;
  const bool parsed = Core::JsonUtil::ParseObject(body, answer);
  switch (ms) {
    case InitializeSession:
      if (sessionRequest_ != RequestInitialize) {
        break;
      }
      sessionRequest_ = RequestNone;
      if (parsed) {
        takeSession(Core::JsonUtil::ReadText(answer, "sessionCode", sessionCode_),
                    Core::JsonUtil::ReadText(answer, "sessionToken", sessionToken_));
        if (sessionHeld()) {
          startSessionParts();
        }
      }
      logStateInfo();
      break;
    case TerminateSession:
      if (sessionRequest_ == RequestTerminate) {
        retireSessionToken();
      }
      break;
    case SuspendSession:
      if (sessionRequest_ == RequestSuspend) {
        storeSessionToken();
        retireSessionToken();
      }
      break;
    case ResumeSession:
      if (sessionRequest_ == RequestResume) {
        sessionRequest_ = RequestNone;
      }
      break;
    case GetCommand:
      if (parsed) {
        startTask(answer);
      }
      break;
    case PutCommand:
      if (!completedTasks_.empty() && completedTasks_.front().get() == puttingTask_) {
        completedTasks_.pop_front();
      }
      puttingTask_ = nullptr;
      if (parsed) {
        putSeqNum_ = Core::JsonUtil::ReadUnsigned(answer, "seqNum", 0);
      }
      logStateInfo();
      break;
  }
}

// ---------------------------------------------------------------- tasks

void SupportViewManager::startTask(const LumJson::Value& answer) {
  if (terminating_) {
    // Not acknowledged: the back end hands it out again after the restart.
    return;
  }
  TaskRun* run = new TaskRun();
  run->task.reset(new SupportViewTask());
  run->task->seqNum = Core::JsonUtil::ReadUnsigned(answer, "seqNum", 0);
  run->task->taskRequest = Core::JsonUtil::ReadText(answer, "taskRequest", "");
  run->session = sessionGeneration_;
  const uint32_t seqNum = run->task->seqNum;
  reapTasks(false);
  Core::ThreadUtil::Start(run->thread, ExecuteTask, run, "ExecuteTask");
  if (!run->thread.started()) {
    // Not acknowledged either, so the back end offers it again.
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "ExecuteTask could not start %u", seqNum);
    getTask_.retry = true;
    delete run;
    return;
  }
  taskRuns_.push_back(run);
  ++runningTasks_;
  getSeqNum_ = seqNum;
  logStateInfo();
}

void* SupportViewManager::ExecuteTask(void* arg) {
  Instance()->runTask(*static_cast<TaskRun*>(arg));
  return nullptr;
}

void SupportViewManager::runTask(TaskRun& run) {
  SupportViewTask& task = *run.task;
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "ExecuteTask started %u", task.seqNum);
  LUM_LOG(kSv, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG, "ExecuteTask in: %s",
          task.taskRequest.c_str());
  unsigned result = LUM_RESULT_BAD_ARGUMENT;
  Core::ExceptionBarrier::Run(
      "ExecuteTask", [&] { result = executeCommand(task.taskRequest, task.taskResponse); });
  LockMutex lock(&TheCore().getMutex());
  if (run.abandoned) {
    // The agent stopped without this task; nothing of that run is left to
    // report to, and nobody will join this thread.
    Core::ThreadUtil::Detach(run.thread);
    delete &run;
    return;
  }
  if (result == LUM_RESULT_SUCCESS) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "ExecuteTask succeeded %u", task.seqNum);
    if (sessionHeld() && run.session == sessionGeneration_) {
      LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "pushing task");
      LUM_LOG(kSv, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG, "ExecuteTask out: %s",
              task.taskResponse.c_str());
      completedTasks_.push_back(std::move(run.task));
    }
  } else {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "ExecuteTask failed %u", task.seqNum);
  }
  run.task.reset();
  run.finished = true;
  --runningTasks_;
  logStateInfo();
  shutdownSem_.reset();
  TheCore().evaluateStateChanges();
}

}  // namespace Sv
}  // namespace Lum
