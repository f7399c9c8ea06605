#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/LumJson.h"

namespace Lum {
namespace Tools {

// A device's remote-support session as the back end sees it.
enum class SupportSessionState { None, Active, Suspended, Ended };
const char* SupportSessionStateToString(SupportSessionState state);

// One task answer ("sv/command/put") as it arrived.
struct TaskAnswer {
  std::string commonName;  // the answering device
  uint32_t taskId = 0;     // the answer's "TASK_ID" (0 when it is not a number)
  std::string sessionId;   // its "SESSION_ID" (empty when not a text)
  LumJson::Value output;   // its "TASK_OUTPUT" (null when absent or not JSON)
  std::string text;        // "taskResponse" exactly as received
};

// What the back end knows of one device's (latest) support session.
struct SupportSessionView {
  std::string commonName;
  SupportSessionState state = SupportSessionState::None;
  std::string sessionId;  // the "SESSION_ID" of its task documents
  std::string code;       // six digits
  std::string token;
  bool allowSessionCodeBypass = false;
  uint32_t timeoutMs = 0;  // as sent with "sv/session/initialize"
  // Calls per path ("sv/command/get", ...) over the device's whole life,
  // refused ones included; answers made by injected faults do not count.
  std::map<std::string, unsigned> calls;
  uint32_t lastQueuedSeqNum = 0;     // the latest task queued (its TASK_ID too)
  uint32_t lastDeliveredSeqNum = 0;  // the latest task handed out by a get
  uint32_t lastSeenSeqNum = 0;       // the "seqNum" of the device's latest get
  uint32_t answersAccepted = 0;      // puts accepted in this session
  unsigned pendingTasks = 0;         // queued and not answered yet
  unsigned heldPolls = 0;            // gets being held right now
};

struct SupportSessionEvent {
  enum class Kind { Opened, Suspended, Resumed, Terminated, Ended, Expired };
  Kind kind = Kind::Opened;
  std::string commonName;
  std::string code;
};
const char* SupportSessionEventToString(SupportSessionEvent::Kind kind);

// The support-view side of the back end: one session per device (by client
// certificate CN), the tasks queued for it, the long poll that hands them out
// and the answers that come back. The operations named after a path take the
// caller's CN, its "Authorization" header and the request body and return
// the answer; the route has already checked the host and, for initialize, the
// GID token. A session token is only good together with the certificate it
// was issued to.
//
// A task stays queued until an answer with its TASK_ID arrives, so a device
// that restarts with seqNum 0 is handed again only what it has not answered.
//
// All operations are thread-safe (mutex_); a held get waits on cv_ with the
// mutex released, so it blocks nothing but its own connection. The callbacks
// run without the mutex held.
class SupportSessions {
 public:
  struct Options {
    // How long a get with nothing to hand out is held before 204.
    std::chrono::milliseconds hold{10000};
    // Whether a session idle for longer than its limit ends (see expired()).
    bool expire = false;
    std::function<void(const SupportSessionEvent&)> onEvent;
    std::function<void(const TaskAnswer&)> onAnswer;
  };
  struct Answer {
    int status = 200;
    std::string body;  // JSON; empty for 204
  };

  // "OPID-sv.INSTANCE" for a device certificate "OPID.INSTANCE".
  static std::string HostFor(const std::string& commonName);
  // One request element of a task document.
  static LumJson::Value CommandRequest(const std::string& name, const std::string& operation,
                                       const LumJson::Value& inputs);

  explicit SupportSessions(Options options);
  SupportSessions(const SupportSessions&) = delete;
  SupportSessions& operator=(const SupportSessions&) = delete;

  void countCall(const std::string& commonName, const std::string& path);
  Answer initialize(const std::string& commonName, const std::string& body);
  Answer terminate(const std::string& commonName, const std::string& token);
  Answer suspend(const std::string& commonName, const std::string& token);
  Answer resume(const std::string& commonName, const std::string& token, const std::string& body);
  // Blocks for up to the hold time (less when a task comes, the session
  // ends or pauses, or stopping is set).
  Answer getCommand(const std::string& commonName, const std::string& token,
                    const std::string& body);
  Answer putCommand(const std::string& commonName, const std::string& token,
                    const std::string& body);

  // While set, held gets answer 204 at once and new ones are not held.
  void setStopping(bool stopping);
  void setHold(std::chrono::milliseconds hold);

  // Queues a task for the device's open (active or suspended) session and
  // returns its seqNum, which is also its TASK_ID; 0 when there is no open
  // session or `requests` is not an array.
  uint32_t queueTask(const std::string& commonName, const LumJson::Value& requests);
  // Ends the device's open session; false when it had none.
  bool endSession(const std::string& commonName);
  bool view(const std::string& commonName, SupportSessionView* view) const;
  // In arrival order; every device's when `commonName` is empty.
  std::vector<TaskAnswer> answers(const std::string& commonName = "") const;
  bool waitForAnswers(size_t n, std::chrono::milliseconds timeout) const;
  bool waitForState(const std::string& commonName, SupportSessionState state,
                    std::chrono::milliseconds timeout) const;
  bool waitForHeldPolls(const std::string& commonName, unsigned n,
                        std::chrono::milliseconds timeout) const;

 private:
  using Clock = std::chrono::steady_clock;
  using Events = std::vector<SupportSessionEvent>;
  struct Task {
    uint32_t seqNum = 0;
    std::string document;
    bool answered = false;
  };
  struct Device {
    SupportSessionView view;  // the session's facts, handed out as they are
    std::vector<Task> tasks;
    Clock::time_point lastContact;
    uint32_t pauseLimitMs = 0;  // "timeoutMs" of the latest resume
  };

  // The device's session if `token` is its token and the session is open
  // (active, or suspended when `suspendedToo`); null otherwise.
  Device* open(const std::string& commonName, const std::string& token, bool suspendedToo,
               Events* events);
  Answer hold(Device& device, uint32_t after, std::unique_lock<std::mutex>& lock);
  TaskAnswer record(Device& device, const std::string& text);
  bool expired(const Device& device) const;
  void finish(Device& device, SupportSessionEvent::Kind kind, Events* events);
  void emit(const Events& events) const;
  // Runs `change` on the device's open (active or suspended) session under
  // the mutex, 422 for a token that opens none; then wakes the held polls
  // and reports the events.
  Answer changeSession(const std::string& commonName, const std::string& token,
                       const std::function<Answer(Device&, Events*)>& change);
  SupportSessionState stateOf(const std::string& commonName) const;

  const Options options_;  // hold is read from hold_ instead

  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;  // any change to a session, a task or an answer
  std::map<std::string, Device> devices_;
  std::vector<TaskAnswer> answers_;
  std::chrono::milliseconds hold_;
  bool stopping_ = false;
  unsigned long sessionCounter_ = 0;
};

}  // namespace Tools
}  // namespace Lum
