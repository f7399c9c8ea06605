#include "Base/CollectorManager.h"

#include "Platform/ExceptionBarrier.h"
#include "Platform/FilterProperties.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/StringSetUtil.h"
#include "Platform/ThreadUtil.h"
#include "Platform/UnlockMutex.h"
#include "Project/CollectDeviceInfo.h"

LUM_SOURCE_FILE("Base/CollectorManager");

namespace Lum {
namespace Ds {

using Core::FilterProperties;
using Core::LockMutex;
using Core::StringSetUtil;
using FP = FilterProperties;

namespace {

constexpr int kDs = FP::SERVICE_DS;
constexpr int kDebugNameWidth = 37;

std::set<std::string> Difference(const std::set<std::string>& a, const std::set<std::string>& b) {
  std::set<std::string> result;
  for (const std::string& item : a) {
    if (b.count(item) == 0) {
      result.insert(item);
    }
  }
  return result;
}

void LogDebugLine(const char* name, const std::string& value) {
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "%-*s: %s", kDebugNameWidth, name,
          value.c_str());
}

}  // namespace

// Never destroyed: the host may exit while the collectors' threads run.
CollectorManager* CollectorManager::Instance() {
  static CollectorManager* const instance = new CollectorManager();
  return instance;
}

CollectorManager::CollectorManager() : sem_(mutex_) {}

void CollectorManager::initialize(const Core::ManagerContext& context) {
  LUM_TRACE(kDs);
  LockMutex lock(&mutex_);
  if (initialized_) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Aborted call to initialize()");
    return;
  }
  terminating_ = false;
  pending_ = false;
  oldAllowedIds_.clear();
  newAllowedIds_.clear();
  initializeCollectors(context);
  // Shortened to fit the kernel's 15 characters; the log keeps the full name.
  Core::ThreadUtil::Start(thread_, CollectorControl, this, "CollectorCtrl");
  initialized_ = true;
}

void CollectorManager::initializeCollectors(const Core::ManagerContext& context) {
  // Owned before the list grows: a list that cannot grow must not leak it.
  // A start that failed after this point left its collectors behind.
  collectors_.clear();
  collectors_.push_back(std::make_unique<CollectDeviceInfo>(context.device, context.persistent));
}

void CollectorManager::cascadeStateChanges(const std::set<std::string>& allowedIds) {
  LUM_TRACE(kDs);
  LockMutex lock(&mutex_);
  if (!initialized_ || terminating_) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Aborted call to cascadeStateChanges()");
    return;
  }
  newAllowedIds_ = allowedIds;
  pending_ = true;
  sem_.reset();
}

void CollectorManager::terminateBegin() {
  // The thread is woken before anything that may allocate and throw.
  LockMutex lock(&mutex_);
  if (initialized_) {
    terminating_ = true;
    sem_.reset();
  }
  LUM_TRACE(kDs);
  if (!initialized_) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Aborted call to terminateBegin()");
  }
}

void CollectorManager::terminateEnd() {
  LUM_TRACE(kDs);
  {
    LockMutex lock(&mutex_);
    if (!initialized_) {
      LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Aborted call to terminateEnd()");
      return;
    }
    // Normally terminateBegin did this already; without it the join below
    // would wait for ever.
    terminating_ = true;
    sem_.reset();
  }
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for CollectorControl to join");
  Core::ThreadUtil::Join(thread_);
  // The collectors belong to this run of the agent (they point at its core
  // values); the next initialize builds new ones from a clean slate. They
  // are deleted after mutex_ is released, as a collector's teardown may take
  // the core mutex, which comes first in the lock order.
  std::vector<std::unique_ptr<Collector>> finished;
  LockMutex lock(&mutex_);
  finished.swap(collectors_);
  running_.clear();
  oldAllowedIds_.clear();
  newAllowedIds_.clear();
  pending_ = false;
  terminating_ = false;
  initialized_ = false;
  // The thread may have left without taking the last wake; the next run must
  // not start with a spurious round.
  sem_.clear();
}

void* CollectorManager::CollectorControl(void* arg) {
  static_cast<CollectorManager*>(arg)->runCollectorControl();
  return nullptr;
}

void CollectorManager::runCollectorControl() {
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "CollectorControl started");
  bool firstRound = true;
  {
    LockMutex lock(&mutex_);
    for (;;) {
      while (!pending_ && !terminating_) {
        LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "CollectorControl waiting");
        sem_.wait(nullptr);
      }
      // A change handed over before termination began is still carried out,
      // so a collector it halts keeps the mark that makes its next start
      // report.
      if (!pending_) {
        break;
      }
      LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "CollectorControl running");
      const std::set<std::string> next = newAllowedIds_;
      const std::set<std::string> previous = oldAllowedIds_;
      oldAllowedIds_ = newAllowedIds_;
      pending_ = false;
      logStateDebugLocked();
      Core::UnlockMutex unlocked(mutex_);
      // A collector that fails to start or stop must not take the others'
      // changes with it.
      Core::ExceptionBarrier::Run("CollectorControl",
                                  [&] { applyChange(previous, next, firstRound); });
      firstRound = false;
    }
  }
  // No collector thread may outlive terminateEnd, including one started by a
  // change carried out during termination.
  stopRunningCollectors();
  LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "CollectorControl terminated");
}

void CollectorManager::applyChange(const std::set<std::string>& previous,
                                   const std::set<std::string>& next, bool firstRound) {
  const std::set<std::string> removed = Difference(previous, next);
  const std::set<std::string> added = Difference(next, previous);
  std::vector<Collector*> stopList;
  std::vector<Collector*> haltList;
  std::vector<Collector*> startList;
  // At the first round nothing is known about what the back end already has
  // from a collector that is not allowed now, so one such collector is halted
  // to make its eventual start report.
  bool haltUnallowed = firstRound;
  for (const std::unique_ptr<Collector>& owned : collectors_) {
    Collector* collector = owned.get();
    if (collector->intersects(added)) {
      // A running collector restarts so that it picks up its new ids.
      if (collector->intersects(previous)) {
        stopList.push_back(collector);
      }
      startList.push_back(collector);
    } else if (collector->intersects(removed)) {
      stopList.push_back(collector);
      if (collector->intersects(next)) {
        startList.push_back(collector);
      } else {
        haltList.push_back(collector);
      }
    } else if (haltUnallowed && !collector->intersects(next)) {
      haltList.push_back(collector);
      haltUnallowed = false;
    }
  }
  stopCollectors(stopList);
  haltCollectors(haltList);
  startCollectors(startList, next);
}

void CollectorManager::stopCollectors(const std::vector<Collector*>& collectors) {
  // All are asked first and waited for afterwards, so they wind down in
  // parallel.
  for (Collector* collector : collectors) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Stopping Collector \"%s\"",
            collector->getName().c_str());
    collector->terminateBegin();
  }
  for (Collector* collector : collectors) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for Collector \"%s\"",
            collector->getName().c_str());
    collector->terminateEnd();
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Terminated Collector \"%s\"",
            collector->getName().c_str());
    for (auto it = running_.begin(); it != running_.end(); ++it) {
      if (*it == collector) {
        running_.erase(it);
        break;
      }
    }
  }
}

void CollectorManager::haltCollectors(const std::vector<Collector*>& collectors) {
  for (Collector* collector : collectors) {
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Halting Collector \"%s\"",
            collector->getName().c_str());
    collector->halt();
  }
}

void CollectorManager::startCollectors(const std::vector<Collector*>& collectors,
                                       const std::set<std::string>& next) {
  for (Collector* collector : collectors) {
    std::set<std::string> ids;
    for (const std::string& id : collector->getIds()) {
      if (next.count(id) != 0) {
        ids.insert(id);
      }
    }
    LUM_LOG(kDs, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Initializing Collector \"%s\" [%s]",
            collector->getName().c_str(), StringSetUtil::StringSetToCsvString(ids).c_str());
    collector->initialize(ids);
    running_.push_back(collector);
  }
}

void CollectorManager::stopRunningCollectors() {
  const std::vector<Collector*> running = running_;
  stopCollectors(running);
}

void CollectorManager::logStateDebugLocked() {
  if (!Core::Logger::Instance().test(kDs, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  LogDebugLine("initialized", initialized_ ? "true" : "false");
  LogDebugLine("pending", pending_ ? "true" : "false");
  LogDebugLine("oldAllowedIds", StringSetUtil::StringSetToCsvString(oldAllowedIds_));
  LogDebugLine("newAllowedIds", StringSetUtil::StringSetToCsvString(newAllowedIds_));
  std::string collectors;
  for (const std::unique_ptr<Collector>& collector : collectors_) {
    if (!collectors.empty()) {
      collectors += ",";
    }
    collectors += collector->getName();
  }
  LogDebugLine("collectors", collectors);
}

}  // namespace Ds
}  // namespace Lum
