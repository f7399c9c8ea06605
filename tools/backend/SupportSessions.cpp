#include "tools/backend/SupportSessions.h"

#include <openssl/rand.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include "tools/backend/JsonText.h"

namespace Lum {
namespace Tools {

namespace {

// How long a suspended session stays resumable when no resume has named a
// limit yet: the agent's own default pause limit.
constexpr uint32_t kDefaultPauseLimitMs = 180000;

// Unpredictable, so a device cannot guess another device's session token.
bool RandomBytes(unsigned char* bytes, size_t length) {
  return RAND_bytes(bytes, static_cast<int>(length)) == 1;
}

std::string RandomHex(size_t length) {
  std::vector<unsigned char> bytes(length);
  if (!RandomBytes(bytes.data(), bytes.size())) {
    return "norandom";
  }
  std::string hex;
  char digits[3];
  for (unsigned char c : bytes) {
    std::snprintf(digits, sizeof(digits), "%02x", c);
    hex += digits;
  }
  return hex;
}

std::string SixDigits() {
  uint32_t n = 0;
  RandomBytes(reinterpret_cast<unsigned char*>(&n), sizeof n);
  char code[8];
  std::snprintf(code, sizeof(code), "%06u", static_cast<unsigned>(n % 1000000u));
  return code;
}

SupportSessions::Answer Refuse(int status, const std::string& text) {
  LumJson::Value body(LumJson::objectValue);
  body["error"] = text;
  return SupportSessions::Answer{status, JsonText::Compact(body)};
}

SupportSessions::Answer Empty() {
  return SupportSessions::Answer{200, "{}"};
}

// Reads an optional unsigned member; false when present but not one.
bool OptionalUInt(const LumJson::Value& object, const char* name, uint32_t* value) {
  const LumJson::Value& member = object[name];
  if (member.isNull()) {
    return true;
  }
  if (!member.isUInt()) {
    return false;
  }
  *value = member.asUInt();
  return true;
}

}  // namespace

const char* SupportSessionStateToString(SupportSessionState state) {
  switch (state) {
    case SupportSessionState::None:
      return "none";
    case SupportSessionState::Active:
      return "active";
    case SupportSessionState::Suspended:
      return "suspended";
    case SupportSessionState::Ended:
      return "ended";
  }
  return "unknown";
}

const char* SupportSessionEventToString(SupportSessionEvent::Kind kind) {
  switch (kind) {
    case SupportSessionEvent::Kind::Opened:
      return "opened";
    case SupportSessionEvent::Kind::Suspended:
      return "suspended";
    case SupportSessionEvent::Kind::Resumed:
      return "resumed";
    case SupportSessionEvent::Kind::Terminated:
      return "terminated";
    case SupportSessionEvent::Kind::Ended:
      return "ended by the back end";
    case SupportSessionEvent::Kind::Expired:
      return "expired";
  }
  return "unknown";
}

std::string SupportSessions::HostFor(const std::string& commonName) {
  const size_t dot = commonName.find('.');
  if (dot == std::string::npos) {
    return commonName + "-sv.";
  }
  return commonName.substr(0, dot) + "-sv." + commonName.substr(dot + 1);
}

LumJson::Value SupportSessions::CommandRequest(const std::string& name,
                                               const std::string& operation,
                                               const LumJson::Value& inputs) {
  LumJson::Value request(LumJson::objectValue);
  request["COMMAND"]["NAME"] = name;
  request["COMMAND"]["OPERATION"] = operation;
  request["COMMAND"]["VERSION"] = 0;
  request["INPUTS"] = inputs;
  return request;
}

SupportSessions::SupportSessions(Options options)
    : options_(std::move(options)), hold_(options_.hold) {}

void SupportSessions::countCall(const std::string& commonName, const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  Device& device = devices_[commonName];
  device.view.commonName = commonName;
  ++device.view.calls[path];
}

// ---- the paths ----

SupportSessions::Answer SupportSessions::initialize(const std::string& commonName,
                                                    const std::string& body) {
  LumJson::Value request;
  if (!JsonText::ParseStrict(body, &request) || !request.isObject() ||
      !(request["allowSessionCodeBypass"].isNull() || request["allowSessionCodeBypass"].isBool())) {
    return Refuse(400, "expected {\"allowSessionCodeBypass\": bool, \"timeoutMs\": n}");
  }
  uint32_t timeoutMs = 0;
  if (!OptionalUInt(request, "timeoutMs", &timeoutMs)) {
    return Refuse(400, "\"timeoutMs\" is not an unsigned number");
  }
  Events events;
  LumJson::Value answer(LumJson::objectValue);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Device& device = devices_[commonName];
    // A device has one session: a new one replaces what was left open.
    if (device.view.state == SupportSessionState::Active ||
        device.view.state == SupportSessionState::Suspended) {
      finish(device, SupportSessionEvent::Kind::Ended, &events);
    }
    SupportSessionView& view = device.view;
    const std::map<std::string, unsigned> calls = view.calls;
    const unsigned heldPolls = view.heldPolls;
    view = SupportSessionView();
    view.commonName = commonName;
    view.calls = calls;
    view.heldPolls = heldPolls;
    view.state = SupportSessionState::Active;
    view.sessionId = "sv-" + std::to_string(++sessionCounter_) + "-" + RandomHex(4);
    view.code = SixDigits();
    view.token = "svt-" + RandomHex(16);
    view.allowSessionCodeBypass = request["allowSessionCodeBypass"].asBool();
    view.timeoutMs = timeoutMs;
    device.tasks.clear();
    device.pauseLimitMs = 0;
    device.lastContact = Clock::now();
    answer["sessionCode"] = view.code;
    answer["sessionToken"] = view.token;
    events.push_back({SupportSessionEvent::Kind::Opened, commonName, view.code});
  }
  cv_.notify_all();
  emit(events);
  return Answer{200, JsonText::Compact(answer)};
}

SupportSessions::Answer SupportSessions::changeSession(
    const std::string& commonName, const std::string& token,
    const std::function<Answer(Device&, Events*)>& change) {
  Events events;
  Answer answer = Empty();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Device* device = open(commonName, token, true, &events);
    answer = device == nullptr ? Refuse(422, "unknown session token") : change(*device, &events);
  }
  cv_.notify_all();  // a held get ends when its session pauses or ends
  emit(events);
  return answer;
}

SupportSessions::Answer SupportSessions::terminate(const std::string& commonName,
                                                   const std::string& token) {
  return changeSession(commonName, token, [this](Device& device, Events* events) {
    finish(device, SupportSessionEvent::Kind::Terminated, events);
    return Empty();
  });
}

SupportSessions::Answer SupportSessions::suspend(const std::string& commonName,
                                                 const std::string& token) {
  return changeSession(commonName, token, [&commonName](Device& device, Events* events) {
    if (device.view.state == SupportSessionState::Active) {
      device.view.state = SupportSessionState::Suspended;
      events->push_back({SupportSessionEvent::Kind::Suspended, commonName, device.view.code});
    }
    device.lastContact = Clock::now();
    return Empty();
  });
}

SupportSessions::Answer SupportSessions::resume(const std::string& commonName,
                                                const std::string& token, const std::string& body) {
  LumJson::Value request;
  uint32_t pauseLimitMs = 0;
  const bool parsed = JsonText::ParseStrict(body, &request) && request.isObject() &&
                      OptionalUInt(request, "timeoutMs", &pauseLimitMs);
  return changeSession(commonName, token, [&](Device& device, Events* events) {
    if (!parsed) {
      return Refuse(400, "expected {\"timeoutMs\": n}");
    }
    if (device.view.state == SupportSessionState::Suspended) {
      device.view.state = SupportSessionState::Active;
      events->push_back({SupportSessionEvent::Kind::Resumed, commonName, device.view.code});
    }
    device.pauseLimitMs = pauseLimitMs;
    device.lastContact = Clock::now();
    return Empty();
  });
}

SupportSessions::Answer SupportSessions::getCommand(const std::string& commonName,
                                                    const std::string& token,
                                                    const std::string& body) {
  LumJson::Value request;
  const bool parsed =
      JsonText::ParseStrict(body, &request) && request.isObject() && request["seqNum"].isUInt();
  Events events;
  Answer answer{204, ""};
  {
    std::unique_lock<std::mutex> lock(mutex_);
    Device* device = open(commonName, token, false, &events);
    if (device == nullptr) {
      answer = Refuse(422, "no active session for this token");
    } else if (!parsed) {
      answer = Refuse(400, "expected {\"seqNum\": n}");
    } else {
      answer = hold(*device, request["seqNum"].asUInt(), lock);
    }
  }
  cv_.notify_all();
  emit(events);
  return answer;
}

// The long poll: hands out the first unanswered task after `after`, waiting
// for one until the hold time is up. The device record stays where it is
// (map nodes do not move), but its session may be replaced, suspended or
// ended while this waits, which ends the wait with 204.
SupportSessions::Answer SupportSessions::hold(Device& device, uint32_t after,
                                              std::unique_lock<std::mutex>& lock) {
  const std::string sessionId = device.view.sessionId;
  const Clock::time_point deadline = Clock::now() + hold_;
  device.view.lastSeenSeqNum = after;
  ++device.view.heldPolls;
  cv_.notify_all();
  Answer answer{204, ""};
  while (!stopping_ && device.view.sessionId == sessionId &&
         device.view.state == SupportSessionState::Active) {
    const Task* next = nullptr;
    for (const Task& task : device.tasks) {
      if (task.seqNum > after && !task.answered) {
        next = &task;
        break;
      }
    }
    if (next != nullptr) {
      LumJson::Value delivery(LumJson::objectValue);
      delivery["seqNum"] = next->seqNum;
      delivery["taskRequest"] = next->document;
      device.view.lastDeliveredSeqNum = next->seqNum;
      answer = Answer{200, JsonText::Compact(delivery)};
      break;
    }
    if (Clock::now() >= deadline) {
      break;
    }
    cv_.wait_until(lock, deadline);
  }
  --device.view.heldPolls;
  if (device.view.sessionId == sessionId) {
    device.lastContact = Clock::now();  // a held poll is contact too
  }
  return answer;
}

SupportSessions::Answer SupportSessions::putCommand(const std::string& commonName,
                                                    const std::string& token,
                                                    const std::string& body) {
  LumJson::Value request;
  const bool parsed = JsonText::ParseStrict(body, &request) && request.isObject() &&
                      request["taskResponse"].isString();
  Events events;
  TaskAnswer received;
  Answer answer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    Device* device = open(commonName, token, false, &events);
    if (device == nullptr) {
      answer = Refuse(422, "no active session for this token");
    } else if (!parsed) {
      answer = Refuse(400, "expected {\"taskResponse\": text, \"seqNum\": n}");
    } else {
      received = record(*device, request["taskResponse"].asString());
      LumJson::Value accepted(LumJson::objectValue);
      accepted["seqNum"] = device->view.answersAccepted;
      answer = Answer{200, JsonText::Compact(accepted)};
    }
  }
  cv_.notify_all();
  emit(events);
  if (answer.status == 200 && options_.onAnswer) {
    options_.onAnswer(received);
  }
  return answer;
}

// Stores an answer and takes its task off the queue.
TaskAnswer SupportSessions::record(Device& device, const std::string& text) {
  TaskAnswer received;
  received.commonName = device.view.commonName;
  received.text = text;
  LumJson::Value document;
  if (JsonText::ParseStrict(text, &document) && document.isObject()) {
    received.taskId = document["TASK_ID"].isUInt() ? document["TASK_ID"].asUInt() : 0;
    received.sessionId = document["SESSION_ID"].isString() ? document["SESSION_ID"].asString() : "";
    received.output = document["TASK_OUTPUT"];
  }
  for (Task& task : device.tasks) {
    if (task.seqNum == received.taskId && !task.answered) {
      task.answered = true;
      --device.view.pendingTasks;
    }
  }
  ++device.view.answersAccepted;
  device.lastContact = Clock::now();
  answers_.push_back(received);
  return received;
}

// ---- helpers ----

SupportSessions::Device* SupportSessions::open(const std::string& commonName,
                                               const std::string& token, bool suspendedToo,
                                               Events* events) {
  auto it = devices_.find(commonName);
  if (token.empty() || it == devices_.end() || it->second.view.token != token) {
    return nullptr;
  }
  Device& device = it->second;
  if (device.view.state != SupportSessionState::Active &&
      device.view.state != SupportSessionState::Suspended) {
    return nullptr;
  }
  if (expired(device)) {
    finish(device, SupportSessionEvent::Kind::Expired, events);
    return nullptr;
  }
  if (device.view.state == SupportSessionState::Suspended && !suspendedToo) {
    return nullptr;
  }
  return &device;
}

// Expiry is noticed at the session's next call (a session nobody calls
// simply stays as it is); a held get counts as contact throughout.
bool SupportSessions::expired(const Device& device) const {
  if (!options_.expire || device.view.heldPolls > 0) {
    return false;
  }
  const uint32_t limitMs =
      device.view.state == SupportSessionState::Suspended
          ? (device.pauseLimitMs != 0 ? device.pauseLimitMs : kDefaultPauseLimitMs)
          : device.view.timeoutMs;
  return limitMs != 0 && Clock::now() - device.lastContact > std::chrono::milliseconds(limitMs);
}

void SupportSessions::finish(Device& device, SupportSessionEvent::Kind kind, Events* events) {
  device.view.state = SupportSessionState::Ended;
  device.view.pendingTasks = 0;
  device.tasks.clear();
  events->push_back({kind, device.view.commonName, device.view.code});
}

void SupportSessions::emit(const Events& events) const {
  if (options_.onEvent) {
    for (const auto& event : events) {
      options_.onEvent(event);
    }
  }
}

SupportSessionState SupportSessions::stateOf(const std::string& commonName) const {
  auto it = devices_.find(commonName);
  return it == devices_.end() ? SupportSessionState::None : it->second.view.state;
}

// ---- control ----

void SupportSessions::setStopping(bool stopping) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = stopping;
  }
  cv_.notify_all();
}

void SupportSessions::setHold(std::chrono::milliseconds hold) {
  std::lock_guard<std::mutex> lock(mutex_);
  hold_ = hold;
}

uint32_t SupportSessions::queueTask(const std::string& commonName, const LumJson::Value& requests) {
  if (!requests.isArray()) {
    return 0;
  }
  uint32_t seqNum = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = devices_.find(commonName);
    if (it == devices_.end() || (it->second.view.state != SupportSessionState::Active &&
                                 it->second.view.state != SupportSessionState::Suspended)) {
      return 0;
    }
    Device& device = it->second;
    seqNum = ++device.view.lastQueuedSeqNum;
    LumJson::Value document(LumJson::objectValue);
    document["SESSION_ID"] = device.view.sessionId;
    document["TASK_ID"] = seqNum;
    document["REQUESTS"] = requests;
    device.tasks.push_back(Task{seqNum, JsonText::Compact(document), false});
    ++device.view.pendingTasks;
  }
  cv_.notify_all();  // a held get hands it out
  return seqNum;
}

bool SupportSessions::endSession(const std::string& commonName) {
  Events events;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = devices_.find(commonName);
    if (it == devices_.end() || (it->second.view.state != SupportSessionState::Active &&
                                 it->second.view.state != SupportSessionState::Suspended)) {
      return false;
    }
    finish(it->second, SupportSessionEvent::Kind::Ended, &events);
  }
  cv_.notify_all();
  emit(events);
  return true;
}

bool SupportSessions::view(const std::string& commonName, SupportSessionView* view) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = devices_.find(commonName);
  if (it == devices_.end()) {
    return false;
  }
  *view = it->second.view;
  return true;
}

std::vector<TaskAnswer> SupportSessions::answers(const std::string& commonName) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<TaskAnswer> matching;
  for (const auto& answer : answers_) {
    if (commonName.empty() || answer.commonName == commonName) {
      matching.push_back(answer);
    }
  }
  return matching;
}

bool SupportSessions::waitForAnswers(size_t n, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, timeout, [&] { return answers_.size() >= n; });
}

bool SupportSessions::waitForState(const std::string& commonName, SupportSessionState state,
                                   std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, timeout, [&] { return stateOf(commonName) == state; });
}

bool SupportSessions::waitForHeldPolls(const std::string& commonName, unsigned n,
                                       std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, timeout, [&] {
    auto it = devices_.find(commonName);
    return it != devices_.end() && it->second.view.heldPolls >= n;
  });
}

}  // namespace Tools
}  // namespace Lum
