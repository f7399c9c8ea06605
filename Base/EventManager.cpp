#include "Base/EventManager.h"

#include "Base/CoreManager.h"
#include "Base/PersistentValues.h"
#include "Platform/ExceptionBarrier.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Logger.h"
#include "Platform/ThreadUtil.h"
#include "Platform/UnlockMutex.h"

LUM_SOURCE_FILE("Base/EventManager");

namespace Lum {
namespace Core {

using FP = FilterProperties;

namespace {
constexpr int kCore = FP::SERVICE_CORE;
}  // namespace

// Never destroyed: the host may exit while EventControl runs.
EventManager* EventManager::Instance() {
  static EventManager* const instance = new EventManager();
  return instance;
}

EventManager::EventManager() : sem_(false, CoreManager::Instance()->getMutex()) {}

void EventManager::initialize(const ManagerContext& context) {
  LUM_TRACE(kCore);
  persistent_ = context.persistent;
  terminating_ = false;
  queue_.clear();
  ThreadUtil::Start(thread_, EventControl, this, "EventControl");
}

void EventManager::setSessionStarter(Handler handler) {
  sessionStarter_ = std::move(handler);
}

void EventManager::setUpdateSourceSetter(Handler handler) {
  updateSourceSetter_ = std::move(handler);
}

void EventManager::queueEvent(const std::string& event, uint32_t id,
                              const std::string& parameters) {
  LUM_TRACE(kCore);
  if (terminating_) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
            "Not Queueing event=%s, id=%u, parameters=%s", event.c_str(), id, parameters.c_str());
    return;
  }
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Queueing event=%s, id=%u, parameters=%s",
          event.c_str(), id, parameters.c_str());
  if (Logger::Instance().test(kCore, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG)) {
    LumJson::Value queued(LumJson::objectValue);
    queued["event"] = event;
    queued["parameters"] = parameters;
    LumJson::Value wrapper(LumJson::objectValue);
    wrapper["coreEventQueued"] = queued;
    LUM_LOG(kCore, FP::CATEGORY_TEST, FP::SEVERITY_DEBUG, "%s",
            JsonUtil::WriteCompact(wrapper).c_str());
  }
  queue_.push_back(Event{event, id, parameters});
  sem_.giveLocked();
}

void EventManager::terminateBegin() {
  terminating_ = true;
  sem_.giveLocked();
  LUM_TRACE(kCore);
}

void EventManager::terminateEnd() {
  LUM_TRACE(kCore);
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Waiting for EventControl to join");
  ThreadUtil::Join(thread_);
}

void* EventManager::EventControl(void* arg) {
  static_cast<EventManager*>(arg)->runEvents();
  return nullptr;
}

void EventManager::runEvents() {
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "EventControl started");
  LockMutex lock(&CoreMutex());
  for (;;) {
    while (queue_.empty() && !terminating_) {
      sem_.takeLocked();
    }
    if (terminating_) {
      break;
    }
    const Event event = queue_.front();
    queue_.pop_front();
    // Copies taken under the mutex: the action runs without it.
    const Handler sessionStarter = sessionStarter_;
    const Handler updateSetter = updateSourceSetter_;
    const std::string consentUrl = persistent_ != nullptr ? persistent_->getDaConsentUrl() : "";
    UnlockMutex unlocked(CoreMutex());
    // One failing action must not end the thread and with it every later
    // event.
    ExceptionBarrier::Run("EventControl",
                          [&] { perform(event, sessionStarter, updateSetter, consentUrl); });
  }
  for (const Event& event : queue_) {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Aborting event=%s, id=%u, parameters=%s",
            event.event.c_str(), event.id, event.parameters.c_str());
  }
  queue_.clear();
  LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "EventControl terminated");
}

void EventManager::perform(const Event& event, const Handler& sessionStarter,
                           const Handler& updateSetter, const std::string& consentUrl) {
  if (event.event == "startsvsession") {
    if (!sessionStarter || !sessionStarter(event.id, event.parameters)) {
      LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
              "Suppressing event=%s, id=%u, parameters=%s", event.event.c_str(), event.id,
              event.parameters.c_str());
    }
  } else if (event.event == "consentnotification") {
    PerformConsentNotification(consentUrl);
  } else if (event.event == "softwareupdate" && updateSetter) {
    updateSetter(event.id, event.parameters);
  } else {
    LUM_LOG(kCore, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "Ignoring event=%s, id=%u, parameters=%s",
            event.event.c_str(), event.id, event.parameters.c_str());
  }
}

}  // namespace Core
}  // namespace Lum
