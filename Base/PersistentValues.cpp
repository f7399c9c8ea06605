#include "Base/PersistentValues.h"

#include <array>
#include <cstring>

#include "Base/CoreConfig.h"
#include "Base/DeviceValues.h"
#include "Base/ProductIdentity.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Platform/StringSetUtil.h"
#include "Platform/X509Util.h"
#include "Project/CollectDeviceInfo.h"

LUM_SOURCE_FILE("Base/PersistentValues");

namespace Lum {
namespace Core {

namespace {

using FP = FilterProperties;

constexpr char kFileName[] = "core";
constexpr char kSdkVersion[] = "4.3.0.B7E20D-20-g42e3d0f6-dirty";
constexpr char kAllowedIdsKey[] = "dsAllowedDataItemIds";
// Debug lines align their values in one column: "persist->gidToken" padded to
// this width, then ": " and the value.
constexpr int kDebugNameWidth = 37;

template <class... Ts>
struct Overloaded : Ts... {
  using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;

// "OPID.INSTANCE" splits at the first "."; a name without one gives neither.
void SplitCommonName(const char* certificatePem, std::string& opid, std::string& instance) {
  std::string commonName;
  if (certificatePem != nullptr) {
    X509Util::GetCommonName(certificatePem, commonName);
  }
  const size_t dot = commonName.find('.');
  if (dot == std::string::npos) {
    return;
  }
  opid = commonName.substr(0, dot);
  instance = commonName.substr(dot + 1);
}

std::set<std::string> ReadIdSet(const LumJson::Value& array) {
  std::set<std::string> ids;
  for (const LumJson::Value& element : array) {
    if (element.isString()) {
      ids.insert(element.asString());
    }
  }
  return ids;
}

LumJson::Value IdSetToArray(const std::set<std::string>& ids) {
  LumJson::Value array(LumJson::arrayValue);
  for (const std::string& id : ids) {
    array.append(id);
  }
  return array;
}

// A member of the wrong kind keeps the value it would replace; the file was
// damaged or edited by hand, or the back end sent nonsense, and the log says
// which.
void WarnIfWrongKind(const LumJson::Value& root, const char* key,
                     bool (LumJson::Value::*isKind)() const, const char* kind) {
  const LumJson::Value* member = root.find(key, key + std::strlen(key));
  if (member != nullptr && !(member->*isKind)()) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_WARNING,
            "Ignoring \"%s\", it is not %s", key, kind);
  }
}

// The whole document as one JSON line, for test harnesses reading the log.
void LogLoadedDocument(const LumJson::Value& root) {
  if (!Logger::Instance().test(FP::SERVICE_CORE, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG)) {
    return;
  }
  LumJson::Value logged(LumJson::objectValue);
  logged["coreValuesLoad"] = root;
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG, "%s",
          JsonUtil::WriteCompact(logged).c_str());
}

void LogDebugLine(const std::string& name, const std::string& value) {
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%-*s: %s", kDebugNameWidth,
          name.c_str(), value.c_str());
}

}  // namespace

// Never destroyed: StateControl may be storing the values while the host
// exits.
const std::vector<PersistentValues::Field>& PersistentValues::Fields() {
  static const std::vector<Field>* const fields = new std::vector<Field>{
      {"gidToken", &PersistentValues::gidToken_},
      {"synchronized", &PersistentValues::synchronized_},
      {"testMode", &PersistentValues::testMode_},
      {"sdkVersion", &PersistentValues::sdkVersion_},
      {"certOpid", &PersistentValues::certOpid_},
      {"certInstance", &PersistentValues::certInstance_},
      {"deviceId", &PersistentValues::deviceId_},
      {"deviceModel", &PersistentValues::deviceModel_},
      {"deviceSubModel", &PersistentValues::deviceSubModel_},
      {"deviceBrand", &PersistentValues::deviceBrand_},
      {"deviceEsn", &PersistentValues::deviceEsn_},
      {"deviceMac", &PersistentValues::deviceMac_},
      {"deviceSwVersion", &PersistentValues::deviceSwVersion_},
      {"opidSeqNum", &PersistentValues::opidSeqNum_},
      {"gidSeqNum", &PersistentValues::gidSeqNum_},
      {"daSupportViewEnabled", &PersistentValues::daSupportViewEnabled_},
      {"dsAggressiveQueuePercentage", &PersistentValues::dsAggressiveQueuePercentage_},
      {"dsStandardDelayFixedMs", &PersistentValues::dsStandardDelayFixedMs_},
      {"dsStandardDelayVariedMs", &PersistentValues::dsStandardDelayVariedMs_},
      {"dsAggressiveDelayFixedMs", &PersistentValues::dsAggressiveDelayFixedMs_},
      {"dsAggressiveDelayVariedMs", &PersistentValues::dsAggressiveDelayVariedMs_},
      {"daConnectTimeoutMs", &PersistentValues::daConnectTimeoutMs_},
      {"daMessageTimeoutMs", &PersistentValues::daMessageTimeoutMs_},
      {"daPollDelayFixedMs", &PersistentValues::daPollDelayFixedMs_},
      {"daPollDelayVariedMs", &PersistentValues::daPollDelayVariedMs_},
      {"daRetryDelayFixedMs", &PersistentValues::daRetryDelayFixedMs_},
      {"daRetryDelayVariedMs", &PersistentValues::daRetryDelayVariedMs_},
      {"daStartupDelayFixedMs", &PersistentValues::daStartupDelayFixedMs_},
      {"daStartupDelayVariedMs", &PersistentValues::daStartupDelayVariedMs_},
      {"dsConnectTimeoutMs", &PersistentValues::dsConnectTimeoutMs_},
      {"dsMessageTimeoutMs", &PersistentValues::dsMessageTimeoutMs_},
      {"dsRetryDelayFixedMs", &PersistentValues::dsRetryDelayFixedMs_},
      {"dsRetryDelayVariedMs", &PersistentValues::dsRetryDelayVariedMs_},
      {"dsStartupDelayFixedMs", &PersistentValues::dsStartupDelayFixedMs_},
      {"dsStartupDelayVariedMs", &PersistentValues::dsStartupDelayVariedMs_},
      {"svConnectTimeoutMs", &PersistentValues::svConnectTimeoutMs_},
      {"svMessageTimeoutMs", &PersistentValues::svMessageTimeoutMs_},
      {"svRetryDelayFixedMs", &PersistentValues::svRetryDelayFixedMs_},
      {"svRetryDelayVariedMs", &PersistentValues::svRetryDelayVariedMs_},
      {"svActiveTimeoutMs", &PersistentValues::svActiveTimeoutMs_},
      {"svPausedTimeoutMs", &PersistentValues::svPausedTimeoutMs_},
      {"svLbrAwsDomain", &PersistentValues::svLbrAwsDomain_},
      {"svMrsUrl", &PersistentValues::svMrsUrl_},
      {"svNetworkDiagTimeoutMs", &PersistentValues::svNetworkDiagTimeoutMs_},
      {"svPingTestHostname", &PersistentValues::svPingTestHostname_},
      {"svSpeedTestDownloadSize", &PersistentValues::svSpeedTestDownloadSize_},
      {"svSpeedTestDownloadTimeMs", &PersistentValues::svSpeedTestDownloadTimeMs_},
      {"svSpeedTestDownloadUrl", &PersistentValues::svSpeedTestDownloadUrl_},
      {"svSpeedTestUploadSize", &PersistentValues::svSpeedTestUploadSize_},
      {"svSpeedTestUploadTimeMs", &PersistentValues::svSpeedTestUploadTimeMs_},
      {"svSpeedTestUploadUrl", &PersistentValues::svSpeedTestUploadUrl_},
      {"daConsentUrl", &PersistentValues::daConsentUrl_},
      {"suConnectTimeoutMs", &PersistentValues::suConnectTimeoutMs_},
      {"suMessageTimeoutMs", &PersistentValues::suMessageTimeoutMs_},
      {"suMaxRetryCount", &PersistentValues::suMaxRetryCount_},
      {"suRetryDelayFixedMs", &PersistentValues::suRetryDelayFixedMs_},
      {"suRetryDelayVariedMs", &PersistentValues::suRetryDelayVariedMs_},
      {"suStagingConnectTimeoutMs", &PersistentValues::suStagingConnectTimeoutMs_},
      {"suStagingMessageTimeoutMs", &PersistentValues::suStagingMessageTimeoutMs_},
      {"suStagingMaxRetryCount", &PersistentValues::suStagingMaxRetryCount_},
      {"suStagingRetryDelayFixedMs", &PersistentValues::suStagingRetryDelayFixedMs_},
      {"suStagingRetryDelayVariedMs", &PersistentValues::suStagingRetryDelayVariedMs_},
      {"suCheckForSoftwareUpdate", &PersistentValues::suCheckForSoftwareUpdate_},
      {"dsGracenoteCloudAddress", &PersistentValues::dsGracenoteCloudAddress_},
      {"dsGracenoteCustomerId", &PersistentValues::dsGracenoteCustomerId_},
      {"dsGracenoteToken", &PersistentValues::dsGracenoteToken_},
      {"dsGracenoteTag", &PersistentValues::dsGracenoteTag_},
      {"dsGracenoteLicense", &PersistentValues::dsGracenoteLicense_},
  };
  return *fields;
}

const char* PersistentValues::BuiltInSdkVersion() {
  return kSdkVersion;
}

PersistentValues::PersistentValues() = default;

PersistentValues::PersistentValues(const ProductIdentity& identity, const CoreConfig& config,
                                   const DeviceValues& device) {
  LUM_TRACE(FP::SERVICE_CORE);
  std::string opid;
  std::string instance;
  SplitCommonName(identity.getCert(), opid, instance);
  load(config.getPersistentPath());
  setSdkVersion(kSdkVersion);
  setCertOpid(opid);
  setCertInstance(instance);
  applyDeviceValues(device);
}

void PersistentValues::applyDeviceValues(const DeviceValues& device) {
  setDeviceId(device.getId());
  setDeviceModel(device.getModel());
  setDeviceSubModel(device.getSubModel());
  setDeviceBrand(device.getBrand());
  setDeviceEsn(device.getEsn());
  setDeviceMac(device.getMac());
  setDeviceSwVersion(device.getSwVersion());
}

bool PersistentValues::load(const std::string& path) {
  LUM_TRACE(FP::SERVICE_CORE);
  const std::string text = FileUtil::Load(path, kFileName);
  if (text.empty()) {
    return false;
  }
  if (!unmarshal(text)) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "Ignoring %s%s, it is not a JSON object", path.c_str(), kFileName);
    return false;
  }
  persisted_ = true;
  return true;
}

bool PersistentValues::store(const std::string& path) {
  LUM_TRACE(FP::SERVICE_CORE);
  if (persisted_) {
    return true;
  }
  std::string text;
  marshal(text);
  if (!FileUtil::Store(path, kFileName, text)) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Problem storing %s%s",
            path.c_str(), kFileName);
    return false;
  }
  persisted_ = true;
  return true;
}

bool PersistentValues::drop(const std::string& path) {
  LUM_TRACE(FP::SERVICE_CORE);
  return FileUtil::Drop(path, kFileName);
}

void PersistentValues::marshal(std::string& text) const {
  LUM_TRACE(FP::SERVICE_CORE);
  // Written member by member because a JSON object value keeps its members
  // sorted by name, and the file keeps them in this fixed order.
  text = "{";
  for (const Field& field : Fields()) {
    const LumJson::Value value =
        std::visit([this](auto member) { return LumJson::Value(this->*member); }, field.member);
    text += JsonUtil::WriteCompact(LumJson::Value(field.key));
    text += ':';
    text += JsonUtil::WriteCompact(value);
    text += ',';
  }
  text += JsonUtil::WriteCompact(LumJson::Value(kAllowedIdsKey));
  text += ':';
  text += JsonUtil::WriteCompact(IdSetToArray(dsAllowedDataItemIds_));
  text += '}';
}

bool PersistentValues::unmarshal(const std::string& text) {
  LUM_TRACE(FP::SERVICE_CORE);
  LumJson::Value root;
  if (!JsonUtil::ParseStrict(text, root) || !root.isObject()) {
    return false;
  }
  LogLoadedDocument(root);
  applyDocument(root);
  return true;
}

void PersistentValues::applyDocument(const LumJson::Value& root) {
  const std::string consentUrlBefore = daConsentUrl_;
  const std::set<std::string> allowedIdsBefore = dsAllowedDataItemIds_;
  const std::array<std::string, 5> gracenoteBefore = gracenoteValues();
  readDocument(root);
  consentUrlChanged_ = consentUrlChanged_ || daConsentUrl_ != consentUrlBefore;
  allowedIdsChanged_ = allowedIdsChanged_ || dsAllowedDataItemIds_ != allowedIdsBefore;
  gracenoteChanged_ = gracenoteChanged_ || gracenoteValues() != gracenoteBefore;
}

bool PersistentValues::readBackEndTunables(const LumJson::Value& answer) {
  if (!answer.isObject()) {
    return false;
  }
  // The identity and sequence numbers come first in the table; the state
  // answer reports those under their own names and the core reads them.
  static constexpr char kFirstTunable[] = "dsAggressiveQueuePercentage";
  LumJson::Value tunables(LumJson::objectValue);
  bool inTunables = false;
  for (const Field& field : Fields()) {
    inTunables = inTunables || std::strcmp(kFirstTunable, field.key) == 0;
    if (inTunables && answer.isMember(field.key)) {
      tunables[field.key] = answer[field.key];
    }
  }
  if (answer.isMember(kAllowedIdsKey)) {
    tunables[kAllowedIdsKey] = answer[kAllowedIdsKey];
  }
  std::string before;
  marshal(before);
  const bool checkBefore = suCheckForSoftwareUpdate_;
  applyDocument(tunables);
  std::string after;
  marshal(after);
  if (before == after) {
    return false;
  }
  persisted_ = false;
  if (suCheckForSoftwareUpdate_ != checkBefore) {
    synchronized_ = false;
  }
  return true;
}

void PersistentValues::readDocument(const LumJson::Value& root) {
  for (const Field& field : Fields()) {
    const char* key = field.key;
    std::visit(Overloaded{
                   [&](bool PersistentValues::*m) {
                     WarnIfWrongKind(root, key, &LumJson::Value::isBool, "true or false");
                     this->*m = JsonUtil::ReadBool(root, key, this->*m);
                   },
                   [&](uint32_t PersistentValues::*m) {
                     WarnIfWrongKind(root, key, &LumJson::Value::isUInt,
                                     "a whole number from 0 to 4294967295");
                     this->*m = JsonUtil::ReadUnsigned(root, key, this->*m);
                   },
                   [&](std::string PersistentValues::*m) {
                     WarnIfWrongKind(root, key, &LumJson::Value::isString, "a text");
                     this->*m = JsonUtil::ReadText(root, key, this->*m);
                   },
               },
               field.member);
  }
  WarnIfWrongKind(root, kAllowedIdsKey, &LumJson::Value::isArray, "an array");
  const LumJson::Value& allowedIds = root[kAllowedIdsKey];
  if (allowedIds.isArray()) {
    dsAllowedDataItemIds_ = ReadIdSet(allowedIds);
  }
}

std::array<std::string, 5> PersistentValues::gracenoteValues() const {
  return {dsGracenoteCloudAddress_, dsGracenoteCustomerId_, dsGracenoteToken_, dsGracenoteTag_,
          dsGracenoteLicense_};
}

bool PersistentValues::setGidToken(const std::string& value) {
  return change(gidToken_, value);
}
bool PersistentValues::setSynchronized(bool value) {
  return change(synchronized_, value);
}
bool PersistentValues::setTestMode(bool value) {
  return changeReported(testMode_, value);
}
bool PersistentValues::setSdkVersion(const std::string& value) {
  return changeReported(sdkVersion_, value);
}
bool PersistentValues::setCertOpid(const std::string& value) {
  return changeReported(certOpid_, value);
}
bool PersistentValues::setCertInstance(const std::string& value) {
  return changeReported(certInstance_, value);
}
bool PersistentValues::setDeviceId(const std::string& value) {
  return changeDeviceInfo(deviceId_, value, true);
}
bool PersistentValues::setDeviceModel(const std::string& value) {
  return changeDeviceInfo(deviceModel_, value, true);
}
bool PersistentValues::setDeviceSubModel(const std::string& value) {
  return changeDeviceInfo(deviceSubModel_, value, true);
}
bool PersistentValues::setDeviceBrand(const std::string& value) {
  return changeDeviceInfo(deviceBrand_, value, true);
}
bool PersistentValues::setDeviceEsn(const std::string& value) {
  return changeDeviceInfo(deviceEsn_, value, false);
}
bool PersistentValues::setDeviceMac(const std::string& value) {
  return changeDeviceInfo(deviceMac_, value, false);
}
bool PersistentValues::setDeviceSwVersion(const std::string& value) {
  return changeDeviceInfo(deviceSwVersion_, value, true);
}
bool PersistentValues::setOpidSeqNum(uint32_t value) {
  return change(opidSeqNum_, value);
}
bool PersistentValues::setGidSeqNum(uint32_t value) {
  return change(gidSeqNum_, value);
}
bool PersistentValues::setDaSupportViewEnabled(bool value) {
  return change(daSupportViewEnabled_, value);
}
bool PersistentValues::setDsAggressiveQueuePercentage(uint32_t value) {
  return change(dsAggressiveQueuePercentage_, value);
}
bool PersistentValues::setDsStandardDelayFixedMs(uint32_t value) {
  return change(dsStandardDelayFixedMs_, value);
}
bool PersistentValues::setDsStandardDelayVariedMs(uint32_t value) {
  return change(dsStandardDelayVariedMs_, value);
}
bool PersistentValues::setDsAggressiveDelayFixedMs(uint32_t value) {
  return change(dsAggressiveDelayFixedMs_, value);
}
bool PersistentValues::setDsAggressiveDelayVariedMs(uint32_t value) {
  return change(dsAggressiveDelayVariedMs_, value);
}
bool PersistentValues::setDaConnectTimeoutMs(uint32_t value) {
  return change(daConnectTimeoutMs_, value);
}
bool PersistentValues::setDaMessageTimeoutMs(uint32_t value) {
  return change(daMessageTimeoutMs_, value);
}
bool PersistentValues::setDaPollDelayFixedMs(uint32_t value) {
  return change(daPollDelayFixedMs_, value);
}
bool PersistentValues::setDaPollDelayVariedMs(uint32_t value) {
  return change(daPollDelayVariedMs_, value);
}
bool PersistentValues::setDaRetryDelayFixedMs(uint32_t value) {
  return change(daRetryDelayFixedMs_, value);
}
bool PersistentValues::setDaRetryDelayVariedMs(uint32_t value) {
  return change(daRetryDelayVariedMs_, value);
}
bool PersistentValues::setDaStartupDelayFixedMs(uint32_t value) {
  return change(daStartupDelayFixedMs_, value);
}
bool PersistentValues::setDaStartupDelayVariedMs(uint32_t value) {
  return change(daStartupDelayVariedMs_, value);
}
bool PersistentValues::setDsConnectTimeoutMs(uint32_t value) {
  return change(dsConnectTimeoutMs_, value);
}
bool PersistentValues::setDsMessageTimeoutMs(uint32_t value) {
  return change(dsMessageTimeoutMs_, value);
}
bool PersistentValues::setDsRetryDelayFixedMs(uint32_t value) {
  return change(dsRetryDelayFixedMs_, value);
}
bool PersistentValues::setDsRetryDelayVariedMs(uint32_t value) {
  return change(dsRetryDelayVariedMs_, value);
}
bool PersistentValues::setDsStartupDelayFixedMs(uint32_t value) {
  return change(dsStartupDelayFixedMs_, value);
}
bool PersistentValues::setDsStartupDelayVariedMs(uint32_t value) {
  return change(dsStartupDelayVariedMs_, value);
}
bool PersistentValues::setSvConnectTimeoutMs(uint32_t value) {
  return change(svConnectTimeoutMs_, value);
}
bool PersistentValues::setSvMessageTimeoutMs(uint32_t value) {
  return change(svMessageTimeoutMs_, value);
}
bool PersistentValues::setSvRetryDelayFixedMs(uint32_t value) {
  return change(svRetryDelayFixedMs_, value);
}
bool PersistentValues::setSvRetryDelayVariedMs(uint32_t value) {
  return change(svRetryDelayVariedMs_, value);
}
bool PersistentValues::setSvActiveTimeoutMs(uint32_t value) {
  return change(svActiveTimeoutMs_, value);
}
bool PersistentValues::setSvPausedTimeoutMs(uint32_t value) {
  return change(svPausedTimeoutMs_, value);
}
bool PersistentValues::setSvLbrAwsDomain(const std::string& value) {
  return change(svLbrAwsDomain_, value);
}
bool PersistentValues::setSvMrsUrl(const std::string& value) {
  return change(svMrsUrl_, value);
}
bool PersistentValues::setSvNetworkDiagTimeoutMs(uint32_t value) {
  return change(svNetworkDiagTimeoutMs_, value);
}
bool PersistentValues::setSvPingTestHostname(const std::string& value) {
  return change(svPingTestHostname_, value);
}
bool PersistentValues::setSvSpeedTestDownloadSize(uint32_t value) {
  return change(svSpeedTestDownloadSize_, value);
}
bool PersistentValues::setSvSpeedTestDownloadTimeMs(uint32_t value) {
  return change(svSpeedTestDownloadTimeMs_, value);
}
bool PersistentValues::setSvSpeedTestDownloadUrl(const std::string& value) {
  return change(svSpeedTestDownloadUrl_, value);
}
bool PersistentValues::setSvSpeedTestUploadSize(uint32_t value) {
  return change(svSpeedTestUploadSize_, value);
}
bool PersistentValues::setSvSpeedTestUploadTimeMs(uint32_t value) {
  return change(svSpeedTestUploadTimeMs_, value);
}
bool PersistentValues::setSvSpeedTestUploadUrl(const std::string& value) {
  return change(svSpeedTestUploadUrl_, value);
}
bool PersistentValues::setDaConsentUrl(const std::string& value) {
  return changeMarked(daConsentUrl_, value, consentUrlChanged_);
}
bool PersistentValues::setSuConnectTimeoutMs(uint32_t value) {
  return change(suConnectTimeoutMs_, value);
}
bool PersistentValues::setSuMessageTimeoutMs(uint32_t value) {
  return change(suMessageTimeoutMs_, value);
}
bool PersistentValues::setSuMaxRetryCount(uint32_t value) {
  return change(suMaxRetryCount_, value);
}
bool PersistentValues::setSuRetryDelayFixedMs(uint32_t value) {
  return change(suRetryDelayFixedMs_, value);
}
bool PersistentValues::setSuRetryDelayVariedMs(uint32_t value) {
  return change(suRetryDelayVariedMs_, value);
}
bool PersistentValues::setSuStagingConnectTimeoutMs(uint32_t value) {
  return change(suStagingConnectTimeoutMs_, value);
}
bool PersistentValues::setSuStagingMessageTimeoutMs(uint32_t value) {
  return change(suStagingMessageTimeoutMs_, value);
}
bool PersistentValues::setSuStagingMaxRetryCount(uint32_t value) {
  return change(suStagingMaxRetryCount_, value);
}
bool PersistentValues::setSuStagingRetryDelayFixedMs(uint32_t value) {
  return change(suStagingRetryDelayFixedMs_, value);
}
bool PersistentValues::setSuStagingRetryDelayVariedMs(uint32_t value) {
  return change(suStagingRetryDelayVariedMs_, value);
}
bool PersistentValues::setSuCheckForSoftwareUpdate(bool value) {
  return changeReported(suCheckForSoftwareUpdate_, value);
}
bool PersistentValues::setDsGracenoteCloudAddress(const std::string& value) {
  return changeMarked(dsGracenoteCloudAddress_, value, gracenoteChanged_);
}
bool PersistentValues::setDsGracenoteCustomerId(const std::string& value) {
  return changeMarked(dsGracenoteCustomerId_, value, gracenoteChanged_);
}
bool PersistentValues::setDsGracenoteToken(const std::string& value) {
  return changeMarked(dsGracenoteToken_, value, gracenoteChanged_);
}
bool PersistentValues::setDsGracenoteTag(const std::string& value) {
  return changeMarked(dsGracenoteTag_, value, gracenoteChanged_);
}
bool PersistentValues::setDsGracenoteLicense(const std::string& value) {
  return changeMarked(dsGracenoteLicense_, value, gracenoteChanged_);
}

bool PersistentValues::setDsAllowedDataItemIds(const std::set<std::string>& value) {
  return changeMarked(dsAllowedDataItemIds_, value, allowedIdsChanged_);
}

bool PersistentValues::changeDeviceInfo(std::string& member, const std::string& value,
                                        bool reported) {
  if (!(reported ? changeReported(member, value) : change(member, value))) {
    return false;
  }
  deviceInfoChanged_ = true;
  deviceInfoWakePending_ = true;
  return true;
}

bool PersistentValues::testDaConsentUrl() {
  const bool changed = consentUrlChanged_;
  consentUrlChanged_ = false;
  return changed;
}

bool PersistentValues::testDsAllowedDataItemIds() {
  const bool changed = allowedIdsChanged_;
  allowedIdsChanged_ = false;
  return changed;
}

void PersistentValues::registerDeviceInfoCollector(Ds::CollectDeviceInfo* collector) {
  LUM_TRACE(FP::SERVICE_CORE);
  deviceInfoCollector_ = collector;
}

void PersistentValues::unregisterDeviceInfoCollector() {
  LUM_TRACE(FP::SERVICE_CORE);
  deviceInfoCollector_ = nullptr;
}

void PersistentValues::checkDeviceInfoCollector() {
  LUM_TRACE(FP::SERVICE_CORE);
  if (!deviceInfoWakePending_) {
    return;
  }
  deviceInfoWakePending_ = false;
  if (deviceInfoCollector_ != nullptr) {
    wakeDeviceInfoCollector();
  }
}

void PersistentValues::wakeDeviceInfoCollector() {
  // Runs with the core mutex held; wake() relies on exactly that and takes
  // no lock of its own.
  deviceInfoCollector_->wake();
}

void PersistentValues::logStateDebug() const {
  LUM_TRACE(FP::SERVICE_CORE);
  // Formatting seventy values is not free; skip it when nobody listens.
  if (!Logger::Instance().test(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  for (const Field& field : Fields()) {
    const std::string value = std::visit(
        Overloaded{
            [this](bool PersistentValues::*m) { return std::string(this->*m ? "true" : "false"); },
            [this](uint32_t PersistentValues::*m) { return std::to_string(this->*m); },
            [this](std::string PersistentValues::*m) { return this->*m; },
        },
        field.member);
    LogDebugLine(std::string("persist->") + field.key, value);
  }
  LogDebugLine(std::string("persist->") + kAllowedIdsKey,
               StringSetUtil::StringSetToCsvString(dsAllowedDataItemIds_));
}

}  // namespace Core
}  // namespace Lum
