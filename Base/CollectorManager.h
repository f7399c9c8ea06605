#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Base/Collector.h"
#include "Base/CoreMutex.h"
#include "Base/Manager.h"
#include "Platform/Mutex.h"
#include "Platform/Thread.h"
#include "Platform/TimedSem.h"

namespace Lum {
namespace Ds {

// Owns the collectors and keeps each one running exactly while the back end
// allows at least one of its ids. Changes of the allowed ids are only noted by
// cascadeStateChanges; "CollectorControl" (thread name "CollectorCtrl")
// compares them with the previous set and stops, halts or (re)starts the
// collectors concerned, so that the caller, who holds the core mutex, never
// waits for a collector's thread.
//
// Lock order: the core mutex before mutex_. CollectorControl holds mutex_ only
// while it reads or waits for a change and never while it works on a
// collector, because starting and stopping collectors takes the core mutex.
class CollectorManager {
 public:
  static CollectorManager* Instance();

  // Creates the collectors and starts CollectorControl. Called with the core
  // mutex held.
  void initialize(const Core::ManagerContext& context) REQUIRES(Core::CoreMutex());
  // Hands over the allowed ids; CollectorControl acts on them later. Called
  // with the core mutex held.
  void cascadeStateChanges(const std::set<std::string>& allowedIds) REQUIRES(Core::CoreMutex());
  // Called with the core mutex held.
  void terminateBegin() REQUIRES(Core::CoreMutex());
  // Joins CollectorControl, which stops every collector still running on its
  // way out, then deletes the collectors so the manager can be initialised
  // again. Called without the core mutex.
  void terminateEnd() EXCLUDES(mutex_, Core::CoreMutex());

 private:
  CollectorManager();

  void initializeCollectors(const Core::ManagerContext& context);
  static void* CollectorControl(void* arg);
  void runCollectorControl();
  // One round: acts on the difference between `previous` and `next`.
  void applyChange(const std::set<std::string>& previous, const std::set<std::string>& next,
                   bool firstRound);
  void stopCollectors(const std::vector<Collector*>& collectors);
  void haltCollectors(const std::vector<Collector*>& collectors);
  void startCollectors(const std::vector<Collector*>& collectors,
                       const std::set<std::string>& next);
  void stopRunningCollectors();
  void logStateDebugLocked() REQUIRES(mutex_);

  Core::Mutex mutex_;
  bool initialized_ GUARDED_BY(mutex_) = false;
  bool terminating_ GUARDED_BY(mutex_) = false;
  bool pending_ GUARDED_BY(mutex_) = false;
  std::set<std::string> oldAllowedIds_ GUARDED_BY(mutex_);
  std::set<std::string> newAllowedIds_ GUARDED_BY(mutex_);
  Core::TimedSem sem_;  // bound to mutex_
  // Filled by initialize before CollectorControl starts and emptied by
  // terminateEnd after it joined; in between only read, so CollectorControl
  // uses it without mutex_.
  std::vector<std::unique_ptr<Collector>> collectors_;
  // The collectors started and not yet stopped, in list order. Only
  // CollectorControl touches it (terminateEnd clears it after the join).
  std::vector<Collector*> running_;
  // Started by initialize (under mutex_) and joined by terminateEnd (without
  // it, as the thread needs mutex_ to leave); the two never overlap, since the
  // agent starts and stops its managers one sequence at a time.
  Core::Thread thread_;
};

}  // namespace Ds
}  // namespace Lum
