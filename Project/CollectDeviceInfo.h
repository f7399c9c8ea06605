#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Base/Collector.h"
#include "Base/CoreMutex.h"
#include "Platform/BinarySem.h"
#include "Platform/Thread.h"

namespace Lum {
namespace Core {
class DeviceValues;
class PersistentValues;
}  // namespace Core

namespace Ds {

// Reports the device's ESN and MAC address as the data items "DeviceInfoEsn"
// and "DeviceInfoMac" from its thread "DeviceInfoControl" (thread name
// "DeviceInfoCtrl"). It reports when the device description differs from the
// one the previous run persisted, and on the first start after a halt, since
// the back end may have missed the values while they were not allowed.
//
// waiting_, terminating_, submit_, enableEsn_, enableMac_, changeUnreported_
// and the sem_ pointer are guarded by the core mutex (CoreManager::getMutex),
// which sem_ is bound to: the thread works under that mutex anyway, and the
// persistent values wake the collector while they hold it. thread_ belongs to
// whoever starts and stops the collector (CollectorControl, then the
// terminating thread after CollectorControl joined).
class CollectDeviceInfo : public Collector {
 public:
  // `device` and `persistent` are the core's value objects; they outlive the
  // collector. Either may be null, in which case nothing is reported.
  CollectDeviceInfo(Core::DeviceValues* device, Core::PersistentValues* persistent);
  ~CollectDeviceInfo() override;

  // These take the core mutex; call them without it.
  void initialize(const std::set<std::string>& ids) EXCLUDES(Core::CoreMutex()) override;
  void terminateBegin() EXCLUDES(Core::CoreMutex()) override;
  void terminateEnd() EXCLUDES(Core::CoreMutex()) override;
  void halt() EXCLUDES(Core::CoreMutex()) override;

  // The device description changed. Called with the core mutex held.
  void wake() REQUIRES(Core::CoreMutex());

  // Called with the core mutex held.
  void logStateDebug() const REQUIRES(Core::CoreMutex());

 private:
  static void* DeviceInfoControl(void* arg);
  void runDeviceInfoControl() EXCLUDES(Core::CoreMutex());
  std::vector<std::string> buildItems() const REQUIRES(Core::CoreMutex());
  static void SubmitItems(const std::vector<std::string>& items);

  Core::DeviceValues* const device_;          // not owned
  Core::PersistentValues* const persistent_;  // not owned
  bool waiting_ GUARDED_BY(Core::CoreMutex()) = false;
  bool terminating_ GUARDED_BY(Core::CoreMutex()) = false;
  bool submit_ GUARDED_BY(Core::CoreMutex()) = false;
  bool enableEsn_ GUARDED_BY(Core::CoreMutex()) = false;
  bool enableMac_ GUARDED_BY(Core::CoreMutex()) = false;
  // A change of the device description not yet reported by this start.
  bool changeUnreported_ GUARDED_BY(Core::CoreMutex()) = false;
  // Renewed by every start, so that a wake left over from the previous run
  // of the thread does not cause a spurious pass.
  std::unique_ptr<Core::BinarySem> sem_ GUARDED_BY(Core::CoreMutex());
  Core::Thread thread_;
};

}  // namespace Ds
}  // namespace Lum
