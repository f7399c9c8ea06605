#include "Base/DataServicesManager.h"

#include <lum.h>

#include <algorithm>

#include "Base/CollectorManager.h"
#include "Base/CoreConfig.h"
#include "Base/CoreManager.h"
#include "Base/DataServicesConfig.h"
#include "Base/PersistentValues.h"
#include "Base/QueueManager.h"
#include "Base/TimeFile.h"
#include "Platform/Clock.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/StringSetUtil.h"
#include "Platform/ThreadUtil.h"

LUM_SOURCE_FILE("Base/DataServicesManager");

namespace Lum {
namespace Ds {

using Core::CoreManager;
using Core::FilterProperties;
using Core::LockMutex;
using Core::TimeFile;
using FP = FilterProperties;

namespace {

constexpr int kDs = FP::SERVICE_DS;

CoreManager& TheCore() {
  return *CoreManager::Instance();
}

}  // namespace

// Never destroyed: the host may exit while UploadControl runs.
DataServicesManager* DataServicesManager::Instance() {
  static DataServicesManager* const instance = new DataServicesManager();
  return instance;
}

DataServicesManager::DataServicesManager() : sem_(TheCore().getMutex()) {}

const char* DataServicesManager::MicroServiceToString(int microService) {
  switch (microService) {
    case GetUploadToken:
      return "GetUploadToken";
    case UploadDataPackage:
      return "UploadDataPackage";
    default:
      return "Unknown";
  }
}

const char* DataServicesManager::UploadStateToString(int state) {
  static const char* const kNames[] = {"Idle", "Upload", "WaitRetry", "WaitStandard",
                                       "WaitAggressive"};
  return state >= Idle && state <= WaitAggressive ? kNames[state] : "Unknown";
}

bool DataServicesManager::isTerminating() const {
  const Core::DeviceAgentState state = TheCore().getDeviceAgentState();
  return state == Core::Terminating || state == Core::FactoryResetting;
}

// ---------------------------------------------------------------- lifecycle

void DataServicesManager::initialize(const Core::ManagerContext& context) {
  LUM_TRACE(kDs);
  config_.reset(new DataServicesConfig(context.configText.c_str()));
  queue_.reset(new QueueManager(config_->getMaximumDataBytes()));
  coreConfig_ = context.config;
  persistent_ = context.persistent;
  uploadState_ = Idle;
  microService_ = GetUploadToken;
  uploadToken_.clear();
  uploadRegion_.clear();
  uploadBusy_ = false;
  uploadWaiting_ = false;
  uploadRetry_ = false;
  deadlineSet_ = false;
  filesLoaded_ = false;
  storedQueueLive_ = false;
  // A wake given by the previous run's terminateBegin while its thread was in
  // a transfer was never taken; it must not cut this run's first wait short.
  sem_.clear();
  lastUpload_ = Core::Clock::MonotonicNow();
  loadTimeFile();
  // The ids go in before the stored queue, which is admitted against them.
  queue_->setAllowedDataItemIds(persistent_->getDsAllowedDataItemIds());
  loadQueueFile();
  filesLoaded_ = true;
  CollectorManager::Instance()->initialize(context);
  CollectorManager::Instance()->cascadeStateChanges(persistent_->getDsAllowedDataItemIds());
  uploadStartupDelay_ = true;
  Core::ThreadUtil::Start(thread_, UploadControl, this, "UploadControl");
}

void DataServicesManager::terminateBegin() {
  sem_.reset();
  CollectorManager::Instance()->terminateBegin();
  LUM_TRACE(kDs);
}

void DataServicesManager::terminateEnd() {
  LUM_TRACE(kDs);
  // The collectors submit items, so they stop before the queue is stored.
  CollectorManager::Instance()->terminateEnd();
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for UploadControl to join");
  Core::ThreadUtil::Join(thread_);
  LockMutex lock(&TheCore().getMutex());
  if (TheCore().storesOnStop() && filesLoaded_) {
    storeQueueFile();
    storeTimeFile();
  } else if (TheCore().getDeviceAgentState() == Core::FactoryResetting && coreConfig_ != nullptr) {
    // Nothing of this device's past may survive a factory reset.
    Core::FileUtil::Drop(coreConfig_->getPersistentPath(), queueFileName_);
    Core::FileUtil::Drop(coreConfig_->getPersistentPath(), timeFileName_);
  }
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Performing Data Services cleanup");
  queue_.reset();
  config_.reset();
  coreConfig_ = nullptr;
  persistent_ = nullptr;
}

// ---------------------------------------------------------------- submission

unsigned DataServicesManager::submitDataItem(const char* item) {
  LUM_TRACE(kDs);
  LockMutex lock(&TheCore().getMutex());
  if (TheCore().getDeviceAgentState() != Core::Initialized || !queue_) {
    return LUM_RESULT_NOT_INITIALIZED;
  }
  const bool queued = queue_->queueDataItem(item);
  TheCore().evaluateStateChanges();
  return queued ? LUM_RESULT_SUCCESS : LUM_RESULT_NOT_QUEUED;
}

// ---------------------------------------------------------------- scheduling

void DataServicesManager::cascadeStateChanges() {
  LUM_TRACE(kDs);
  if (!queue_) {
    return;
  }
  if (persistent_->testDsAllowedDataItemIds()) {
    installAllowedIds();
  }
  const UploadState previous = uploadState_;
  if (!uploadBusy_) {
    uploadState_ = chooseUploadState();
  }
  const bool changed = uploadState_ != previous;
  if (changed) {
    // A new state has a wait of its own, with a fresh jitter.
    deadlineSet_ = false;
  }
  if (uploadWaiting_ && (changed || isTerminating())) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "UploadControl delay being reset");
    sem_.reset();
  }
}

void DataServicesManager::installAllowedIds() {
  const std::set<std::string>& ids = persistent_->getDsAllowedDataItemIds();
  queue_->setAllowedDataItemIds(ids);
  CollectorManager::Instance()->cascadeStateChanges(ids);
  TheCore().signalStatusChange();
}

DataServicesManager::UploadState DataServicesManager::chooseUploadState() const {
  if (!uploadToken_.empty()) {
    return Upload;
  }
  // A package kept after a token answer without a token still waits to be
  // announced again, even when no newer item is queued behind it.
  if (queue_->isDataQueued() || queue_->isPackagePending()) {
    if (uploadRetry_) {
      return WaitRetry;
    }
    if (queue_->isAggressive(persistent_->getDsAggressiveQueuePercentage())) {
      return WaitAggressive;
    }
    return WaitStandard;
  }
  return Idle;
}

void DataServicesManager::getDelay(UploadState state, unsigned& fixedMs, unsigned& variedMs) const {
  const Core::PersistentValues& p = *persistent_;
  switch (state) {
    case WaitRetry:
      fixedMs = p.getDsRetryDelayFixedMs();
      variedMs = p.getDsRetryDelayVariedMs();
      break;
    case WaitAggressive:
      fixedMs = p.getDsAggressiveDelayFixedMs();
      variedMs = p.getDsAggressiveDelayVariedMs();
      break;
    default:
      fixedMs = p.getDsStandardDelayFixedMs();
      variedMs = p.getDsStandardDelayVariedMs();
      break;
  }
}

// The first wait after a start counts from the last upload before it, as
// usual, when that is still ahead; when it has passed (the device was off
// for a while) the startup delay from now applies instead, so that devices
// switched on together do not all upload at once.
void DataServicesManager::computeDeadline() {
  unsigned fixedMs = 0;
  unsigned variedMs = 0;
  getDelay(uploadState_, fixedMs, variedMs);
  CoreManager::updateTimestamp(lastUpload_, deadline_, fixedMs, variedMs);
  if (uploadStartupDelay_) {
    const timespec now = Core::Clock::MonotonicNow();
    if (Core::IsBefore(now, deadline_)) {
      LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
              "Using standard delay on data services startup");
    } else {
      LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
              "Using startup delay on data services startup");
      CoreManager::updateTimestamp(now, deadline_, persistent_->getDsStartupDelayFixedMs(),
                                   persistent_->getDsStartupDelayVariedMs());
    }
  }
  deadlineSet_ = true;
}

// ---------------------------------------------------------------- UploadControl

void* DataServicesManager::UploadControl(void* arg) {
  DataServicesManager* self = static_cast<DataServicesManager*>(arg);
  static const Core::ControlTexts kTexts = [] {
    Core::ControlTexts texts;
    texts.name = "UploadControl";
    texts.logsNotDelaying = true;
    return texts;
  }();
  Core::ControlLoop::Run(kTexts, kDs, TheCore().getMutex(), self->sem_, *self,
                         TheCore().transfersCancelled());
  return nullptr;
}

Core::ControlCycle::Step DataServicesManager::nextStep(timespec& deadline) {
  if (TheCore().getDeviceAgentState() != Core::Initialized) {
    return Step::Stop;
  }
  switch (uploadState_) {
    case Idle:
      return Step::WaitForever;
    case Upload:
      return Step::Call;
    default:
      if (!deadlineSet_) {
        computeDeadline();
      }
      deadline = deadline_;
      return Step::WaitUntil;
  }
}

std::string DataServicesManager::nextCallName() {
  return MicroServiceToString(uploadState_ == Upload ? UploadDataPackage : GetUploadToken);
}

void DataServicesManager::prepMicroService(Core::Http::Request& request) {
  const MicroService ms = uploadState_ == Upload ? UploadDataPackage : GetUploadToken;
  microService_ = ms;
  uploadStartupDelay_ = false;
  LUM_LOG(kDs, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s initiated",
          MicroServiceToString(ms));
  request.verb = Core::Http::POST;
  TheCore().setRequestIdentity(request);
  request.url = "https://" + persistent_->getCertOpid();
  if (ms == UploadDataPackage) {
    request.url += "-dsdata-" + uploadRegion_ + ".";
    uploadRegion_.clear();
  } else {
    request.url += "-ds.";
  }
  request.url += persistent_->getCertInstance() + "/api/v1/" +
                 (ms == UploadDataPackage ? "dsdata/upload/package" : "ds/uploadtoken");
  CoreManager::setRequestHeaderDate(request);
  CoreManager::setRequestHeaderAcceptJson(request);
  if (ms == GetUploadToken) {
    CoreManager::setRequestHeaderContentTypeJson(request);
    TheCore().setRequestHeaderAuthorizedGid(request);
    request.body = buildTokenRequestBody();
  } else {
    // Borrowed, not copied: the package is neither changed nor released
    // before this request's outcome is handled, and a copy would double the
    // largest allocation the agent makes.
    const std::string& package = queue_->marshalPackage();
    request.data = reinterpret_cast<const uint8_t*>(package.data());
    request.dataLength = static_cast<uint32_t>(package.size());
    request.token = std::move(uploadToken_);
    uploadToken_.clear();
  }
  request.connectTimeout = persistent_->getDsConnectTimeoutMs();
  request.messageTimeout = persistent_->getDsMessageTimeoutMs();
  uploadBusy_ = true;
  uploadRetry_ = false;
  deadlineSet_ = false;
  lastUpload_ = Core::Clock::MonotonicNow();
  TheCore().evaluateStateChanges();
}

std::string DataServicesManager::buildTokenRequestBody() {
  LumJson::Value body(LumJson::objectValue);
  body["dsPackageHash"] = queue_->hashPackage();
  body["daOpidSeqNum"] = persistent_->getOpidSeqNum();
  body["daGidSeqNum"] = persistent_->getGidSeqNum();
  return Core::JsonUtil::WriteCompact(body);
}

void DataServicesManager::postMicroService(Core::Http::Response& response) {
  if (isTerminating()) {
    // Whatever the answer, it is not acted on: the package stays as built
    // and is stored with the queue.
    return;
  }
  const MicroService ms = microService_;
  const long status = response.statusCode;
  uploadBusy_ = false;
  if (status < 300) {
    uploadRetry_ = false;
    if (ms == GetUploadToken) {
      getResponseBody(response.body);
    } else {
      releasePackage();
    }
  } else {
    handleFailure(ms, response);
  }
  TheCore().evaluateStateChanges();
  LUM_LOG(kDs, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s processed (%u)",
          MicroServiceToString(ms), static_cast<unsigned>(status));
}

void DataServicesManager::handleFailure(MicroService ms, const Core::Http::Response& response) {
  const long status = response.statusCode;
  if (ms == GetUploadToken && status == 422) {
    TheCore().retireGidToken();
  } else if (status == 428) {
    TheCore().setNotSynchronized();
  }
  uploadRetry_ = true;
  // A refused package is lost for good only when the server itself said so
  // and did not ask to come back later; everything else is tried again.
  if (ms == UploadDataPackage && status != 503 && response.answered) {
    releasePackage();
  } else {
    queue_->requeuePackage();
  }
}

// The first package after a start holds every item read from "data", so
// once it has left the agent (delivered, or refused for good) the stored copy
// would only bring those items back after a crash.
void DataServicesManager::releasePackage() {
  queue_->releasePackage();
  if (storedQueueLive_) {
    storedQueueLive_ = false;
    Core::FileUtil::Drop(coreConfig_->getPersistentPath(), queueFileName_);
  }
}

void DataServicesManager::getResponseBody(const std::string& body) {
  LumJson::Value answer;
  if (!Core::JsonUtil::ParseObject(body, answer)) {
    return;
  }
  uploadToken_ = Core::JsonUtil::ReadText(answer, "dsUploadToken", uploadToken_);
  uploadRegion_ = Core::JsonUtil::ReadText(answer, "dsUploadRegion", uploadRegion_);
}

// ---------------------------------------------------------------- files

void DataServicesManager::loadTimeFile() {
  LumJson::Value stored;
  bool complete = false;
  timespec last{};
  const TimeFile::Result result =
      TimeFile::Load(coreConfig_->getPersistentPath(), timeFileName_, stored, last, complete);
  if (result == TimeFile::Invalid) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, TimeFile::kIgnoredLine,
            timeFileName_.c_str());
  } else if (result == TimeFile::InFuture) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Problem reading %s, last upload is in the future. Defaulting to monotonic start as "
            "reference.",
            timeFileName_.c_str());
  } else if (result == TimeFile::Ok && complete) {
    lastUpload_ = last;
  }
}

void DataServicesManager::storeTimeFile() {
  timespec wall{};
  const TimeFile::Result result = TimeFile::ToWall(lastUpload_, wall);
  if (result == TimeFile::ElapsedNegative) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Problem storing %s, elapsed time is in the future. Defaulting to current time.",
            timeFileName_.c_str());
  } else if (result == TimeFile::InFuture) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Problem storing %s, last upload is in the future. Defaulting to current time.",
            timeFileName_.c_str());
  }
  LumJson::Value stored;
  TimeFile::Store(coreConfig_->getPersistentPath(), timeFileName_, wall, stored);
}

// The queue holds up to half of maximumDataBytes, and the package text built
// from it fits in the other half, so the stored package never needs more.
size_t DataServicesManager::queueFileLimit() const {
  return std::max<size_t>(Core::FileUtil::kDefaultMaxBytes, config_->getMaximumDataBytes());
}

// The file stays until a newer queue replaces it or its items have left the
// agent: deleting it as soon as it is read would lose every item should the
// store at the next stop fail (a full or read-only disk). A crash in between
// may upload some items twice; the back end sees each item at least once.
void DataServicesManager::loadQueueFile() {
  const std::string& path = coreConfig_->getPersistentPath();
  const std::string text = Core::FileUtil::Load(path, queueFileName_, queueFileLimit());
  if (text.empty()) {
    return;
  }
  if (!queue_->unmarshalPackage(text)) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Ignoring %s%s, it does not hold a stored queue", path.c_str(), queueFileName_.c_str());
    return;
  }
  storedQueueLive_ = queue_->isDataQueued();
}

void DataServicesManager::storeQueueFile() {
  // A package that was built but not delivered goes back in front of the
  // queue first, so that items queued behind it are stored as well.
  if (queue_->isPackagePending()) {
    queue_->requeuePackage();
  }
  queue_->hashPackage();
  Core::FileUtil::Store(coreConfig_->getPersistentPath(), queueFileName_, queue_->marshalPackage(),
                        queueFileLimit());
}

// ---------------------------------------------------------------- logging

void DataServicesManager::logStatusInfo() {
  LUM_TRACE(kDs);
  if (queue_) {
    queue_->logStateInfo();
  }
}

}  // namespace Ds
}  // namespace Lum
