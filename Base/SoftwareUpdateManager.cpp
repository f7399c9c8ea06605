#include "Base/SoftwareUpdateManager.h"

#include <algorithm>
#include <cctype>

#include "Base/CoreConfig.h"
#include "Base/CoreManager.h"
#include "Base/EventManager.h"
#include "Base/PersistentValues.h"
#include "Base/ProductIdentity.h"
#include "Base/SignedDocument.h"
#include "Base/SoftwareUpdateConfig.h"
#include "Base/StagingFile.h"
#include "Platform/Clock.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/StringUtil.h"
#include "Platform/ThreadUtil.h"

LUM_SOURCE_FILE("Base/SoftwareUpdateManager");

namespace Lum {
namespace Su {

using Core::CoreManager;
using Core::LockMutex;
using FP = Core::FilterProperties;

namespace {

constexpr int kSu = FP::SERVICE_SU;
constexpr const char* kStateFileName = "suState";
// An envelope lists one hash per block: 2 MiB hold some 30000 of them, a
// payload of almost 2 GB in blocks of 64 KiB.
constexpr size_t kMaxEnvelopeBytes = 2 * 1024 * 1024;
constexpr size_t kMaxStateFileBytes = kMaxEnvelopeBytes + 64 * 1024;
// One request's body is held in memory, so it is bounded whatever the
// update's block size; a larger block takes several requests.
constexpr uint64_t kMaxRequestBytes = 1024 * 1024;

CoreManager& TheCore() {
  return *CoreManager::Instance();
}

bool IsHexHash(const std::string& text) {
  return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
         });
}

// The location goes into a query: everything but unreserved characters is
// escaped, so it can neither end the query nor add parameters.
std::string QueryEscape(const std::string& text) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string escaped;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      escaped += static_cast<char>(c);
    } else {
      escaped += '%';
      escaped += kDigits[c >> 4];
      escaped += kDigits[c & 0x0f];
    }
  }
  return escaped;
}

// The payload of a local envelope is named relative to the envelope.
std::string LocalPayloadPath(const std::string& envelopePath, const std::string& payload) {
  if (!payload.empty() && payload[0] == '/') {
    return payload;
  }
  const size_t slash = envelopePath.rfind('/');
  return slash == std::string::npos ? payload : envelopePath.substr(0, slash + 1) + payload;
}

}  // namespace

const char* LumSoftwareUpdateSourceToString(int source) {
  switch (source) {
    case 0:
      return "Local";
    case 1:
      return "Network";
    default:
      return "Unknown";
  }
}

const char* LumSoftwareUpdatePermissionToString(int permission) {
  static const char* const kNames[] = {"None", "Download", "Confirm"};
  return permission >= 0 && permission <= 2 ? kNames[permission] : "Unknown";
}

const char* LumSoftwareUpdateStateToString(int state) {
  static const char* const kNames[] = {"NotAvailable", "Failed",    "Available",
                                       "Downloaded",   "Confirmed", "Unsupported"};
  return state >= 0 && state <= 5 ? kNames[state] : "Unknown";
}

const char* SoftwareUpdateManager::MicroServiceToString(int microService) {
  static const char* const kNames[] = {"GetMetadata", "GetPayloadBlock", "CheckStaging",
                                       "DownloadComplete", "NoCall"};
  return microService >= 0 && microService <= NoCall ? kNames[microService] : "Unknown";
}

bool SoftwareUpdateManager::Offer::sameAs(const Offer& other) const {
  return version == other.version && sha256 == other.sha256 && size == other.size &&
         blockSize == other.blockSize && blockHashes == other.blockHashes &&
         payload == other.payload;
}

// Never destroyed: the host may exit while UpdateControl runs.
SoftwareUpdateManager* SoftwareUpdateManager::Instance() {
  static SoftwareUpdateManager* const instance = new SoftwareUpdateManager();
  return instance;
}

SoftwareUpdateManager::SoftwareUpdateManager() : sem_(TheCore().getMutex()) {}

bool SoftwareUpdateManager::isTerminating() const {
  return TheCore().getDeviceAgentState() != Core::Initialized;
}

// ---------------------------------------------------------------- lifecycle

void SoftwareUpdateManager::initialize(const Core::ManagerContext& context) {
  LUM_TRACE(kSu);
  config_.reset(new SoftwareUpdateConfig(context.configText));
  coreConfig_ = context.config;
  identity_ = context.identity;
  persistent_ = context.persistent;
  source_ = SourceNetwork;
  localLocation_.clear();
  networkMetadata_.clear();
  permission_ = PermissionNone;
  state_ = LumSoftwareUpdateNotAvailable;
  offer_ = Offer();
  verified_ = 0;
  pieceDone_ = 0;
  emptyStaging_ = false;
  spaceChecked_ = false;
  checkWanted_ = false;
  fetchWanted_ = false;
  failures_ = 0;
  retryArmed_ = false;
  waiting_ = false;
  prepared_ = NoCall;
  // A wake given by the previous run's shutdown must not cut this run's
  // first wait short.
  sem_.clear();
  loadState();
  stateLoaded_ = true;
  reportedPercent_ = percent();
  // The back end announces an update with an event; it names the source.
  Core::EventManager::Instance()->setUpdateSourceSetter(
      [](uint32_t, const std::string& parameters) {
        Instance()->setSource(SourceNetwork, parameters, false);
        return true;
      });
  Core::ThreadUtil::Start(thread_, UpdateControl, this, "UpdateControl");
}

void SoftwareUpdateManager::terminateBegin() {
  sem_.reset();
  LUM_TRACE(kSu);
  if (waiting_) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "UpdateControl delay being reset");
  }
}

void SoftwareUpdateManager::terminateEnd() {
  LUM_TRACE(kSu);
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for UpdateControl to join");
  Core::ThreadUtil::Join(thread_);
  LockMutex lock(&TheCore().getMutex());
  // Progress is stored as it is made, so a stop has nothing left to store.
  if (TheCore().getDeviceAgentState() == Core::FactoryResetting && coreConfig_ != nullptr) {
    // Nothing of this device's past may survive a factory reset.
    Core::FileUtil::Drop(coreConfig_->getPersistentPath(), kStateFileName);
    if (config_) {
      std::string why;
      StagingFile::Truncate(config_->getStagingLocation(), 0, why);
    }
  }
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Performing Software Update cleanup");
  stateLoaded_ = false;
  offer_ = Offer();
  job_ = Job();
  config_.reset();
  coreConfig_ = nullptr;
  identity_ = nullptr;
  persistent_ = nullptr;
}

// ---------------------------------------------------------------- host calls

unsigned SoftwareUpdateManager::setSource(unsigned source, const std::string& location,
                                          bool explicitCall) {
  LUM_TRACE(kSu);
  bool askCore = false;
  {
    LockMutex lock(&TheCore().getMutex());
    if (TheCore().getDeviceAgentState() != Core::Initialized || !config_) {
      return LUM_RESULT_NOT_INITIALIZED;
    }
    // The back end may only steer an update it announced itself; the host's
    // own choice of a local update stands until the host changes it.
    const bool taken = explicitCall || source == SourceLocal ||
                       (source_ == SourceNetwork && state_ != LumSoftwareUpdateConfirmed);
    if (!taken || state_ == LumSoftwareUpdateConfirmed) {
      return LUM_RESULT_SUCCESS;
    }
    if (source == SourceLocal) {
      source_ = SourceLocal;
      localLocation_ = location;
      networkMetadata_.clear();
      LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Local Location: %s", location.c_str());
    } else {
      askCore = source_ == SourceLocal;
      source_ = SourceNetwork;
      localLocation_.clear();
      networkMetadata_ = location;
      LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Network Metadata: %s", location.c_str());
    }
    fetchWanted_ = true;
    failures_ = 0;
    retryArmed_ = false;
    storeState();
    wake();
  }
  // Outside the mutex: the core takes it itself.
  if (askCore) {
    TheCore().checkForSoftwareUpdate();
  }
  return LUM_RESULT_SUCCESS;
}

unsigned SoftwareUpdateManager::setPermission(unsigned permission) {
  LUM_TRACE(kSu);
  LockMutex lock(&TheCore().getMutex());
  if (TheCore().getDeviceAgentState() != Core::Initialized || !config_) {
    return LUM_RESULT_NOT_INITIALIZED;
  }
  // Before an update is offered there is nothing to permit; after a failure
  // the permission waits for the next offer.
  if (state_ >= LumSoftwareUpdateAvailable && permission != static_cast<unsigned>(permission_)) {
    permission_ = static_cast<Permission>(permission);
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Permission: %s",
            LumSoftwareUpdatePermissionToString(permission_));
    storeState();
    TheCore().signalStatusChange();
    wake();
  }
  return LUM_RESULT_SUCCESS;
}

void SoftwareUpdateManager::wake() {
  if (waiting_) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "UpdateControl delay being reset");
    sem_.reset();
  }
}

void SoftwareUpdateManager::cascadeStateChanges() {
  if (isTerminating() && waiting_) {
    sem_.reset();
  }
}

// ---------------------------------------------------------------- UpdateControl

void* SoftwareUpdateManager::UpdateControl(void* arg) {
  SoftwareUpdateManager* self = static_cast<SoftwareUpdateManager*>(arg);
  static const Core::ControlTexts kTexts = [] {
    Core::ControlTexts texts;
    texts.name = "UpdateControl";
    texts.delayNamesCall = true;
    texts.indefiniteWaitEnded = "woken";
    return texts;
  }();
  Core::ControlLoop::Run(kTexts, kSu, TheCore().getMutex(), self->sem_, *self,
                         TheCore().transfersCancelled());
  return nullptr;
}

// What the update needs next, in order: a fetch the host or back end asked
// for, a check of the staging file, the next block, the confirmation.
SoftwareUpdateManager::MicroService SoftwareUpdateManager::chooseWork() {
  if (fetchWanted_) {
    return GetMetadata;
  }
  if (state_ != LumSoftwareUpdateAvailable && state_ != LumSoftwareUpdateDownloaded) {
    return NoCall;
  }
  if (checkWanted_) {
    return CheckStaging;
  }
  if (state_ == LumSoftwareUpdateAvailable) {
    return permission_ == PermissionNone ? NoCall : GetPayloadBlock;
  }
  if (permission_ != PermissionConfirm) {
    return NoCall;
  }
  if (source_ == SourceNetwork) {
    return DownloadComplete;
  }
  // A local update has no back end to tell.
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Software update %s confirmed",
          offer_.version.c_str());
  setState(LumSoftwareUpdateConfirmed);
  storeState();
  return NoCall;
}

Core::ControlCycle::Step SoftwareUpdateManager::nextStep(timespec& deadline) {
  if (isTerminating() || !stateLoaded_) {
    return Step::Stop;
  }
  if (chooseWork() == NoCall) {
    retryArmed_ = false;
    return Step::WaitForever;
  }
  if (retryArmed_) {
    // A passed deadline makes the loop call at once.
    deadline = retryAt_;
    if (!Core::IsBefore(Core::Clock::MonotonicNow(), retryAt_)) {
      retryArmed_ = false;
    }
    return Step::WaitUntil;
  }
  return Step::Call;
}

std::string SoftwareUpdateManager::nextCallName() {
  return MicroServiceToString(chooseWork());
}

uint64_t SoftwareUpdateManager::pieceLimit() const {
  uint64_t limit = std::min<uint64_t>(offer_.blockSize, kMaxRequestBytes);
  const uint32_t configured = config_->getMaxBlockSizeBytes();
  if (configured != 0) {
    limit = std::min<uint64_t>(limit, configured);
  }
  return limit;
}

std::string SoftwareUpdateManager::apiUrl(const std::string& path) const {
  return "https://" + persistent_->getCertOpid() + "-su." + persistent_->getCertInstance() +
         "/api/v1/" + path;
}

void SoftwareUpdateManager::prepMicroService(Core::Http::Request& request) {
  const MicroService ms = chooseWork();
  prepared_ = ms;
  LUM_LOG(kSu, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s initiated",
          MicroServiceToString(ms));
  job_.ms = ms;
  job_.local = source_ == SourceLocal;
  job_.stagingPath = config_->getStagingLocation();
  job_.outcome = Outcome::Retry;
  job_.why.clear();
  job_.text.clear();
  const Core::PersistentValues& p = *persistent_;
  request.keepAlive = true;
  TheCore().setRequestIdentity(request);
  switch (ms) {
    case GetMetadata:
      fetchWanted_ = false;
      job_.sourcePath = localLocation_;
      request.verb = Core::Http::GET;
      request.url =
          apiUrl(networkMetadata_.empty() ? "su/metadata"
                                          : "su/metadata?update=" + QueryEscape(networkMetadata_));
      Core::CoreManager::setRequestHeaderDate(request);
      Core::CoreManager::setRequestHeaderAcceptJson(request);
      TheCore().setRequestHeaderAuthorizedGid(request);
      request.connectTimeout = p.getSuConnectTimeoutMs();
      request.messageTimeout = p.getSuMessageTimeoutMs();
      break;
    case GetPayloadBlock: {
      const uint64_t blockIndex = verified_ / offer_.blockSize;
      const uint64_t blockLength = std::min<uint64_t>(offer_.blockSize, offer_.size - verified_);
      job_.offset = verified_ + pieceDone_;
      job_.length = std::min<uint64_t>(pieceLimit(), blockLength - pieceDone_);
      job_.emptyStagingFirst = emptyStaging_ && verified_ == 0 && pieceDone_ == 0;
      job_.checkSpace = !spaceChecked_;
      job_.payloadSize = offer_.size;
      job_.completesBlock = pieceDone_ + job_.length == blockLength;
      job_.blockStart = verified_;
      job_.blockLength = blockLength;
      job_.blockHash = offer_.blockHashes[static_cast<size_t>(blockIndex)];
      job_.sourcePath = LocalPayloadPath(localLocation_, offer_.payload);
      request.verb = Core::Http::GET;
      request.url = apiUrl(offer_.payload);
      request.headers.push_back("Range: bytes=" + std::to_string(job_.offset) + "-" +
                                std::to_string(job_.offset + job_.length - 1));
      TheCore().setRequestHeaderAuthorizedGid(request);
      request.connectTimeout = p.getSuStagingConnectTimeoutMs();
      request.messageTimeout = p.getSuStagingMessageTimeoutMs();
      break;
    }
    case CheckStaging:
      job_.good = 0;
      job_.whole.clear();
      job_.offset = verified_;  // what is claimed
      job_.payloadSize = offer_.size;
      job_.blockSize = offer_.blockSize;
      job_.blockHashes = offer_.blockHashes;
      job_.wholeHash = offer_.sha256;
      break;
    case DownloadComplete: {
      request.verb = Core::Http::POST;
      request.url = apiUrl("su/download/complete");
      Core::CoreManager::setRequestHeaderDate(request);
      Core::CoreManager::setRequestHeaderAcceptJson(request);
      Core::CoreManager::setRequestHeaderContentTypeJson(request);
      TheCore().setRequestHeaderAuthorizedGid(request);
      LumJson::Value body(LumJson::objectValue);
      body["version"] = offer_.version;
      body["sha256"] = offer_.sha256;
      request.body = Core::JsonUtil::WriteCompact(body);
      request.connectTimeout = p.getSuConnectTimeoutMs();
      request.messageTimeout = p.getSuMessageTimeoutMs();
      break;
    }
    case NoCall:
      break;
  }
}

// ---------------------------------------------------------------- without the mutex

void SoftwareUpdateManager::perform(Core::Http::Request& request, Core::Http::Response& response) {
  switch (job_.ms) {
    case GetMetadata:
      performMetadata(request, response);
      break;
    case GetPayloadBlock:
      performBlock(request, response);
      break;
    case CheckStaging:
      performCheck();
      break;
    case DownloadComplete:
      if (job_.local) {
        response.statusCode = 200;
      } else {
        Core::Http::Perform(request, response);
      }
      break;
    case NoCall:
      break;
  }
}

void SoftwareUpdateManager::performMetadata(Core::Http::Request& request,
                                            Core::Http::Response& response) {
  if (job_.local) {
    const int64_t size = StagingFile::Size(job_.sourcePath);
    if (size <= 0 || static_cast<uint64_t>(size) > kMaxEnvelopeBytes) {
      job_.outcome = Outcome::Fail;
      job_.why = "no usable envelope file at " + job_.sourcePath;
      return;
    }
    job_.buffer.resize(static_cast<size_t>(size));
    if (!StagingFile::ReadAt(job_.sourcePath, 0, job_.buffer.data(), job_.buffer.size(),
                             job_.why)) {
      job_.outcome = Outcome::Fail;
      return;
    }
    job_.text.assign(job_.buffer.begin(), job_.buffer.end());
    job_.outcome = Outcome::Done;
    job_.buffer = std::vector<uint8_t>();
    return;
  }
  job_.buffer.resize(kMaxEnvelopeBytes);
  response.bodyBuffer = job_.buffer.data();
  response.bodyMaxLength = static_cast<uint32_t>(job_.buffer.size());
  response.stopAtMaxLength = true;
  Core::Http::Perform(request, response);
  if (response.statusCode == 204) {
    job_.outcome = Outcome::NoUpdate;
  } else if (response.statusCode == 200 && !response.bodyOverflow) {
    job_.text.assign(reinterpret_cast<const char*>(job_.buffer.data()), response.bodyLength);
    job_.outcome = Outcome::Done;
  } else {
    job_.why = response.bodyOverflow
                   ? "the metadata is too large"
                   : "the metadata was answered with status " + std::to_string(response.statusCode);
    job_.outcome = response.bodyOverflow ? Outcome::Fail : Outcome::Retry;
  }
  response.bodyBuffer = nullptr;
  job_.buffer = std::vector<uint8_t>();
}

void SoftwareUpdateManager::performBlock(Core::Http::Request& request,
                                         Core::Http::Response& response) {
  Job& job = job_;
  if (job.emptyStagingFirst && !StagingFile::Truncate(job.stagingPath, 0, job.why)) {
    job.outcome = Outcome::Fail;
    return;
  }
  if (job.checkSpace) {
    const int64_t present = std::max<int64_t>(StagingFile::Size(job.stagingPath), 0);
    const uint64_t needed =
        job.payloadSize > static_cast<uint64_t>(present) ? job.payloadSize - present : 0;
    uint64_t available = 0;
    if (!StagingFile::FreeBytes(job.stagingPath, available, job.why)) {
      job.outcome = Outcome::Fail;
      return;
    }
    if (needed > available) {
      job.outcome = Outcome::Fail;
      job.why = "the payload of " + std::to_string(job.payloadSize) +
                " bytes does not fit the staging directory (" + std::to_string(available) +
                " bytes free)";
      return;
    }
  }
  job.buffer.resize(static_cast<size_t>(job.length));
  if (job.local) {
    if (!StagingFile::ReadAt(job.sourcePath, job.offset, job.buffer.data(), job.buffer.size(),
                             job.why)) {
      job.outcome = Outcome::Retry;
      return;
    }
  } else {
    response.bodyBuffer = job.buffer.data();
    response.bodyMaxLength = static_cast<uint32_t>(job.buffer.size());
    response.stopAtMaxLength = true;
    Core::Http::Perform(request, response);
    response.bodyBuffer = nullptr;
    if (response.statusCode != 206 || response.bodyOverflow || response.bodyLength != job.length) {
      job.outcome = Outcome::Retry;
      job.why = "block at " + std::to_string(job.offset) + " answered with status " +
                std::to_string(response.statusCode) + " and " +
                std::to_string(response.bodyLength) + " of " + std::to_string(job.length) +
                " bytes";
      return;
    }
  }
  if (!StagingFile::WriteAt(job.stagingPath, job.offset, job.buffer.data(), job.buffer.size(),
                            job.why)) {
    job.outcome = Outcome::Fail;
    return;
  }
  // Checked as it lies on the disk: that is what gets installed.
  if (job.completesBlock &&
      !StagingFile::BlockMatches(job.stagingPath, job.blockStart, job.blockLength, job.blockHash)) {
    job.outcome = Outcome::Retry;
    job.why = "block at " + std::to_string(job.blockStart) + " does not match its hash";
    return;
  }
  job.outcome = Outcome::Done;
}

void SoftwareUpdateManager::performCheck() {
  Job& job = job_;
  job.good = StagingFile::VerifiedPrefix(job.stagingPath, job.offset, job.blockSize,
                                         job.blockHashes, &job.whole);
  // Whatever lies beyond the verified bytes is cut off, so that the staging
  // file never holds more than what its state claims plus one block.
  const int64_t size = StagingFile::Size(job.stagingPath);
  if (size < 0 || static_cast<uint64_t>(size) != job.good) {
    StagingFile::Truncate(job.stagingPath, job.good, job.why);
  }
  job.outcome = Outcome::Done;
  job.blockHashes = std::vector<std::string>();
}

// ---------------------------------------------------------------- with the mutex

void SoftwareUpdateManager::postMicroService(Core::Http::Response& response) {
  const MicroService ms = prepared_;
  prepared_ = NoCall;
  if (isTerminating()) {
    // Nothing learnt now is acted on; what was verified is stored already.
    return;
  }
  switch (ms) {
    case GetMetadata:
      postMetadata();
      break;
    case GetPayloadBlock:
      postBlock();
      break;
    case CheckStaging:
      postCheck();
      break;
    case DownloadComplete:
      postComplete(response);
      break;
    case NoCall:
      break;
  }
  updatePercent();
  LUM_LOG(kSu, FP::CATEGORY_WEBSERVICE, FP::SEVERITY_INFO, "%s processed (%u)",
          MicroServiceToString(ms), static_cast<unsigned>(response.statusCode));
}

bool SoftwareUpdateManager::openOffer(const std::string& envelope, Offer& offer,
                                      std::string& why) const {
  std::string text;
  const char* trust = identity_->getTrust();
  if (!Core::SignedDocument::Open(envelope, trust != nullptr ? trust : "", text, why)) {
    return false;
  }
  LumJson::Value document;
  if (!Core::JsonUtil::ParseObject(text, document)) {
    why = "the signed document is not a JSON object";
    return false;
  }
  const LumJson::Value& size = document["size"];
  const LumJson::Value& blockSize = document["blockSize"];
  const LumJson::Value& hashes = document["blockSha256"];
  offer.envelope = envelope;
  offer.version = Core::JsonUtil::ReadText(document, "version", "");
  offer.sha256 = Core::JsonUtil::ReadText(document, "sha256", "");
  offer.payload = Core::JsonUtil::ReadText(document, "payload", "");
  offer.mandatory = Core::JsonUtil::ReadBool(document, "mandatory", false);
  offer.autoAnswer = Core::JsonUtil::ReadBool(document, "autoAnswer", false);
  offer.size = size.isUInt64() ? size.asUInt64() : 0;
  offer.blockSize = blockSize.isUInt() ? blockSize.asUInt() : 0;
  if (offer.version.empty() || offer.payload.empty() || !IsHexHash(offer.sha256) ||
      offer.size == 0 || offer.blockSize == 0 || !hashes.isArray()) {
    why = "the signed document lacks a version, payload, size, block size or hash";
    return false;
  }
  // A remote payload is named under the back end's API, never elsewhere.
  if (source_ == SourceNetwork &&
      (offer.payload[0] == '/' || offer.payload.find("://") != std::string::npos ||
       offer.payload.find("..") != std::string::npos)) {
    why = "the payload is not a path of the update service";
    return false;
  }
  const uint64_t blocks = (offer.size + offer.blockSize - 1) / offer.blockSize;
  if (hashes.size() != blocks) {
    why = "the signed document lists " + std::to_string(hashes.size()) + " block hashes for " +
          std::to_string(blocks) + " blocks";
    return false;
  }
  offer.blockHashes.clear();
  for (const LumJson::Value& hash : hashes) {
    if (!hash.isString() || !IsHexHash(hash.asString())) {
      why = "a block hash is not a SHA-256 in hex";
      return false;
    }
    offer.blockHashes.push_back(hash.asString());
  }
  return true;
}

void SoftwareUpdateManager::postMetadata() {
  Job& job = job_;
  if (job.outcome == Outcome::NoUpdate) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "No software update available");
    failures_ = 0;
    offer_ = Offer();
    verified_ = 0;
    pieceDone_ = 0;
    checkWanted_ = false;
    setState(LumSoftwareUpdateNotAvailable);
    storeState();
    return;
  }
  if (job.outcome == Outcome::Retry) {
    retryOrFail(persistent_->getSuMaxRetryCount(), persistent_->getSuRetryDelayFixedMs(),
                persistent_->getSuRetryDelayVariedMs(), job.why);
    // The fetch was taken off the list when it was prepared: without it the
    // armed retry would never come, and the update would rest undecided.
    fetchWanted_ = retryArmed_;
    return;
  }
  if (job.outcome == Outcome::Fail) {
    fail(job.why);
    return;
  }
  Offer offer;
  std::string why;
  if (!openOffer(job.text, offer, why)) {
    // A refused document names nothing that is fetched.
    fail("metadata refused: " + why);
    return;
  }
  failures_ = 0;
  const bool same = offer_.sameAs(offer) && state_ != LumSoftwareUpdateNotAvailable;
  if (same) {
    // The same update again: what was verified of it still counts.
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Software update %s offered again",
            offer.version.c_str());
    offer_.envelope = offer.envelope;
    if (state_ == LumSoftwareUpdateFailed) {
      pieceDone_ = 0;
      checkWanted_ = true;
      setState(LumSoftwareUpdateAvailable);
    }
  } else {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
            "Software update %s offered: %llu bytes in blocks of %u", offer.version.c_str(),
            static_cast<unsigned long long>(offer.size), offer.blockSize);
    offer_ = offer;
    verified_ = 0;
    pieceDone_ = 0;
    emptyStaging_ = true;
    spaceChecked_ = false;
    checkWanted_ = false;
    setState(LumSoftwareUpdateAvailable);
  }
  storeState();
}

void SoftwareUpdateManager::postBlock() {
  Job& job = job_;
  if (job.outcome == Outcome::Fail) {
    fail(job.why);
    return;
  }
  if (job.emptyStagingFirst) {
    emptyStaging_ = false;
  }
  if (job.checkSpace) {
    spaceChecked_ = true;
  }
  if (job.outcome == Outcome::Retry) {
    // The block starts over: a piece that did not arrive may have been cut
    // anywhere.
    pieceDone_ = 0;
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Payload block failed: %s",
            job.why.c_str());
    retryOrFail(persistent_->getSuStagingMaxRetryCount(),
                persistent_->getSuStagingRetryDelayFixedMs(),
                persistent_->getSuStagingRetryDelayVariedMs(), job.why);
    return;
  }
  failures_ = 0;
  if (!job.completesBlock) {
    pieceDone_ += job.length;
    return;
  }
  pieceDone_ = 0;
  verified_ = job.blockStart + job.blockLength;
  if (verified_ >= offer_.size) {
    // Every block matched; the whole payload is checked once more, as it
    // lies on the disk, before it counts as downloaded.
    checkWanted_ = true;
    checkTarget_ = LumSoftwareUpdateDownloaded;
  }
  storeState();
}

void SoftwareUpdateManager::postCheck() {
  Job& job = job_;
  checkWanted_ = false;
  if (job.good < verified_) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Staging file verified up to %llu of the %llu bytes stored, resuming there",
            static_cast<unsigned long long>(job.good), static_cast<unsigned long long>(verified_));
  }
  verified_ = job.good;
  if (verified_ < offer_.size) {
    storeState();
    return;
  }
  if (job.whole != offer_.sha256) {
    // Every block matched but the whole does not: the metadata contradicts
    // itself, and no retry can mend that.
    verified_ = 0;
    emptyStaging_ = true;
    fail("the payload does not match its hash " + offer_.sha256);
    return;
  }
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Software update %s %s",
          offer_.version.c_str(),
          checkTarget_ == LumSoftwareUpdateConfirmed ? "verified, confirmed before" : "downloaded");
  setState(checkTarget_);
  storeState();
}

void SoftwareUpdateManager::postComplete(const Core::Http::Response& response) {
  if (response.statusCode >= 300) {
    if (failures_ < persistent_->getSuMaxRetryCount()) {
      retryOrFail(persistent_->getSuMaxRetryCount(), persistent_->getSuRetryDelayFixedMs(),
                  persistent_->getSuRetryDelayVariedMs(),
                  "su/download/complete answered " + std::to_string(response.statusCode));
      return;
    }
    // The host's confirmation stands; the back end learns of it no other way.
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "su/download/complete not acknowledged, confirming all the same");
  }
  failures_ = 0;
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Software update %s confirmed",
          offer_.version.c_str());
  setState(LumSoftwareUpdateConfirmed);
  storeState();
}

void SoftwareUpdateManager::retryOrFail(uint32_t maxRetries, uint32_t fixedMs, uint32_t variedMs,
                                        const std::string& why) {
  ++failures_;
  if (failures_ > maxRetries) {
    fail(why + " (after " + std::to_string(maxRetries) + " retries)");
    return;
  }
  CoreManager::updateTimestamp(Core::Clock::MonotonicNow(), retryAt_, fixedMs, variedMs);
  retryArmed_ = true;
}

void SoftwareUpdateManager::fail(const std::string& why) {
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Software update failed: %s", why.c_str());
  failures_ = 0;
  retryArmed_ = false;
  pieceDone_ = 0;
  checkWanted_ = false;
  setState(LumSoftwareUpdateFailed);
  storeState();
}

void SoftwareUpdateManager::setState(LumSoftwareUpdateState state) {
  if (state == state_) {
    return;
  }
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Software update state %s -> %s",
          LumSoftwareUpdateStateToString(state_), LumSoftwareUpdateStateToString(state));
  state_ = state;
  reportedPercent_ = percent();
  TheCore().signalStatusChange();
}

unsigned SoftwareUpdateManager::percent() const {
  if (state_ == LumSoftwareUpdateDownloaded || state_ == LumSoftwareUpdateConfirmed) {
    return 100;
  }
  return offer_.size == 0 ? 0 : static_cast<unsigned>(verified_ * 100 / offer_.size);
}

// The host follows the download through status changes, one per percent.
void SoftwareUpdateManager::updatePercent() {
  const unsigned now = percent();
  if (now != reportedPercent_) {
    reportedPercent_ = now;
    TheCore().signalStatusChange();
  }
}

// ---------------------------------------------------------------- the state file

void SoftwareUpdateManager::storeState() {
  if (coreConfig_ == nullptr) {
    return;
  }
  LumJson::Value stored(LumJson::objectValue);
  const bool offered = state_ >= LumSoftwareUpdateAvailable;
  stored["envelope"] = offered ? offer_.envelope : "";
  stored["source"] = static_cast<unsigned>(source_);
  stored["location"] = source_ == SourceLocal ? localLocation_ : networkMetadata_;
  stored["permission"] = static_cast<unsigned>(permission_);
  // A download under way is stored as available; Downloaded and Confirmed
  // are stored as such but re-checked at the next start all the same.
  stored["state"] = static_cast<unsigned>(state_);
  stored["verifiedBytes"] = static_cast<LumJson::UInt64>(offered ? verified_ : 0);
  stored["stagingLocation"] = config_->getStagingLocation();
  if (!Core::FileUtil::Store(coreConfig_->getPersistentPath(), kStateFileName,
                             Core::JsonUtil::WriteCompact(stored), kMaxStateFileBytes)) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Could not store %s", kStateFileName);
  }
}

// Anything that does not add up starts over cleanly: a damaged file, an
// envelope that no longer opens, a staging file of another location. A
// claimed download is checked against the staging file before it counts.
void SoftwareUpdateManager::loadState() {
  const std::string text =
      Core::FileUtil::Load(coreConfig_->getPersistentPath(), kStateFileName, kMaxStateFileBytes);
  if (text.empty()) {
    return;
  }
  LumJson::Value stored;
  if (!Core::JsonUtil::ParseObject(text, stored)) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Ignoring %s, it is damaged",
            kStateFileName);
    return;
  }
  const unsigned source = Core::JsonUtil::ReadUnsigned(stored, "source", SourceNetwork);
  const unsigned permission = Core::JsonUtil::ReadUnsigned(stored, "permission", PermissionNone);
  const unsigned state = Core::JsonUtil::ReadUnsigned(stored, "state", 0);
  const std::string location = Core::JsonUtil::ReadText(stored, "location", "");
  source_ = source == SourceLocal ? SourceLocal : SourceNetwork;
  (source_ == SourceLocal ? localLocation_ : networkMetadata_) = location;
  permission_ =
      permission <= PermissionConfirm ? static_cast<Permission>(permission) : PermissionNone;
  if (state == LumSoftwareUpdateFailed) {
    state_ = LumSoftwareUpdateFailed;
    return;
  }
  if (state < LumSoftwareUpdateAvailable || state > LumSoftwareUpdateConfirmed) {
    return;
  }
  Offer offer;
  std::string why;
  const LumJson::Value& verified = stored["verifiedBytes"];
  if (Core::JsonUtil::ReadText(stored, "stagingLocation", "") != config_->getStagingLocation() ||
      !openOffer(Core::JsonUtil::ReadText(stored, "envelope", ""), offer, why) ||
      !verified.isUInt64()) {
    LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Ignoring the download stored in %s, starting over: %s", kStateFileName,
            why.empty() ? "it does not match the staging location" : why.c_str());
    return;
  }
  offer_ = offer;
  verified_ = std::min<uint64_t>(verified.asUInt64(), offer_.size);
  if (verified_ != offer_.size) {
    verified_ -= verified_ % offer_.blockSize;  // only whole blocks count
  }
  state_ = LumSoftwareUpdateAvailable;
  checkWanted_ = true;
  checkTarget_ = state == LumSoftwareUpdateConfirmed ? LumSoftwareUpdateConfirmed
                                                     : LumSoftwareUpdateDownloaded;
  LUM_LOG(kSu, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
          "Resuming software update %s at %llu of %llu bytes", offer_.version.c_str(),
          static_cast<unsigned long long>(verified_), static_cast<unsigned long long>(offer_.size));
}

// ---------------------------------------------------------------- status

void SoftwareUpdateManager::getStatus(LumStatus& status) {
  if (!config_) {
    return;
  }
  status.updateStagingFile = Core::StringUtil::DuplicateForHost(config_->getStagingLocation());
  status.updateState = state_;
  status.updateSource = source_;
  status.updatePermission = permission_;
  if (state_ > LumSoftwareUpdateFailed) {
    status.updateVersion = Core::StringUtil::DuplicateForHost(offer_.version);
    status.updateHash = Core::StringUtil::DuplicateForHost(offer_.sha256);
    status.updateMandatory = offer_.mandatory ? 1 : 0;
    status.updateAutoAnswer = offer_.autoAnswer ? 1 : 0;
    status.updatePercentDownloaded = percent();
  }
}

void SoftwareUpdateManager::logStatusInfo(StatusSection section) {
  if (section != StatusSection::AfterSoftwareVersion || !config_ ||
      !Core::Logger::Instance().test(Core::FilterProperties::SERVICE_CORE, FP::CATEGORY_STATE,
                                     FP::SEVERITY_INFO)) {
    return;
  }
  constexpr int kCore = FP::SERVICE_CORE;
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Update State          = %s",
          LumSoftwareUpdateStateToString(state_));
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Update Source         = %s",
          LumSoftwareUpdateSourceToString(source_));
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Update Permission     = %s",
          LumSoftwareUpdatePermissionToString(permission_));
  if (state_ > LumSoftwareUpdateFailed) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Update Version        = %s",
            offer_.version.c_str());
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Update Downloaded     = %u%%",
            percent());
  }
}

}  // namespace Su
}  // namespace Lum
