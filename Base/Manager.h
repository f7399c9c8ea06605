#pragma once

#include <lum.h>

#include <string>

#include "Base/CoreMutex.h"

namespace Lum {
namespace Core {

class CoreConfig;
class ProductIdentity;
class DeviceValues;
class PersistentValues;

// What the core hands every manager when it starts it: the configuration
// text (each manager reads its own section) and the core value objects,
// which stay owned by the core manager and outlive the manager's threads.
struct ManagerContext {
  std::string configText;
  CoreConfig* config = nullptr;
  ProductIdentity* identity = nullptr;
  DeviceValues* device = nullptr;
  PersistentValues* persistent = nullptr;
};

// The lifecycle every subsystem manager shares with the core: started in a
// fixed order by the core, told about state changes, stopped in two steps so
// that all managers are woken before any is joined.
class Manager {
 public:
  virtual ~Manager() = default;

  // Starts the manager's worker threads. Called with the core mutex held.
  virtual void initialize(const ManagerContext& context) REQUIRES(CoreMutex()) = 0;
  // Re-evaluates the manager's own schedule after a core change. Called with
  // the core mutex held.
  virtual void cascadeStateChanges() REQUIRES(CoreMutex()) {}
  // Sets the manager's terminating flag and wakes its threads. Called with
  // the core mutex held.
  virtual void terminateBegin() REQUIRES(CoreMutex()) = 0;
  // Joins the manager's threads. Called without the core mutex, from the
  // terminate thread.
  virtual void terminateEnd() EXCLUDES(CoreMutex()) = 0;
  // The name the terminate thread logs while it waits ("Waiting for %s").
  virtual const char* waitName() const = 0;

  // Fills the manager's own fields of the host's status record, which
  // holds the values of a stopped agent until then; only while the agent
  // runs. Called with the core mutex held.
  virtual void getStatus(LumStatus& /*status*/) REQUIRES(CoreMutex()) {}
  // The status block lists the core's values, the session's, the device's
  // software version and the update's; a manager writes its own lines into
  // the section that holds them. Called with the core mutex held.
  enum class StatusSection { BeforeSoftwareVersion, AfterSoftwareVersion };
  virtual void logStatusInfo(StatusSection /*section*/) REQUIRES(CoreMutex()) {}
};

}  // namespace Core
}  // namespace Lum
