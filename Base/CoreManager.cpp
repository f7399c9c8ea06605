#include "Base/CoreManager.h"

#include <openssl/crypto.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Base/CoreConfig.h"
#include "Base/DataServicesManager.h"
#include "Base/DeviceValues.h"
#include "Base/DrmpManager.h"
#include "Base/EventManager.h"
#include "Base/Injector.h"
#include "Base/PersistentValues.h"
#include "Base/ProductIdentity.h"
#include "Base/SoftwareUpdateManager.h"
#include "Base/SupportViewManager.h"
#include "Base/TimeFile.h"
#include "Base/VolatileValues.h"
#include "Platform/Clock.h"
#include "Platform/ExceptionBarrier.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/RandomUtil.h"
#include "Platform/StringSetUtil.h"
#include "Platform/StringUtil.h"
#include "Platform/ThreadUtil.h"

LUM_SOURCE_FILE("Base/CoreManager");

namespace Lum {
namespace Core {

using FP = FilterProperties;

namespace {

constexpr int kCore = FP::SERVICE_CORE;
constexpr unsigned kMaxBadSynchs = 3;
constexpr unsigned long long kMinimumDelayMs = 100;
constexpr const char* kStatusFrame = "----------------------------------------------------";

void FreeText(char*& field) {
  free(field);
  field = nullptr;
}

void LogJson(const char* key, const LumJson::Value& value) {
  if (Logger::Instance().test(kCore, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG)) {
    LumJson::Value wrapper(LumJson::objectValue);
    wrapper[key] = value;
    Logger::Instance().log(kLumSource, __LINE__, __func__, kCore, FP::CATEGORY_TEST,
                           FP::SEVERITY_DEBUG, "%s", JsonUtil::WriteCompact(wrapper).c_str());
  }
}

}  // namespace

// Never destroyed, like every object the agent's threads can reach: the host
// may exit while they run, and exit would otherwise destroy the manager under
// them.
CoreManager* CoreManager::Instance() {
  static CoreManager* const instance = new CoreManager();
  return instance;
}

Mutex& CoreMutex() {
  return CoreManager::Instance()->getMutex();
}

CoreManager::CoreManager() : statusSem_(true, mutex_) {
  // Uncontended, as no other thread knows the manager yet; taken so that
  // the log reads the state the way every other reader does.
  LockMutex lock(&getMutex());
  logStatusInfo();
}

void CoreManager::registerManagers() {
  // Not in the constructor: the managers' own singletons reach back for the
  // core mutex while they are built.
  if (managers_.empty()) {
    managers_.push_back(EventManager::Instance());
    managers_.push_back(Sv::SupportViewManager::Instance());
    managers_.push_back(Ds::DataServicesManager::Instance());
    managers_.push_back(Su::SoftwareUpdateManager::Instance());
    managers_.push_back(Drmp::DrmpManager::Instance());
  }
}

// ---------------------------------------------------------------- lifecycle

unsigned CoreManager::initialize(const char* identity, const char* config, const char* device) {
  LUM_TRACE(kCore);
  {
    LockMutex lock(&CoreMutex());
    reapTermination();
    if (state_ == Initialized) {
      return LUM_RESULT_REFUSED;
    }
    if (isTerminating()) {
      return LUM_RESULT_TERMINATING;
    }
    state_ = Initialized;
    abandoning_ = false;
    timeFileLoaded_ = false;
    transfersCancelled_.store(false);
    if (ExceptionBarrier::Run(
            "LumInit", [&]() REQUIRES(CoreMutex()) { startAgent(identity, config, device); })) {
      return LUM_RESULT_SUCCESS;
    }
    // Nothing half-built may stay behind: whatever started is stopped the
    // way a termination stops it, but nothing is stored, so the files stay
    // as this start found them.
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Initialization failed, stopping what it started");
    abandoning_ = true;
    state_ = Terminating;
    beginTermination();
  }
  // Outside the mutex: the threads started so far need it to leave.
  runTermination(false);
  return LUM_RESULT_REFUSED;
}

void CoreManager::startAgent(const char* identity, const char* config, const char* device) {
  registerManagers();
  // OpenSSL frees its global state from an exit handler by default. The
  // agent's threads keep running while the host exits and may be in the
  // middle of a handshake then, so the first use of OpenSSL in this process,
  // which is normally this one, asks it to leave its state alone.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  timeval seed{};
  gettimeofday(&seed, nullptr);
  const uint32_t micros = static_cast<uint32_t>(seed.tv_usec);
  RandomUtil::SetSeed(&micros, sizeof micros);

  config_.reset(new CoreConfig(config));
  identity_.reset(new ProductIdentity(identity));
  device_.reset(new DeviceValues(device, config_->getEnableSwVersionSimulation(),
                                 config_->getInitialSimulatedSwVersion(),
                                 config_->getPersistentPath()));
  persistent_.reset(new PersistentValues(*identity_, *config_, *device_));
  volatile_.reset(new VolatileValues());
  delaySem_.reset(new TimedSem(mutex_));
  volatile_->lastCall = Clock::MonotonicNow();
  loadTimeFile();
  timeFileLoaded_ = true;

  Http::Initialize(!config_->getSkipSslCryptoInit(), !config_->getSkipCurlGlobalInit());
  ThreadUtil::Start(volatile_->stateControlThread, StateControl, this, "StateControl");

  ManagerContext context;
  context.configText = config;
  context.config = config_.get();
  context.identity = identity_.get();
  context.device = device_.get();
  context.persistent = persistent_.get();
  for (Manager* manager : managers_) {
    manager->initialize(context);
  }

  if (persistent_->getSynchronized()) {
    volatile_->startupDelay = true;
    volatile_->evaluate = true;
  }
  signalStatusChange();
  evaluateStateChanges();
  logStateInfo();
}

unsigned CoreManager::terminate(bool factoryReset) {
  LUM_TRACE(kCore);
  {
    LockMutex lock(&CoreMutex());
    const unsigned refusal = refusalUnlessRunning();
    if (refusal != LUM_RESULT_SUCCESS) {
      return refusal;
    }
    state_ = factoryReset ? FactoryResetting : Terminating;
    // From here the shutdown must reach state 0 whatever fails (an exhausted
    // heap included): a step that threw would otherwise leave the agent
    // "terminating" for good, and the host unable to start it again.
    ExceptionBarrier::Run("LumTerm", [this]() REQUIRES(CoreMutex()) { beginTermination(); });
    ExceptionBarrier::Run("LumTerm", [this]() REQUIRES(CoreMutex()) {
      signalStatusChange();
      evaluateStateChanges();
    });
    ThreadUtil::Start(terminateThread_, TerminateThread, this, "TerminateThread");
    if (terminateThread_.started()) {
      return LUM_RESULT_SUCCESS;
    }
  }
  // No thread could be made for the shutdown; the host's thread does it.
  runTermination(false);
  return LUM_RESULT_SUCCESS;
}

void CoreManager::beginTermination() {
  // Transfers in flight end now instead of at their time-outs, so that the
  // shutdown never waits on the network.
  // Every thread is woken before anything that may allocate, and each
  // manager's part is fenced off: a thread left asleep would be joined for
  // ever.
  transfersCancelled_.store(true);
  if (delaySem_ != nullptr) {
    delaySem_->reset();
  }
  for (Manager* manager : managers_) {
    ExceptionBarrier::Run("LumTerm",
                          [manager]() REQUIRES(CoreMutex()) { manager->terminateBegin(); });
  }
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "StateControl delay being reset");
}

void* CoreManager::TerminateThread(void* arg) {
  static_cast<CoreManager*>(arg)->runTermination(true);
  return nullptr;
}

// Every step is fenced off from the others: a manager that fails to stop must
// not keep the agent from reaching state 0, or the host could never start it
// again.
void CoreManager::runTermination(bool onTerminateThread) {
  LUM_TRACE(kCore);
  for (Manager* manager : managers_) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for %s", manager->waitName());
    ExceptionBarrier::Run("TerminateThread", [manager] { manager->terminateEnd(); });
  }
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for StateControl to join");
  // Read under the mutex: a failed start may not have built the values.
  Thread* stateControl = nullptr;
  {
    LockMutex lock(&CoreMutex());
    stateControl = volatile_ != nullptr ? &volatile_->stateControlThread : nullptr;
  }
  if (stateControl != nullptr) {
    ThreadUtil::Join(*stateControl);
  }
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Performing Core cleanup");

  LockMutex lock(&CoreMutex());
  ExceptionBarrier::Run("TerminateThread",
                        [this]() REQUIRES(CoreMutex()) { storeOrDropCoreFiles(); });
  ExceptionBarrier::Run("TerminateThread", [] {
    Http::Terminate();
    RandomUtil::Cleanup();
  });
  ExceptionBarrier::Run("TerminateThread", [this]() REQUIRES(CoreMutex()) { releaseCoreValues(); });
  if (onTerminateThread) {
    // State 0 tells the host that it may unload the library, so it is
    // reported only once this thread has been joined (reapTermination):
    // until then it still runs the library's code.
    terminationDone_ = true;
  } else {
    state_ = Uninitialized;
  }
  signalStatusChange();
}

void CoreManager::storeOrDropCoreFiles() {
  if (config_ == nullptr) {
    return;
  }
  const std::string path = config_->getPersistentPath();
  if (state_ == FactoryResetting) {
    if (persistent_ != nullptr) {
      persistent_->drop(path);
    }
    FileUtil::Drop(path, timeFileName_);
  } else if (storesOnStop() && timeFileLoaded_) {
    storeTimeFile();
  }
}

unsigned CoreManager::refusalUnlessRunning() {
  reapTermination();
  if (state_ == Uninitialized) {
    return LUM_RESULT_NOT_INITIALIZED;
  }
  return isTerminating() ? LUM_RESULT_TERMINATING : LUM_RESULT_SUCCESS;
}

void CoreManager::reapTermination() {
  if (!terminationDone_) {
    return;
  }
  ThreadUtil::Join(terminateThread_);
  terminationDone_ = false;
  state_ = Uninitialized;
}

void CoreManager::releaseCoreValues() {
  config_.reset();
  identity_.reset();
  device_.reset();
  persistent_.reset();
  volatile_.reset();
  delaySem_.reset();
  // The next start configures logging and scripted answers afresh.
  Injector::Instance().terminate();
  Logger::Instance().terminate();
}

// ---------------------------------------------------------------- time file

void CoreManager::loadTimeFile() {
  LumJson::Value stored;
  bool complete = false;
  const TimeFile::Result result = TimeFile::Load(config_->getPersistentPath(), timeFileName_,
                                                 stored, volatile_->lastCall, complete);
  if (result == TimeFile::Absent) {
    return;
  }
  if (result == TimeFile::Invalid) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, TimeFile::kIgnoredLine,
            timeFileName_.c_str());
    return;
  }
  LogJson("coreTimeLoad", stored);
  if (result == TimeFile::InFuture) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Problem reading %s, lastCall is in the future. Defaulting to monotonic start as "
            "reference.",
            timeFileName_.c_str());
  }
}

void CoreManager::storeTimeFile() {
  timespec wall{};
  const TimeFile::Result result = TimeFile::ToWall(volatile_->lastCall, wall);
  if (result == TimeFile::ElapsedNegative) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Problem storing %s, elapsed time is negative. Defaulting to current time.",
            timeFileName_.c_str());
  } else if (result == TimeFile::InFuture) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Problem storing %s, lastCall is in the future. Defaulting to current time.",
            timeFileName_.c_str());
  }
  LumJson::Value stored;
  TimeFile::Store(config_->getPersistentPath(), timeFileName_, wall, stored);
  LogJson("coreTimeStore", stored);
}

// ---------------------------------------------------------------- scheduling

MicroService CoreManager::chooseNextCall(bool& holdBack) {
  holdBack = false;
  if (persistent_->getSynchronized()) {
    return CheckForNotification;
  }
  if (persistent_->getGidToken().empty()) {
    return GetDeviceIdentity;
  }
  if (volatile_->badSynchs < kMaxBadSynchs) {
    return SynchronizeCoreState;
  }
  // The back end keeps refusing the state: asking again at once would only
  // hammer it, so the call waits its turn like a poll.
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
          "Too many SynchronizeCoreState calls in a row, delaying");
  holdBack = true;
  return volatile_->nextDws;
}

void CoreManager::evaluateStateChanges() {
  if (state_ == Initialized && !volatile_->busy) {
    bool holdBack = false;
    const MicroService call = chooseNextCall(holdBack);
    const bool changed = call != volatile_->nextDws;
    if (changed || volatile_->evaluate) {
      if (changed) {
        LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "StateControl delay being reset");
        delaySem_->reset();
      }
      scheduleNextCall(call, holdBack);
    }
  }
  if (persistent_ == nullptr) {
    return;
  }
  if (persistent_->testDaConsentUrl()) {
    signalStatusChange();
  }
  for (Manager* manager : managers_) {
    manager->cascadeStateChanges();
  }
  // A start being undone leaves the files as it found them.
  if (!persistent_->isPersisted() && !abandoning_) {
    logStateInfo();
    persistent_->store(config_->getPersistentPath());
  }
  persistent_->checkDeviceInfoCollector();
  logStateDebug();
}

void CoreManager::scheduleNextCall(MicroService call, bool holdBack) {
  VolatileValues& v = *volatile_;
  const PersistentValues& p = *persistent_;
  v.nextDws = call;
  v.evaluate = false;
  const timespec now = Clock::MonotonicNow();
  if (v.retry) {
    updateTimestamp(v.lastCall, v.nextCall, p.getDaRetryDelayFixedMs(),
                    p.getDaRetryDelayVariedMs());
  } else if (call != CheckForNotification && !holdBack) {
    v.nextCall = now;
  } else if (v.startupDelay && !holdBack) {
    timespec standard{};
    updateTimestamp(v.lastCall, standard, p.getDaPollDelayFixedMs(), p.getDaPollDelayVariedMs());
    if (IsBefore(now, standard)) {
      LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
              "Using standard delay on core startup");
      v.nextCall = standard;
    } else {
      LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "Using startup delay on core startup");
      v.lastCall = now;
      updateTimestamp(now, v.nextCall, p.getDaStartupDelayFixedMs(), p.getDaStartupDelayVariedMs());
    }
  } else {
    updateTimestamp(v.lastCall, v.nextCall, p.getDaPollDelayFixedMs(), p.getDaPollDelayVariedMs());
  }
}

void CoreManager::updateTimestamp(const timespec& base, timespec& out, unsigned fixedMs,
                                  unsigned variedMs) {
  unsigned long long delay = fixedMs;
  if (variedMs != 0) {
    uint32_t random = 0;
    RandomUtil::GetBytes(&random, sizeof random);
    delay += random % variedMs + 1;
  }
  // The delays come from the back end; one pushed as 0 against a back end
  // that answers at once would make a busy loop of calls.
  delay = std::max(delay, kMinimumDelayMs);
  out = AddMilliseconds(base, delay);
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "calculated %u.%03us delay",
          static_cast<unsigned>(delay / 1000), static_cast<unsigned>(delay % 1000));
}

// ---------------------------------------------------------------- StateControl

void* CoreManager::StateControl(void* arg) {
  CoreManager* self = static_cast<CoreManager*>(arg);
  static const ControlTexts kTexts = [] {
    ControlTexts texts;
    texts.name = "StateControl";
    texts.delayNamesCall = true;
    return texts;
  }();
  ControlLoop::Run(kTexts, kCore, CoreMutex(), *self->delaySem_, *self, self->transfersCancelled_);
  return nullptr;
}

ControlCycle::Step CoreManager::nextStep(timespec& deadline) {
  if (state_ != Initialized) {
    return Step::Stop;
  }
  deadline = volatile_->nextCall;
  return Step::WaitUntil;
}

std::string CoreManager::nextCallName() {
  return MicroServiceToString(volatile_->nextDws);
}

void CoreManager::prepMicroService(Http::Request& request) {
  const MicroService ms = volatile_->nextDws;
  LUM_LOG(kCore, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s initiated",
          MicroServiceToString(ms));
  volatile_->busy = true;
  volatile_->retry = false;
  volatile_->startupDelay = false;
  volatile_->lastCall = Clock::MonotonicNow();

  static const char* const kPaths[] = {"da/notification", "da/gidtoken", "da/state"};
  if (ms <= SynchronizeCoreState) {
    request.verb = Http::POST;
  }
  setRequestIdentity(request);
  request.url = "https://" + persistent_->getCertOpid() + "-da." + persistent_->getCertInstance() +
                "/api/v1/" + (ms <= SynchronizeCoreState ? kPaths[ms] : "");
  setRequestHeaderDate(request);
  setRequestHeaderAcceptJson(request);
  setRequestHeaderContentTypeJson(request);
  setRequestHeaderAuthorizedGid(request);
  request.body = buildRequestBody(ms);
  request.connectTimeout = persistent_->getDaConnectTimeoutMs();
  request.messageTimeout = persistent_->getDaMessageTimeoutMs();
}

std::string CoreManager::buildRequestBody(MicroService ms) {
  const PersistentValues& p = *persistent_;
  LumJson::Value body(LumJson::objectValue);
  switch (ms) {
    case GetDeviceIdentity:
      body["daId"] = device_->getId();
      body["daTestMode"] = p.getTestMode();
      break;
    case SynchronizeCoreState:
      body["daTestMode"] = p.getTestMode();
      body["daId"] = device_->getId();
      body["daModel"] = device_->getModel();
      body["daSubModel"] = device_->getSubModel();
      body["daBrand"] = device_->getBrand();
      body["daSwVersion"] = device_->getSwVersion();
      body["daVersion"] = p.getSdkVersion();
      body["daOpidSeqNum"] = p.getOpidSeqNum();
      body["daGidSeqNum"] = p.getGidSeqNum();
      body["suCheckForSoftwareUpdate"] = p.getSuCheckForSoftwareUpdate();
      break;
    case CheckForNotification:
      body["daOpidSeqNum"] = p.getOpidSeqNum();
      body["daGidSeqNum"] = p.getGidSeqNum();
      break;
  }
  return JsonUtil::WriteCompact(body);
}

void CoreManager::postMicroService(Http::Response& response) {
  const MicroService ms = volatile_->nextDws;
  volatile_->busy = false;
  volatile_->evaluate = true;
  const long status = response.statusCode;
  if (isTerminating()) {
    // The value objects are still alive until the terminate thread joins us,
    // but nothing learnt now should be acted on.
    return;
  }
  if (status < 300) {
    // A success that carries nothing usable is a failed call: taken as
    // done, the same call would follow at once, again and again.
    if (!getResponseBody(ms, response.body)) {
      volatile_->retry = true;
    }
  } else {
    volatile_->retry = true;
    if (status == 422) {
      retireGidToken();
    } else if (status == 428) {
      setNotSynchronized();
    }
  }
  evaluateStateChanges();
  LUM_LOG(kCore, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s processed (%u)",
          MicroServiceToString(ms), static_cast<unsigned>(status));
}

bool CoreManager::getResponseBody(MicroService ms, const std::string& body) {
  LumJson::Value answer;
  if (!JsonUtil::ParseObject(body, answer)) {
    // A poll that learns nothing waits its poll delay anyway.
    return ms == CheckForNotification;
  }
  PersistentValues& p = *persistent_;
  switch (ms) {
    case GetDeviceIdentity:
      p.setGidToken(JsonUtil::ReadText(answer, "daGidToken", p.getGidToken()));
      return !p.getGidToken().empty();
    case CheckForNotification:
      if (!JsonUtil::ReadBool(answer, "daStateSynchronized", true)) {
        p.setSynchronized(false);
      }
      break;
    case SynchronizeCoreState:
      readSynchronizeAnswer(answer);
      break;
  }
  return true;
}

void CoreManager::readSynchronizeAnswer(const LumJson::Value& answer) {
  PersistentValues& p = *persistent_;
  VolatileValues& v = *volatile_;
  bool synchronized = JsonUtil::ReadBool(answer, "daSynchronized", p.getSynchronized());
  if (v.pending) {
    // A local change arrived while this call was in flight: the back end has
    // not seen it, so another synchronisation must follow.
    v.pending = false;
    v.badSynchs = 0;
    synchronized = false;
  } else {
    v.badSynchs = synchronized ? 0 : v.badSynchs + 1;
  }
  p.setSynchronized(synchronized);
  const bool opidChanged =
      p.setOpidSeqNum(JsonUtil::ReadUnsigned(answer, "daOpidSeqNum", p.getOpidSeqNum()));
  const bool gidChanged =
      p.setGidSeqNum(JsonUtil::ReadUnsigned(answer, "daGidSeqNum", p.getGidSeqNum()));
  p.setDaSupportViewEnabled(
      JsonUtil::ReadBool(answer, "daSupportViewEnabled", p.getDaSupportViewEnabled()));
  if (opidChanged || gidChanged) {
    queueEvents(answer["daEvents"]);
  }
  p.readBackEndTunables(answer);
}

void CoreManager::queueEvents(const LumJson::Value& events) {
  if (!events.isArray()) {
    return;
  }
  for (const LumJson::Value& entry : events) {
    if (!entry.isObject() || !entry["event"].isString()) {
      continue;
    }
    const LumJson::Value& id = entry["id"];
    const LumJson::Value& parameters = entry["parameters"];
    EventManager::Instance()->queueEvent(entry["event"].asString(), id.isUInt() ? id.asUInt() : 0u,
                                         parameters.isString() ? parameters.asString() : "");
  }
}

// ---------------------------------------------------------------- decorators

void CoreManager::setRequestHeaderDate(Http::Request& request) {
  const timespec now = Clock::WallNow();
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char header[64];
  if (strftime(header, sizeof header, "Date: %FT%TZ", &utc) > 0) {
    request.headers.push_back(header);
  }
}

void CoreManager::setRequestHeaderAcceptJson(Http::Request& request) {
  request.headers.push_back("Accept: application/json");
}

void CoreManager::setRequestHeaderContentTypeJson(Http::Request& request) {
  request.headers.push_back("Content-Type: application/json; charset=UTF-8");
}

void CoreManager::setRequestHeaderAuthorizedGid(Http::Request& request) {
  const std::string& token = persistent_->getGidToken();
  if (!token.empty()) {
    request.headers.push_back("Authorization: " + token);
  }
}

void CoreManager::setRequestIdentity(Http::Request& request) {
  request.clientKey = identity_->getKey();
  request.clientCertificate = identity_->getCert();
  request.caCertificates = identity_->getTrust();
  request.clientKeyPassword = identity_->getPassword();
}

// ---------------------------------------------------------------- host calls

unsigned CoreManager::enableTestMode() {
  LUM_TRACE(kCore);
  LockMutex lock(&CoreMutex());
  const unsigned refusal = refusalUnlessRunning();
  if (refusal != LUM_RESULT_SUCCESS) {
    return refusal;
  }
  if (persistent_->setTestMode(true)) {
    signalStatusChange();
    if (!persistent_->getSynchronized() && volatile_->busy) {
      volatile_->pending = true;
    }
  }
  evaluateStateChanges();
  return LUM_RESULT_SUCCESS;
}

unsigned CoreManager::checkForSoftwareUpdate() {
  LUM_TRACE(kCore);
  LockMutex lock(&CoreMutex());
  const unsigned refusal = refusalUnlessRunning();
  if (refusal != LUM_RESULT_SUCCESS) {
    return refusal;
  }
  if (persistent_->setSuCheckForSoftwareUpdate(true) && volatile_->busy) {
    volatile_->pending = true;
  }
  evaluateStateChanges();
  return LUM_RESULT_SUCCESS;
}

void CoreManager::setNotSynchronized() {
  if (persistent_->setSynchronized(false) && volatile_->busy) {
    volatile_->pending = true;
  }
}

void CoreManager::retireGidToken() {
  // The refusals counted against this token say nothing about the next one
  // (a new token is only ever asked for once the old one is gone); kept,
  // they would hold the new token's first synchronisation back, and the
  // held-back call would be another registration, for ever.
  volatile_->badSynchs = 0;
  persistent_->setGidToken("");
  persistent_->setOpidSeqNum(0);
  persistent_->setGidSeqNum(0);
  setNotSynchronized();
}

unsigned CoreManager::supervisorLog(int severity, const std::string& text) {
  {
    LockMutex lock(&CoreMutex());
    reapTermination();
    if (state_ != Initialized) {
      return LUM_RESULT_NOT_INITIALIZED;
    }
  }
  if (severity >= FP::SEVERITY_FATAL && severity <= FP::SEVERITY_TRACE &&
      Logger::Instance().test(kCore, FP::CATEGORY_SUPERVISOR, severity)) {
    // The host's own lines: category "supervisor" keeps them apart from the
    // agent's, and the text is written as given, never as a format.
    Logger::Instance().log(kLumSource, __LINE__, __func__, kCore, FP::CATEGORY_SUPERVISOR, severity,
                           "%s", text.c_str());
  }
  return LUM_RESULT_SUCCESS;
}

// ---------------------------------------------------------------- status

void CoreManager::signalStatusChange() {
  logStatusInfo();
  statusSem_.giveLocked();
}

unsigned CoreManager::getStatus(LumStatusMethod method, LumStatus* status) {
  LUM_TRACE(kCore);
  LockMutex lock(&CoreMutex());
  if (method == LumStatusMethodOnChange) {
    statusSem_.takeLocked();
  }
  reapTermination();
  fillStatus(status);
  return LUM_RESULT_SUCCESS;
}

void CoreManager::fillStatus(LumStatus* status) {
  memset(status, 0, sizeof *status);
  status->deviceAgentState = state_;
  // What a stopped agent reports; the running managers fill in their own.
  status->sessionState = LumSessionNone;
  status->updateSource = 1;
  if (state_ == Uninitialized || persistent_ == nullptr) {
    return;
  }
  for (Manager* manager : managers_) {
    manager->getStatus(*status);
  }
  const PersistentValues& p = *persistent_;
  status->testMode = p.getTestMode() ? 1 : 0;
  status->sdkVersion = StringUtil::DuplicateForHost(p.getSdkVersion());
  status->deviceId = StringUtil::DuplicateForHost(p.getDeviceId());
  status->certOpid = StringUtil::DuplicateForHost(p.getCertOpid());
  status->certInstance = StringUtil::DuplicateForHost(p.getCertInstance());
  status->allowedDataItemIds = StringUtil::DuplicateForHost(
      StringSetUtil::StringSetToCsvString(p.getDsAllowedDataItemIds()));
  status->consentUrl = StringUtil::DuplicateForHost(p.getDaConsentUrl());
  status->swVersion = StringUtil::DuplicateForHost(device_->getSwVersion());
}

unsigned CoreManager::freeStatus(LumStatus* status) {
  LUM_TRACE(kCore);
  LockMutex lock(&CoreMutex());
  FreeText(status->sdkVersion);
  FreeText(status->deviceId);
  FreeText(status->certOpid);
  FreeText(status->certInstance);
  FreeText(status->allowedDataItemIds);
  FreeText(status->consentUrl);
  FreeText(status->sessionCode);
  FreeText(status->swVersion);
  FreeText(status->updateVersion);
  FreeText(status->updateStagingFile);
  FreeText(status->updateHash);
  return LUM_RESULT_SUCCESS;
}

// ---------------------------------------------------------------- logging

const char* CoreManager::DeviceAgentStateToString(int state) {
  switch (state) {
    case Uninitialized:
      return "Uninitialized";
    case Initialized:
      return "Initialized";
    case Terminating:
      return "Terminating";
    case FactoryResetting:
      return "FactoryResetting";
    default:
      return "Unknown";
  }
}

void CoreManager::logStateInfo() {
  if (persistent_ == nullptr ||
      !Logger::Instance().test(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO)) {
    return;
  }
  const PersistentValues& p = *persistent_;
  Logger::Instance().log(kLumSource, __LINE__, __func__, kCore, FP::CATEGORY_STATE,
                         FP::SEVERITY_INFO,
                         "Core State Change:  synch=%c gid=%c std<%02u%% seqnum=%u/%u",
                         p.getSynchronized() ? 'Y' : 'N', p.getGidToken().empty() ? 'N' : 'Y',
                         p.getDsAggressiveQueuePercentage(), p.getOpidSeqNum(), p.getGidSeqNum());
}

void CoreManager::logStatusInfo() {
  if (!Logger::Instance().test(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO)) {
    return;
  }
  const bool known = persistent_ != nullptr;
  auto text = [known](const std::string& value) { return known ? value.c_str() : ""; };
  const std::string empty;
  const PersistentValues* p = persistent_.get();
  const std::string allowed =
      known ? StringSetUtil::StringSetToCsvString(p->getDsAllowedDataItemIds()) : empty;
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s", kStatusFrame);
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Device Agent State    = %s",
          DeviceAgentStateToString(state_));
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Device Agent Mode     = %s",
          known && p->getTestMode() ? "Test" : "Production");
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "SDK Version           = %s",
          text(known ? p->getSdkVersion() : empty));
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Device ID             = %s",
          text(known ? p->getDeviceId() : empty));
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "OPID                  = %s",
          text(known ? p->getCertOpid() : empty));
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Cloud                 = %s",
          text(known ? p->getCertInstance() : empty));
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Allowed Data Item Ids = %s",
          allowed.c_str());
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Consent URL           = %s",
          text(known ? p->getDaConsentUrl() : empty));
  logManagersStatus(Manager::StatusSection::BeforeSoftwareVersion);
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Sofware Version       = %s",
          device_ != nullptr ? device_->getSwVersion().c_str() : "");
  logManagersStatus(Manager::StatusSection::AfterSoftwareVersion);
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s", kStatusFrame);
}

void CoreManager::logManagersStatus(Manager::StatusSection section) {
  if (persistent_ == nullptr) {
    return;
  }
  for (Manager* manager : managers_) {
    manager->logStatusInfo(section);
  }
}

void CoreManager::logStateDebug() {
  if (!Logger::Instance().test(kCore, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "state                                : %s", DeviceAgentStateToString(state_));
  if (identity_ != nullptr) identity_->logStateDebug();
  if (config_ != nullptr) config_->logStateDebug();
  if (device_ != nullptr) device_->logStateDebug();
  if (persistent_ != nullptr) persistent_->logStateDebug();
  if (volatile_ != nullptr) volatile_->logStateDebug();
}

}  // namespace Core
}  // namespace Lum
