#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "Base/CoreMutex.h"
#include "Platform/LumJson.h"

namespace Lum {
namespace Ds {
class CollectDeviceInfo;
}  // namespace Ds

namespace Core {

class CoreConfig;
class DeviceValues;
class ProductIdentity;

// The agent's durable state: its identity towards the back end (GID token,
// sequence numbers, synchronisation flag), the device description it last
// reported, and every tunable the back end may push. Kept in memory and
// written as one JSON document, the file "core" under the persistent
// directory, whenever something changed; many changes from one back-end
// answer are written once, by the core manager's evaluation.
//
// Every setter compares first: an equal value changes nothing and returns
// false; a different one is stored, marks the values as not persisted and
// returns true, which callers use to decide whether to signal a change. The
// setters of values the device reports to the back end (test mode, SDK
// version, certificate OPID and instance, device id, model, sub-model, brand,
// software version and the software-update check) also clear `synchronized`,
// so that the next core call reports them. ESN and MAC are not reported in
// that call and leave `synchronized` alone.
//
// Change marks: `test...` operations report a change since the last test and
// clear their mark; `has...` operations report a change since this object was
// built and do not clear. Reading the file raises the consent, allowed-ids
// and content-recognition marks when it brings values other than those in
// memory, so that the first evaluation after a start hands them on just as
// if the back end had sent them; it never raises the device-information mark,
// which only a real change of the television's description may raise.
//
// Locking: no mutex of its own. Every access happens under the core manager's
// mutex (CoreManager::getMutex), which therefore guards every member below.
class PersistentValues {
 public:
  // Sets the defaults, takes the certificate OPID and instance from the common
  // name of the identity's client certificate ("OPID.INSTANCE"; a name
  // without "." leaves both empty), loads "core" from the persistent
  // directory, then sets the SDK version, the certificate values and the
  // seven device fields through the ordinary setters, so anything that
  // differs from the last run is marked for storing (and a new device
  // description raises the device-information mark).
  PersistentValues(const ProductIdentity& identity, const CoreConfig& config,
                   const DeviceValues& device);
  // The defaults alone; nothing is loaded.
  PersistentValues();
  PersistentValues(const PersistentValues&) = delete;
  PersistentValues& operator=(const PersistentValues&) = delete;

  // The version text of this library, written into "sdkVersion" at start.
  static const char* BuiltInSdkVersion();

  // Reads "core" under `path`. A missing, empty or unparsable file leaves
  // the values as they are and not persisted; true when the file was taken.
  bool load(const std::string& path);
  // Writes "core" under `path` when something changed since the last load or
  // store. True when the file holds the current values afterwards; a failed
  // write keeps them marked unpersisted, so the next evaluation retries.
  bool store(const std::string& path);
  // Deletes "core" under `path` (factory reset); true when nothing is left.
  bool drop(const std::string& path);
  // True while memory equals the file.
  bool isPersisted() const { return persisted_; }

  // The document, compact, members in the fixed order of the file.
  void marshal(std::string& text) const;
  // Reads the document; each member that is missing or of the wrong kind
  // (including numbers outside 0..4294967295) keeps the current value. A text
  // that is not a JSON object changes nothing and returns false. Does not
  // change the persisted flag.
  bool unmarshal(const std::string& text);
  // Takes the tunable values a state answer carries (every value from
  // "dsAggressiveQueuePercentage" on, and the allowed ids), under the same
  // keys as the file. Absent or mistyped members keep their value; a change
  // marks the store for writing, and a changed software-update flag clears
  // synchronized like its setter. True when anything changed.
  bool readBackEndTunables(const LumJson::Value& answer);

  // Identity towards the back end and the device description last reported.
  const std::string& getGidToken() const { return gidToken_; }
  bool setGidToken(const std::string& value);
  bool getSynchronized() const { return synchronized_; }
  bool setSynchronized(bool value);
  bool getTestMode() const { return testMode_; }
  bool setTestMode(bool value);
  const std::string& getSdkVersion() const { return sdkVersion_; }
  bool setSdkVersion(const std::string& value);
  const std::string& getCertOpid() const { return certOpid_; }
  bool setCertOpid(const std::string& value);
  const std::string& getCertInstance() const { return certInstance_; }
  bool setCertInstance(const std::string& value);
  const std::string& getDeviceId() const { return deviceId_; }
  bool setDeviceId(const std::string& value);
  const std::string& getDeviceModel() const { return deviceModel_; }
  bool setDeviceModel(const std::string& value);
  const std::string& getDeviceSubModel() const { return deviceSubModel_; }
  bool setDeviceSubModel(const std::string& value);
  const std::string& getDeviceBrand() const { return deviceBrand_; }
  bool setDeviceBrand(const std::string& value);
  const std::string& getDeviceEsn() const { return deviceEsn_; }
  bool setDeviceEsn(const std::string& value);
  const std::string& getDeviceMac() const { return deviceMac_; }
  bool setDeviceMac(const std::string& value);
  const std::string& getDeviceSwVersion() const { return deviceSwVersion_; }
  bool setDeviceSwVersion(const std::string& value);
  uint32_t getOpidSeqNum() const { return opidSeqNum_; }
  bool setOpidSeqNum(uint32_t value);
  uint32_t getGidSeqNum() const { return gidSeqNum_; }
  bool setGidSeqNum(uint32_t value);
  bool getDaSupportViewEnabled() const { return daSupportViewEnabled_; }
  bool setDaSupportViewEnabled(bool value);

  // Data services queue and upload timing.
  uint32_t getDsAggressiveQueuePercentage() const { return dsAggressiveQueuePercentage_; }
  bool setDsAggressiveQueuePercentage(uint32_t value);
  uint32_t getDsStandardDelayFixedMs() const { return dsStandardDelayFixedMs_; }
  bool setDsStandardDelayFixedMs(uint32_t value);
  uint32_t getDsStandardDelayVariedMs() const { return dsStandardDelayVariedMs_; }
  bool setDsStandardDelayVariedMs(uint32_t value);
  uint32_t getDsAggressiveDelayFixedMs() const { return dsAggressiveDelayFixedMs_; }
  bool setDsAggressiveDelayFixedMs(uint32_t value);
  uint32_t getDsAggressiveDelayVariedMs() const { return dsAggressiveDelayVariedMs_; }
  bool setDsAggressiveDelayVariedMs(uint32_t value);

  // Core calls.
  uint32_t getDaConnectTimeoutMs() const { return daConnectTimeoutMs_; }
  bool setDaConnectTimeoutMs(uint32_t value);
  uint32_t getDaMessageTimeoutMs() const { return daMessageTimeoutMs_; }
  bool setDaMessageTimeoutMs(uint32_t value);
  uint32_t getDaPollDelayFixedMs() const { return daPollDelayFixedMs_; }
  bool setDaPollDelayFixedMs(uint32_t value);
  uint32_t getDaPollDelayVariedMs() const { return daPollDelayVariedMs_; }
  bool setDaPollDelayVariedMs(uint32_t value);
  uint32_t getDaRetryDelayFixedMs() const { return daRetryDelayFixedMs_; }
  bool setDaRetryDelayFixedMs(uint32_t value);
  uint32_t getDaRetryDelayVariedMs() const { return daRetryDelayVariedMs_; }
  bool setDaRetryDelayVariedMs(uint32_t value);
  uint32_t getDaStartupDelayFixedMs() const { return daStartupDelayFixedMs_; }
  bool setDaStartupDelayFixedMs(uint32_t value);
  uint32_t getDaStartupDelayVariedMs() const { return daStartupDelayVariedMs_; }
  bool setDaStartupDelayVariedMs(uint32_t value);

  // Data services calls.
  uint32_t getDsConnectTimeoutMs() const { return dsConnectTimeoutMs_; }
  bool setDsConnectTimeoutMs(uint32_t value);
  uint32_t getDsMessageTimeoutMs() const { return dsMessageTimeoutMs_; }
  bool setDsMessageTimeoutMs(uint32_t value);
  uint32_t getDsRetryDelayFixedMs() const { return dsRetryDelayFixedMs_; }
  bool setDsRetryDelayFixedMs(uint32_t value);
  uint32_t getDsRetryDelayVariedMs() const { return dsRetryDelayVariedMs_; }
  bool setDsRetryDelayVariedMs(uint32_t value);
  uint32_t getDsStartupDelayFixedMs() const { return dsStartupDelayFixedMs_; }
  bool setDsStartupDelayFixedMs(uint32_t value);
  uint32_t getDsStartupDelayVariedMs() const { return dsStartupDelayVariedMs_; }
  bool setDsStartupDelayVariedMs(uint32_t value);

  // Support view.
  uint32_t getSvConnectTimeoutMs() const { return svConnectTimeoutMs_; }
  bool setSvConnectTimeoutMs(uint32_t value);
  uint32_t getSvMessageTimeoutMs() const { return svMessageTimeoutMs_; }
  bool setSvMessageTimeoutMs(uint32_t value);
  uint32_t getSvRetryDelayFixedMs() const { return svRetryDelayFixedMs_; }
  bool setSvRetryDelayFixedMs(uint32_t value);
  uint32_t getSvRetryDelayVariedMs() const { return svRetryDelayVariedMs_; }
  bool setSvRetryDelayVariedMs(uint32_t value);
  uint32_t getSvActiveTimeoutMs() const { return svActiveTimeoutMs_; }
  bool setSvActiveTimeoutMs(uint32_t value);
  uint32_t getSvPausedTimeoutMs() const { return svPausedTimeoutMs_; }
  bool setSvPausedTimeoutMs(uint32_t value);
  const std::string& getSvLbrAwsDomain() const { return svLbrAwsDomain_; }
  bool setSvLbrAwsDomain(const std::string& value);
  const std::string& getSvMrsUrl() const { return svMrsUrl_; }
  bool setSvMrsUrl(const std::string& value);
  uint32_t getSvNetworkDiagTimeoutMs() const { return svNetworkDiagTimeoutMs_; }
  bool setSvNetworkDiagTimeoutMs(uint32_t value);
  const std::string& getSvPingTestHostname() const { return svPingTestHostname_; }
  bool setSvPingTestHostname(const std::string& value);
  uint32_t getSvSpeedTestDownloadSize() const { return svSpeedTestDownloadSize_; }
  bool setSvSpeedTestDownloadSize(uint32_t value);
  uint32_t getSvSpeedTestDownloadTimeMs() const { return svSpeedTestDownloadTimeMs_; }
  bool setSvSpeedTestDownloadTimeMs(uint32_t value);
  const std::string& getSvSpeedTestDownloadUrl() const { return svSpeedTestDownloadUrl_; }
  bool setSvSpeedTestDownloadUrl(const std::string& value);
  uint32_t getSvSpeedTestUploadSize() const { return svSpeedTestUploadSize_; }
  bool setSvSpeedTestUploadSize(uint32_t value);
  uint32_t getSvSpeedTestUploadTimeMs() const { return svSpeedTestUploadTimeMs_; }
  bool setSvSpeedTestUploadTimeMs(uint32_t value);
  const std::string& getSvSpeedTestUploadUrl() const { return svSpeedTestUploadUrl_; }
  bool setSvSpeedTestUploadUrl(const std::string& value);

  // Consent page shown to the user.
  const std::string& getDaConsentUrl() const { return daConsentUrl_; }
  bool setDaConsentUrl(const std::string& value);

  // Software update and its payload download.
  uint32_t getSuConnectTimeoutMs() const { return suConnectTimeoutMs_; }
  bool setSuConnectTimeoutMs(uint32_t value);
  uint32_t getSuMessageTimeoutMs() const { return suMessageTimeoutMs_; }
  bool setSuMessageTimeoutMs(uint32_t value);
  uint32_t getSuMaxRetryCount() const { return suMaxRetryCount_; }
  bool setSuMaxRetryCount(uint32_t value);
  uint32_t getSuRetryDelayFixedMs() const { return suRetryDelayFixedMs_; }
  bool setSuRetryDelayFixedMs(uint32_t value);
  uint32_t getSuRetryDelayVariedMs() const { return suRetryDelayVariedMs_; }
  bool setSuRetryDelayVariedMs(uint32_t value);
  uint32_t getSuStagingConnectTimeoutMs() const { return suStagingConnectTimeoutMs_; }
  bool setSuStagingConnectTimeoutMs(uint32_t value);
  uint32_t getSuStagingMessageTimeoutMs() const { return suStagingMessageTimeoutMs_; }
  bool setSuStagingMessageTimeoutMs(uint32_t value);
  uint32_t getSuStagingMaxRetryCount() const { return suStagingMaxRetryCount_; }
  bool setSuStagingMaxRetryCount(uint32_t value);
  uint32_t getSuStagingRetryDelayFixedMs() const { return suStagingRetryDelayFixedMs_; }
  bool setSuStagingRetryDelayFixedMs(uint32_t value);
  uint32_t getSuStagingRetryDelayVariedMs() const { return suStagingRetryDelayVariedMs_; }
  bool setSuStagingRetryDelayVariedMs(uint32_t value);
  bool getSuCheckForSoftwareUpdate() const { return suCheckForSoftwareUpdate_; }
  bool setSuCheckForSoftwareUpdate(bool value);

  // Content recognition service.
  const std::string& getDsGracenoteCloudAddress() const { return dsGracenoteCloudAddress_; }
  bool setDsGracenoteCloudAddress(const std::string& value);
  const std::string& getDsGracenoteCustomerId() const { return dsGracenoteCustomerId_; }
  bool setDsGracenoteCustomerId(const std::string& value);
  const std::string& getDsGracenoteToken() const { return dsGracenoteToken_; }
  bool setDsGracenoteToken(const std::string& value);
  const std::string& getDsGracenoteTag() const { return dsGracenoteTag_; }
  bool setDsGracenoteTag(const std::string& value);
  const std::string& getDsGracenoteLicense() const { return dsGracenoteLicense_; }
  bool setDsGracenoteLicense(const std::string& value);

  // The data item ids the back end allows to be uploaded.
  const std::set<std::string>& getDsAllowedDataItemIds() const { return dsAllowedDataItemIds_; }
  bool setDsAllowedDataItemIds(const std::set<std::string>& value);

  bool testDaConsentUrl();
  bool testDsAllowedDataItemIds();
  bool hasGracenoteChanged() const { return gracenoteChanged_; }
  bool hasDeviceInfoChanged() const { return deviceInfoChanged_; }

  // The device-information collector, not owned; it must unregister before
  // it goes away.
  void registerDeviceInfoCollector(Ds::CollectDeviceInfo* collector);
  void unregisterDeviceInfoCollector();
  // When the device description changed since the last check, wakes the
  // registered collector once, so the change is reported once.
  void checkDeviceInfoCollector() REQUIRES(Core::CoreMutex());

  void logStateDebug() const;

 private:
  using Member = std::variant<bool PersistentValues::*, uint32_t PersistentValues::*,
                              std::string PersistentValues::*>;
  struct Field {
    const char* key;
    Member member;
  };
  // Every scalar value in file order; the allowed-ids set follows them.
  static const std::vector<Field>& Fields();

  void applyDeviceValues(const DeviceValues& device);
  void readDocument(const LumJson::Value& root);
  // readDocument plus the change marks of the consent URL, allowed ids and
  // content-recognition values.
  void applyDocument(const LumJson::Value& root);
  std::array<std::string, 5> gracenoteValues() const;

  template <typename T>
  bool change(T& member, const T& value) {
    if (member == value) {
      return false;
    }
    member = value;
    persisted_ = false;
    return true;
  }
  template <typename T>
  bool changeReported(T& member, const T& value) {
    if (!change(member, value)) {
      return false;
    }
    synchronized_ = false;
    return true;
  }
  template <typename T>
  bool changeMarked(T& member, const T& value, bool& mark) {
    if (!change(member, value)) {
      return false;
    }
    mark = true;
    return true;
  }
  bool changeDeviceInfo(std::string& member, const std::string& value, bool reported);
  // Hands the change to the registered collector (its wake()).
  void wakeDeviceInfoCollector() REQUIRES(Core::CoreMutex());

  // All guarded by the core manager's mutex (see the class comment).
  std::string gidToken_;
  bool synchronized_ = false;
  bool testMode_ = false;
  std::string sdkVersion_ = BuiltInSdkVersion();
  std::string certOpid_;
  std::string certInstance_;
  std::string deviceId_;
  std::string deviceModel_;
  std::string deviceSubModel_;
  std::string deviceBrand_;
  std::string deviceEsn_;
  std::string deviceMac_;
  std::string deviceSwVersion_;
  uint32_t opidSeqNum_ = 0;
  uint32_t gidSeqNum_ = 0;
  bool daSupportViewEnabled_ = true;
  uint32_t dsAggressiveQueuePercentage_ = 85;
  uint32_t dsStandardDelayFixedMs_ = 60000;
  uint32_t dsStandardDelayVariedMs_ = 60000;
  uint32_t dsAggressiveDelayFixedMs_ = 30000;
  uint32_t dsAggressiveDelayVariedMs_ = 30000;
  uint32_t daConnectTimeoutMs_ = 30001;
  uint32_t daMessageTimeoutMs_ = 15000;
  uint32_t daPollDelayFixedMs_ = 3150000;
  uint32_t daPollDelayVariedMs_ = 900000;
  uint32_t daRetryDelayFixedMs_ = 15000;
  uint32_t daRetryDelayVariedMs_ = 15000;
  uint32_t daStartupDelayFixedMs_ = 0;
  uint32_t daStartupDelayVariedMs_ = 0;
  uint32_t dsConnectTimeoutMs_ = 30000;
  uint32_t dsMessageTimeoutMs_ = 15000;
  uint32_t dsRetryDelayFixedMs_ = 15000;
  uint32_t dsRetryDelayVariedMs_ = 15000;
  uint32_t dsStartupDelayFixedMs_ = 0;
  uint32_t dsStartupDelayVariedMs_ = 0;
  uint32_t svConnectTimeoutMs_ = 30000;
  uint32_t svMessageTimeoutMs_ = 15000;
  uint32_t svRetryDelayFixedMs_ = 2500;
  uint32_t svRetryDelayVariedMs_ = 2500;
  uint32_t svActiveTimeoutMs_ = 60000;
  uint32_t svPausedTimeoutMs_ = 180000;
  std::string svLbrAwsDomain_;
  std::string svMrsUrl_;
  uint32_t svNetworkDiagTimeoutMs_ = 20000;
  std::string svPingTestHostname_;
  uint32_t svSpeedTestDownloadSize_ = 102400;
  uint32_t svSpeedTestDownloadTimeMs_ = 20000;
  std::string svSpeedTestDownloadUrl_;
  uint32_t svSpeedTestUploadSize_ = 102400;
  uint32_t svSpeedTestUploadTimeMs_ = 20000;
  std::string svSpeedTestUploadUrl_;
  std::string daConsentUrl_;
  uint32_t suConnectTimeoutMs_ = 15000;
  uint32_t suMessageTimeoutMs_ = 5000;
  uint32_t suMaxRetryCount_ = 3;
  uint32_t suRetryDelayFixedMs_ = 30000;
  uint32_t suRetryDelayVariedMs_ = 30000;
  uint32_t suStagingConnectTimeoutMs_ = 15000;
  uint32_t suStagingMessageTimeoutMs_ = 5000;
  uint32_t suStagingMaxRetryCount_ = 3;
  uint32_t suStagingRetryDelayFixedMs_ = 5000;
  uint32_t suStagingRetryDelayVariedMs_ = 5000;
  bool suCheckForSoftwareUpdate_ = false;
  std::string dsGracenoteCloudAddress_;
  std::string dsGracenoteCustomerId_;
  std::string dsGracenoteToken_;
  std::string dsGracenoteTag_;
  std::string dsGracenoteLicense_;
  std::set<std::string> dsAllowedDataItemIds_;

  bool persisted_ = false;
  bool consentUrlChanged_ = false;
  bool allowedIdsChanged_ = false;
  bool gracenoteChanged_ = false;
  bool deviceInfoChanged_ = false;                        // sticky, read by the collector
  bool deviceInfoWakePending_ = false;                    // cleared by checkDeviceInfoCollector
  Ds::CollectDeviceInfo* deviceInfoCollector_ = nullptr;  // not owned
};

}  // namespace Core
}  // namespace Lum
