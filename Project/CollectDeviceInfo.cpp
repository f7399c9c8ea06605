#include "Project/CollectDeviceInfo.h"

#include "Base/CoreManager.h"
#include "Base/DataServicesManager.h"
#include "Base/DeviceValues.h"
#include "Base/PersistentValues.h"
#include "Platform/FilterProperties.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/ThreadUtil.h"
#include "Platform/UnlockMutex.h"

LUM_SOURCE_FILE("Project/CollectDeviceInfo");

namespace Lum {
namespace Ds {

using Core::CoreManager;
using Core::FilterProperties;
using Core::LockMutex;
using FP = FilterProperties;

namespace {

constexpr int kDs = FP::SERVICE_DS;
constexpr int kDebugNameWidth = 37;
constexpr char kEsnId[] = "DeviceInfoEsn";
constexpr char kMacId[] = "DeviceInfoMac";

std::string BuildItem(const char* id, const std::string& value) {
  LumJson::Value item(LumJson::objectValue);
  item["id"] = id;
  item["parameters"]["value"] = value;
  return Core::JsonUtil::WriteCompact(item);
}

void LogDebugLine(const char* name, bool value) {
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%-*s: %s", kDebugNameWidth, name,
          value ? "true" : "false");
}

}  // namespace

CollectDeviceInfo::CollectDeviceInfo(Core::DeviceValues* device, Core::PersistentValues* persistent)
    : Collector("Device Info", std::string(kEsnId) + "," + kMacId),
      device_(device),
      persistent_(persistent),
      sem_(new Core::BinarySem(false, Core::CoreMutex())) {}

CollectDeviceInfo::~CollectDeviceInfo() {
  // The manager always stops a collector before deleting it; should that
  // ever be missed, the thread must still not outlive the object it uses.
  if (thread_.started()) {
    terminateBegin();
    terminateEnd();
  }
}

void CollectDeviceInfo::initialize(const std::set<std::string>& ids) {
  LUM_TRACE(kDs);
  LockMutex lock(&Core::CoreMutex());
  enableEsn_ = ids.count(kEsnId) != 0;
  enableMac_ = ids.count(kMacId) != 0;
  terminating_ = false;
  waiting_ = false;
  sem_.reset(new Core::BinarySem(false, Core::CoreMutex()));
  // The persistent values keep their change mark for the whole run and, in
  // addition, wake the registered collector once per change. A change made
  // before this start is reported by the first pass (the mark); the wake
  // still pending for it is taken here, at registration, so that the same
  // change is not reported a second time when the core next checks. Changes
  // made later arrive through wake(). A restart (new ids) reports afresh,
  // since the back end may not have had every id allowed before.
  changeUnreported_ = persistent_ != nullptr && persistent_->hasDeviceInfoChanged();
  if (persistent_ != nullptr) {
    persistent_->registerDeviceInfoCollector(this);
    persistent_->checkDeviceInfoCollector();
  }
  // Shortened to fit the kernel's 15 characters; the log keeps the full name.
  Core::ThreadUtil::Start(thread_, DeviceInfoControl, this, "DeviceInfoCtrl");
}

void CollectDeviceInfo::halt() {
  LUM_TRACE(kDs);
  // Only marked: the thread is stopped when halted, and the mark makes its
  // next start report.
  LockMutex lock(&Core::CoreMutex());
  submit_ = true;
}

void CollectDeviceInfo::wake() {
  LUM_TRACE(kDs);
  changeUnreported_ = true;
  // A thread that is not waiting finds the mark before it waits again.
  if (waiting_) {
    sem_->giveLocked();
  }
}

void CollectDeviceInfo::terminateBegin() {
  LUM_TRACE(kDs);
  LockMutex lock(&Core::CoreMutex());
  terminating_ = true;
  sem_->giveLocked();
}

void CollectDeviceInfo::terminateEnd() {
  LUM_TRACE(kDs);
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for DeviceInfoControl to join");
  Core::ThreadUtil::Join(thread_);
  LockMutex lock(&Core::CoreMutex());
  if (persistent_ != nullptr) {
    persistent_->unregisterDeviceInfoCollector();
  }
}

void* CollectDeviceInfo::DeviceInfoControl(void* arg) {
  static_cast<CollectDeviceInfo*>(arg)->runDeviceInfoControl();
  return nullptr;
}

void CollectDeviceInfo::runDeviceInfoControl() {
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DeviceInfoControl started");
  LockMutex lock(&Core::CoreMutex());
  for (;;) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DeviceInfoControl running");
    logStateDebug();
    if (terminating_) {
      break;
    }
    if (changeUnreported_ || submit_) {
      changeUnreported_ = false;
      submit_ = false;
      const std::vector<std::string> items = buildItems();
      // Submission takes the core mutex itself.
      Core::UnlockMutex unlocked(Core::CoreMutex());
      SubmitItems(items);
    }
    // A change signalled while the items were being submitted found the
    // thread not waiting and gave nothing; go round for it instead.
    if (changeUnreported_) {
      continue;
    }
    waiting_ = true;
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DeviceInfoControl waiting");
    sem_->takeLocked();
    waiting_ = false;
  }
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "DeviceInfoControl terminated");
}

std::vector<std::string> CollectDeviceInfo::buildItems() const {
  std::vector<std::string> items;
  if (device_ == nullptr) {
    return items;
  }
  if (enableEsn_) {
    items.push_back(BuildItem(kEsnId, device_->getEsn()));
  }
  if (enableMac_) {
    items.push_back(BuildItem(kMacId, device_->getMac()));
  }
  return items;
}

void CollectDeviceInfo::SubmitItems(const std::vector<std::string>& items) {
  for (const std::string& item : items) {
    const unsigned result = DataServicesManager::Instance()->submitDataItem(item.c_str());
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "DeviceInfoControl submitted %s (%u)",
            item.c_str(), result);
  }
}

void CollectDeviceInfo::logStateDebug() const {
  if (!Core::Logger::Instance().test(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  LogDebugLine("waiting", waiting_);
  LogDebugLine("terminating", terminating_);
  LogDebugLine("submit", submit_);
  LogDebugLine("enableEsn", enableEsn_);
  LogDebugLine("enableMac", enableMac_);
}

}  // namespace Ds
}  // namespace Lum
