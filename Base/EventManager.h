#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "Base/Manager.h"
#include "Platform/BinarySem.h"
#include "Platform/Thread.h"

namespace Lum {
namespace Core {

// Carries out the events the back end pushes with a state answer, one at a
// time on "EventControl", so that a slow action (a browser, a support
// session) never holds up the core loop.
//
// queue_, terminating_, persistent_ and the handlers are guarded by the core
// mutex (CoreManager::getMutex), which sem_ is bound to.
class EventManager : public Manager {
 public:
  // An action another subsystem offers for an event; runs without the core
  // mutex. Returns false when the action is refused (for the log).
  using Handler = std::function<bool(uint32_t id, const std::string& parameters)>;

  static EventManager* Instance();

  void initialize(const ManagerContext& context) REQUIRES(CoreMutex()) override;
  void terminateBegin() REQUIRES(CoreMutex()) override;
  void terminateEnd() EXCLUDES(CoreMutex()) override;
  const char* waitName() const override { return "EventManager"; }

  // Called with the core mutex held.
  void queueEvent(const std::string& event, uint32_t id, const std::string& parameters)
      REQUIRES(CoreMutex());

  // Wires "startsvsession" and "softwareupdate" to the managers that act on
  // them; an unwired event is suppressed or ignored. Called with the core
  // mutex held, before the managers start.
  void setSessionStarter(Handler handler) REQUIRES(CoreMutex());
  void setUpdateSourceSetter(Handler handler) REQUIRES(CoreMutex());

  // Shows the consent page in the device's browser, for an https URL only;
  // returns the browser's pid, or -1 when it was not started. The browser is
  // not a child of the host: it runs on and is reaped without the host.
  static pid_t PerformConsentNotification(const std::string& url);

 private:
  struct Event {
    std::string event;
    uint32_t id;
    std::string parameters;
  };

  EventManager();
  static void* EventControl(void* arg);
  void runEvents() EXCLUDES(CoreMutex());
  void perform(const Event& event, const Handler& sessionStarter, const Handler& updateSetter,
               const std::string& consentUrl);

  Thread thread_;
  BinarySem sem_;
  std::deque<Event> queue_ GUARDED_BY(CoreMutex());
  bool terminating_ GUARDED_BY(CoreMutex()) = false;
  PersistentValues* persistent_ GUARDED_BY(CoreMutex()) PT_GUARDED_BY(CoreMutex()) = nullptr;
  Handler sessionStarter_ GUARDED_BY(CoreMutex());
  Handler updateSourceSetter_ GUARDED_BY(CoreMutex());
};

}  // namespace Core
}  // namespace Lum
