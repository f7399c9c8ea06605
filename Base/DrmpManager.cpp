#include "Base/DrmpManager.h"

#include <lum.h>

#include <algorithm>

#include "Base/CoreConfig.h"
#include "Base/CoreManager.h"
#include "Base/DrmpConfig.h"
#include "Base/DrmpStore.h"
#include "Base/PersistentValues.h"
#include "Base/ProductIdentity.h"
#include "Base/SignedDocument.h"
#include "Platform/Clock.h"
#include "Platform/ExceptionBarrier.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/Sha256Util.h"
#include "Platform/ThreadUtil.h"
#include "Platform/UnlockMutex.h"

LUM_SOURCE_FILE("Base/DrmpManager");

namespace Lum {
namespace Drmp {

using Core::CoreManager;
using Core::LockMutex;
using FP = Core::FilterProperties;

namespace {

constexpr int kDrmp = FP::SERVICE_DRMP;
// The signed list names a few hundred objects at most; anything longer is
// not a list, and must not make the agent allocate without bound.
constexpr size_t kMaxListBytes = 1024 * 1024;
constexpr size_t kMaxReportAnswerBytes = 64 * 1024;
// Kept free beside a new object, so that an install never fills the disk
// the television itself writes to.
constexpr uint64_t kSpareBytes = 1024 * 1024;

CoreManager& TheCore() {
  return *CoreManager::Instance();
}

LumJson::Value NameAndVersion(const std::string& name, const std::string& version) {
  LumJson::Value item(LumJson::objectValue);
  item["name"] = name;
  item["version"] = version;
  return item;
}

}  // namespace

// Never destroyed: the host may exit while DrmpControl runs.
DrmpManager* DrmpManager::Instance() {
  static DrmpManager* const instance = new DrmpManager();
  return instance;
}

DrmpManager::DrmpManager() : sem_(TheCore().getMutex()) {}

const char* DrmpManager::MicroServiceToString(int microService) {
  static const char* const kNames[] = {"GetObjects", "GetObject", "PostReport"};
  return microService >= GetObjects && microService <= PostReport ? kNames[microService]
                                                                  : "Unknown";
}

bool DrmpManager::isTerminating() const {
  return terminating_ || TheCore().getDeviceAgentState() != Core::Initialized;
}

// Without a GID token the back end could only refuse the calls, and its
// refusal would retire the token the core is about to get.
bool DrmpManager::registered() const {
  return persistent_ != nullptr && !persistent_->getGidToken().empty();
}

// ---------------------------------------------------------------- lifecycle

void DrmpManager::initialize(const Core::ManagerContext& context) {
  LUM_TRACE(kDrmp);
  config_.reset(new DrmpConfig(context.configText));
  coreConfig_ = context.config;
  identity_ = context.identity;
  persistent_ = context.persistent;
  store_.reset(new DrmpStore(coreConfig_->getPersistentPath(), config_->getMaxObjectBytes()));
  terminating_ = false;
  waiting_ = false;
  waitingForToken_ = false;
  // Every start checks once the device is registered: the list may have
  // changed while the television was off.
  checkRequested_ = true;
  resetRound();
  retries_ = 0;
  retryWanted_ = false;
  nextCheck_ = Core::Clock::MonotonicNow();
  // A wake given by the previous run's terminateBegin that no wait took
  // must not cut this run's first wait short.
  sem_.clear();
  config_->logStateDebug();
  if (!config_->getEnabled()) {
    // A back end that does not serve DRMP would only answer 404 at every
    // check; the integrator turns it on with the configuration's section.
    LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DRMP not configured, no checks");
    return;
  }
  Core::ThreadUtil::Start(thread_, DrmpControl, this, "DrmpControl");
}

void DrmpManager::terminateBegin() {
  terminating_ = true;
  sem_.reset();
  LUM_TRACE(kDrmp);
  LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "DrmpControl delay being reset");
}

void DrmpManager::terminateEnd() {
  LUM_TRACE(kDrmp);
  LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for DrmpControl to join");
  Core::ThreadUtil::Join(thread_);
  LockMutex lock(&TheCore().getMutex());
  if (TheCore().getDeviceAgentState() == Core::FactoryResetting && store_) {
    // Nothing the back end installed for this device may survive a reset.
    store_->drop();
  }
  LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Performing DRMP cleanup");
  resetRound();
  body_ = std::vector<uint8_t>();
  store_.reset();
  config_.reset();
  coreConfig_ = nullptr;
  identity_ = nullptr;
  persistent_ = nullptr;
}

unsigned DrmpManager::checkForDrmpUpdate() {
  LUM_TRACE(kDrmp);
  LockMutex lock(&TheCore().getMutex());
  const Core::DeviceAgentState state = TheCore().getDeviceAgentState();
  if (state == Core::Terminating || state == Core::FactoryResetting) {
    return LUM_RESULT_TERMINATING;
  }
  if (state != Core::Initialized || !config_ || !config_->getEnabled()) {
    return LUM_RESULT_NOT_INITIALIZED;
  }
  checkRequested_ = true;
  TheCore().evaluateStateChanges();
  return LUM_RESULT_SUCCESS;
}

void DrmpManager::cascadeStateChanges() {
  if (!config_ || !waiting_) {
    return;
  }
  // Once registered, a thread that waited for the token decides afresh: its
  // scheduled check may have fallen due meanwhile.
  if (isTerminating() || (registered() && (checkRequested_ || waitingForToken_))) {
    LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "DrmpControl delay being reset");
    sem_.reset();
  }
}

// ---------------------------------------------------------------- DrmpControl

void* DrmpManager::DrmpControl(void* arg) {
  DrmpManager* self = static_cast<DrmpManager*>(arg);
  static const Core::ControlTexts kTexts = [] {
    Core::ControlTexts texts;
    texts.name = "DrmpControl";
    texts.delayNamesCall = true;
    texts.logsDelayed = true;
    return texts;
  }();
  // The store is checked before the first round, off the core mutex: it
  // reads every object once.
  Core::ExceptionBarrier::Run("DrmpControl", [self] { self->store_->recover(); });
  Core::ControlLoop::Run(kTexts, kDrmp, TheCore().getMutex(), self->sem_, *self,
                         TheCore().transfersCancelled());
  return nullptr;
}

DrmpManager::MicroService DrmpManager::currentCall() const {
  switch (phase_) {
    case Fetching:
      return GetObject;
    case Reporting:
      return PostReport;
    default:
      return GetObjects;
  }
}

Core::ControlCycle::Step DrmpManager::nextStep(timespec& deadline) {
  if (isTerminating() || !config_) {
    return Step::Stop;
  }
  waitingForToken_ = !registered();
  if (waitingForToken_) {
    // A round cut short by a retired token starts again once registered.
    if (phase_ != Idle) {
      checkRequested_ = true;
      endRound();
    }
    return Step::WaitForever;
  }
  switch (phase_) {
    case Idle:
      if (!checkRequested_ && Core::IsBefore(Core::Clock::MonotonicNow(), nextCheck_)) {
        deadline = nextCheck_;
        return Step::WaitUntil;
      }
      checkRequested_ = false;
      phase_ = Listing;
      return Step::Call;
    case Fetching:
      if (nextObjectToFetch()) {
        return Step::Call;
      }
      deleteUnlisted();
      phase_ = Reporting;
      return Step::Call;
    default:
      return Step::Call;
  }
}

std::string DrmpManager::nextCallName() {
  return MicroServiceToString(currentCall());
}

void DrmpManager::prepMicroService(Core::Http::Request& request) {
  const MicroService ms = currentCall();
  prepared_ = ms;
  LUM_LOG(kDrmp, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s initiated",
          MicroServiceToString(ms));
  request.verb = ms == PostReport ? Core::Http::POST : Core::Http::GET;
  TheCore().setRequestIdentity(request);
  std::string path = "drmp/objects";
  if (ms == GetObject) {
    path = toFetch_[fetchIndex_].path;
  } else if (ms == PostReport) {
    path = "drmp/report";
  }
  request.url = "https://" + persistent_->getCertOpid() + "-drmp." +
                persistent_->getCertInstance() + "/api/v1/" + path;
  CoreManager::setRequestHeaderDate(request);
  CoreManager::setRequestHeaderAcceptJson(request);
  TheCore().setRequestHeaderAuthorizedGid(request);
  if (ms == PostReport) {
    CoreManager::setRequestHeaderContentTypeJson(request);
    request.body = buildReport();
  }
  request.connectTimeout = Core::Http::ClampConnectTimeoutMs(config_->getConnectTimeoutMs());
  request.messageTimeout = Core::Http::ClampMessageTimeoutMs(config_->getMessageTimeoutMs());
}

// An object's body is taken up to one byte past its listed size, so that a
// longer one is told apart without receiving the rest of it.
void DrmpManager::prepResponse(Core::Http::Response& response) {
  size_t limit = kMaxReportAnswerBytes;
  if (prepared_ == GetObjects) {
    limit = kMaxListBytes;
  } else if (prepared_ == GetObject) {
    limit = static_cast<size_t>(toFetch_[fetchIndex_].size) + 1;
  }
  body_.assign(limit, 0);
  response.bodyBuffer = body_.data();
  response.bodyMaxLength = static_cast<uint32_t>(limit);
  response.bodyLength = 0;
  response.stopAtMaxLength = true;
}

void DrmpManager::postMicroService(Core::Http::Response& response) {
  if (isTerminating()) {
    // Cut short by the stop: nothing of this round is acted on, and the
    // next start checks again.
    body_ = std::vector<uint8_t>();
    return;
  }
  const MicroService ms = prepared_;
  switch (ms) {
    case GetObjects:
      takeList(response);
      break;
    case GetObject:
      takeObject(response);
      ++fetchIndex_;
      break;
    case PostReport:
      if (response.statusCode >= 300) {
        handleFailure(response);
      }
      endRound();
      break;
  }
  body_ = std::vector<uint8_t>();
  LUM_LOG(kDrmp, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s processed (%u)",
          MicroServiceToString(ms), static_cast<unsigned>(response.statusCode));
  TheCore().evaluateStateChanges();
}

void DrmpManager::handleFailure(const Core::Http::Response& response) {
  if (response.statusCode == 422) {
    // The check runs again as soon as the core has registered anew.
    TheCore().retireGidToken();
    checkRequested_ = true;
  } else if (response.statusCode == 428) {
    TheCore().setNotSynchronized();
  }
  if (!response.answered || response.statusCode >= 500) {
    retryWanted_ = true;
  }
}

// ---------------------------------------------------------------- the round

void DrmpManager::takeList(const Core::Http::Response& response) {
  if (response.statusCode != 200 || response.bodyOverflow) {
    LUM_LOG(kDrmp, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_WARNING,
            "DRMP list not received (%u%s), objects kept as they are",
            static_cast<unsigned>(response.statusCode), response.bodyOverflow ? ", too long" : "");
    handleFailure(response);
    endRound();
    return;
  }
  const std::string envelope(reinterpret_cast<const char*>(body_.data()), response.bodyLength);
  std::string document;
  std::string why;
  std::vector<DrmpEntry> entries;
  std::vector<DrmpRefusal> refused;
  if (!Core::SignedDocument::Open(envelope, identity_->getTrust(), document, why) ||
      !DrmpDocument::Parse(document, config_->getMaxObjects(), entries, refused, why)) {
    LUM_LOG(kDrmp, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_WARNING,
            "DRMP list refused: %s; nothing fetched, objects kept as they are", why.c_str());
    endRound();
    return;
  }
  planRound(entries, refused);
}

// Objects already installed count against the total first: a new object
// that does not fit must not push out one the device holds.
void DrmpManager::planRound(const std::vector<DrmpEntry>& entries,
                            const std::vector<DrmpRefusal>& refused) {
  for (const DrmpRefusal& refusal : refused) {
    LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "DRMP object \"%s\" refused: %s",
            refusal.name.c_str(), refusal.reason.c_str());
    LumJson::Value item(LumJson::objectValue);
    item["name"] = refusal.name;
    item["reason"] = refusal.reason;
    failedReport_.append(item);
    // Listed, if under a usable name: what is installed under it stays.
    if (DrmpDocument::IsValidName(refusal.name)) {
      listed_.insert(refusal.name);
    }
  }
  const auto& installed = store_->installed();
  uint64_t total = 0;
  std::vector<const DrmpEntry*> candidates;
  for (const DrmpEntry& entry : entries) {
    listed_.insert(entry.name);
    const auto it = installed.find(entry.name);
    if (it != installed.end() && it->second.version == entry.version &&
        it->second.sha256 == entry.sha256) {
      keptReport_.append(NameAndVersion(entry.name, entry.version));
      total += it->second.size;
    } else {
      candidates.push_back(&entry);
    }
  }
  for (const DrmpEntry* entry : candidates) {
    if (entry->size > config_->getMaxObjectBytes()) {
      fail(entry->name, "larger than the object limit");
    } else if (total + entry->size > config_->getMaxTotalBytes()) {
      fail(entry->name, "over the total limit");
    } else {
      total += entry->size;
      toFetch_.push_back(*entry);
    }
  }
  LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
          "DRMP list: %u listed, %u to fetch, %u kept, %u refused",
          static_cast<unsigned>(entries.size() + refused.size()),
          static_cast<unsigned>(toFetch_.size()), static_cast<unsigned>(keptReport_.size()),
          static_cast<unsigned>(failedReport_.size()));
  fetchIndex_ = 0;
  phase_ = Fetching;
}

bool DrmpManager::nextObjectToFetch() {
  while (fetchIndex_ < toFetch_.size()) {
    const DrmpEntry& entry = toFetch_[fetchIndex_];
    if (store_->freeBytes() >= entry.size + kSpareBytes) {
      return true;
    }
    fail(entry.name, "no room on the disk");
    ++fetchIndex_;
  }
  return false;
}

void DrmpManager::takeObject(const Core::Http::Response& response) {
  const DrmpEntry entry = toFetch_[fetchIndex_];
  if (response.statusCode != 200) {
    handleFailure(response);
    fail(entry.name, response.answered ? "status " + std::to_string(response.statusCode)
                                       : std::string("transfer failed"));
    return;
  }
  if (response.bodyLength != entry.size) {
    fail(entry.name, "wrong size");
    return;
  }
  const std::string bytes(reinterpret_cast<const char*>(body_.data()), response.bodyLength);
  body_ = std::vector<uint8_t>();
  std::string why;
  bool installed = false;
  {
    // Hashing and writing take as long as the object is large; the host's
    // calls must not wait for them.
    Core::UnlockMutex unlocked(TheCore().getMutex());
    std::string digest;
    Core::Sha256Util::Hash(bytes, digest);
    if (digest != entry.sha256) {
      why = "wrong sha256";
    } else {
      installed = store_->install(entry, bytes, why);
    }
  }
  if (!installed) {
    fail(entry.name, why);
    return;
  }
  LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DRMP object %s version %s installed",
          entry.name.c_str(), entry.version.c_str());
  installedReport_.append(NameAndVersion(entry.name, entry.version));
}

void DrmpManager::deleteUnlisted() {
  std::vector<std::string> unlisted;
  for (const auto& item : store_->installed()) {
    if (listed_.count(item.first) == 0) {
      unlisted.push_back(item.first);
    }
  }
  std::vector<std::string> deleted;
  {
    Core::UnlockMutex unlocked(TheCore().getMutex());
    for (const std::string& name : unlisted) {
      if (store_->remove(name)) {
        deleted.push_back(name);
      }
    }
  }
  for (const std::string& name : unlisted) {
    if (std::find(deleted.begin(), deleted.end(), name) != deleted.end()) {
      LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DRMP object %s deleted", name.c_str());
      deletedReport_.append(name);
    } else {
      fail(name, "cannot delete");
    }
  }
}

void DrmpManager::fail(const std::string& name, const std::string& reason) {
  LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
          "DRMP object %s failed: %s; the installed version, if any, is kept", name.c_str(),
          reason.c_str());
  LumJson::Value item(LumJson::objectValue);
  item["name"] = name;
  item["reason"] = reason;
  failedReport_.append(item);
}

std::string DrmpManager::buildReport() const {
  LumJson::Value report(LumJson::objectValue);
  report["installed"] = installedReport_;
  report["deleted"] = deletedReport_;
  report["failed"] = failedReport_;
  report["kept"] = keptReport_;
  return Core::JsonUtil::WriteCompact(report);
}

// A round that met a transport failure or a 5xx (of the list or of an
// object) is repeated after the retry delay, a limited number of times;
// otherwise the next check follows the schedule.
void DrmpManager::endRound() {
  const timespec now = Core::Clock::MonotonicNow();
  if (retryWanted_ && retries_ < config_->getMaxRetries()) {
    ++retries_;
    nextCheck_ = Core::AddMilliseconds(now, config_->getRetryDelayMs());
    LUM_LOG(kDrmp, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DRMP check %u of %u again in %u ms",
            retries_, config_->getMaxRetries(), config_->getRetryDelayMs());
  } else {
    retries_ = 0;
    nextCheck_ = Core::AddMilliseconds(now, config_->getCheckIntervalMs());
  }
  retryWanted_ = false;
  resetRound();
}

// A round cut short by a stop leaves its findings behind; the next start
// begins from nothing.
void DrmpManager::resetRound() {
  phase_ = Idle;
  toFetch_.clear();
  fetchIndex_ = 0;
  listed_.clear();
  installedReport_ = LumJson::Value(LumJson::arrayValue);
  deletedReport_ = LumJson::Value(LumJson::arrayValue);
  failedReport_ = LumJson::Value(LumJson::arrayValue);
  keptReport_ = LumJson::Value(LumJson::arrayValue);
}

}  // namespace Drmp
}  // namespace Lum
