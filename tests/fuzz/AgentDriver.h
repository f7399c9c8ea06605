#pragma once

// Drives the agent's request cycles by hand for the back-end answer fuzz
// targets: the agent starts and stops through its C entry points with every
// thread creation refused, so no thread of its own runs, and the target plays
// the control thread, one round at a time, on a clock it moves itself. Every
// call is answered by the injector, so nothing goes to the network.

#include <lum.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "Base/ControlLoop.h"
#include "Base/Injector.h"
#include "Platform/Clock.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Mutex.h"
#include "Platform/RandomUtil.h"
#include "Platform/UnlockMutex.h"
#include "fuzz/FuzzSupport.h"
#include "tools/pki/TestPki.h"

namespace LumFuzz {

using Lum::Core::ControlCycle;

// A monotonic clock that stands still until the driver moves it, and a
// fixed wall clock that is never written to the machine.
class SteppingClock : public Lum::Core::Clock {
 public:
  timespec monotonic() const override { return now_; }
  timespec wall() const override { return timespec{1767225600, 0}; }
  int setWall(const timeval& /*value*/) const override { return 0; }
  void moveTo(const timespec& t) {
    if (Lum::Core::IsBefore(now_, t)) now_ = t;
  }
  void reset() { now_ = timespec{100000, 0}; }
  const timespec& now() const { return now_; }

 private:
  timespec now_{100000, 0};
};

// The input split into the answers it holds: records separated by a NUL,
// each "SSS<body>" with a three-digit status code.
struct Answer {
  unsigned status = 200;
  std::string body;
};

inline std::vector<Answer> SplitAnswers(const uint8_t* data, size_t size, size_t maxCount) {
  std::vector<Answer> answers;
  size_t start = 0;
  while (start <= size && answers.size() < maxCount) {
    size_t end = start;
    while (end < size && data[end] != 0) ++end;
    const std::string record(reinterpret_cast<const char*>(data) + start, end - start);
    Answer answer;
    if (record.size() >= 3 && isdigit(record[0]) && isdigit(record[1]) && isdigit(record[2])) {
      answer.status = static_cast<unsigned>(std::stoul(record.substr(0, 3)));
      answer.body = record.substr(3);
    } else {
      answer.body = record;
    }
    answers.push_back(answer);
    start = end + 1;
  }
  return answers;
}

// Every request, whatever its URL, gets this answer.
inline void AnswerEverything(const Answer& answer) {
  LumJson::Value response(LumJson::objectValue);
  response["statusCode"] = answer.status;
  response["body"] = answer.body;
  LumJson::Value entry(LumJson::objectValue);
  entry["suffix"] = "";
  entry["responses"].append(response);
  LumJson::Value entries(LumJson::arrayValue);
  entries.append(entry);
  Lum::Core::Injector::Instance().initialize(entries);
}

// While alive, a new thread cannot get its stack, so the agent's thread
// starts fail the way they fail on an exhausted device.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&saved_);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, size_t(1) << 46);
    pthread_setattr_default_np(&huge);
    pthread_attr_destroy(&huge);
  }
  ~NoThreads() {
    pthread_setattr_default_np(&saved_);
    pthread_attr_destroy(&saved_);
  }

 private:
  pthread_attr_t saved_;
};

class Agent {
 public:
  // Once per process: the device's credentials and a scratch directory.
  explicit Agent(const char* name) {
    Lum::Tools::TestPki pki;
    Lum::Tools::DeviceIdentity device;
    if (!pki.generate() ||
        !pki.issueDevice(Lum::Tools::TestPki::DeviceCommonName("acme", 1), &device)) {
      Fail("test PKI generation failed");
    }
    identity_ = device.identityJson(false);
    dir_ = WorkDir() + name;
    mkdir(dir_.c_str(), 0700);
    Lum::Core::Clock::Set(&clock_);
  }

  const std::string& dir() const { return dir_; }

  // The device trusts `pem` alone from the next start on, so that documents
  // signed under another test PKI open.
  void trustOnly(const std::string& pem) {
    LumJson::Value identity;
    if (!Lum::Core::JsonUtil::ParseObject(identity_, identity)) Fail("identity unreadable");
    identity["trust"] = pem;
    identity_ = Lum::Core::JsonUtil::WriteCompact(identity);
  }
  SteppingClock& clock() { return clock_; }

  // Starts the agent without threads, afresh in an empty directory unless
  // `keepFiles` (a restart over what the last run stored). The extra
  // configuration sections are merged in.
  void start(const LumJson::Value& sections = LumJson::Value(), bool keepFiles = false) {
    if (!keepFiles) ClearDir(dir_);
    clock_.reset();
    LumJson::Value config(LumJson::objectValue);
    config["core"]["persistentPath"] = dir_;
    config["core"]["temporaryPath"] = dir_;
    if (sections.isObject()) {
      for (const std::string& name : sections.getMemberNames()) config[name] = sections[name];
    }
    const std::string device =
        R"({"id":"SN-0001","model":"LT-55","subModel":"LT-55-EU","brand":"Acme",)"
        R"("esn":"ESN-0001","mac":"00:11:22:33:44:55","swVersion":"1.0.0"})";
    unsigned result = 0;
    {
      NoThreads noThreads;
      result = LumInit(identity_.c_str(), Lum::Core::JsonUtil::WriteCompact(config).c_str(),
                       device.c_str());
    }
    if (result != LUM_RESULT_SUCCESS) Fail("the agent did not start: " + std::to_string(result));
    // The jitter of the delays is drawn from here: the same input, the same run.
    const uint32_t seed = 1;
    Lum::Core::RandomUtil::SetSeed(&seed, sizeof seed);
  }

  void stop() {
    NoThreads noThreads;
    LumTerm();
    LumStatus status{};
    if (LumGetStatus(LumStatusMethodImmediate, &status) != LUM_RESULT_SUCCESS ||
        status.deviceAgentState != LumDeviceAgentUninitialized) {
      Fail("the agent did not stop");
    }
    LumFreeStatus(&status);
  }

 private:
  std::string identity_;
  std::string dir_;
  SteppingClock clock_;
};

// What one round of a control thread did.
struct Round {
  ControlCycle::Step step = ControlCycle::Step::Stop;
  long long waitedMs = 0;  // the wait before the call, moved through on the clock
  bool called = false;
  std::string url;   // of the call
  std::string sent;  // its body, or the data it sent
  long status = 0;   // of its answer
};

// Sees a prepared call before it is made, with the mutex held: the place to
// choose its answer from what it asks.
using BeforeCall = std::function<void(const Lum::Core::Http::Request&)>;

// One round of the control loop with `mutex` held, as the agent's thread
// runs it: a wait is not slept but the clock moved to its end.
inline Round RunRound(ControlCycle& cycle, Lum::Core::Mutex& mutex, SteppingClock& clock,
                      const std::atomic<bool>& cancel, const BeforeCall& beforeCall = nullptr)
    REQUIRES(mutex) {
  Round round;
  timespec deadline{};
  round.step = cycle.nextStep(deadline);
  if (round.step == ControlCycle::Step::Stop || round.step == ControlCycle::Step::WaitForever) {
    return round;
  }
  if (round.step == ControlCycle::Step::WaitUntil) {
    round.waitedMs = Lum::Core::DiffMilliseconds(deadline, clock.now());
    if (round.waitedMs > 0) {
      // The wait runs out; the next round decides afresh, as the loop does.
      cycle.waitStarted();
      clock.moveTo(deadline);
      cycle.waitEnded(ControlCycle::WaitOutcome::TimedOut);
      return round;
    }
    round.waitedMs = 0;
  }
  Lum::Core::Http::Request request;
  Lum::Core::Http::Response response;
  cycle.prepMicroService(request);
  cycle.prepResponse(response);
  request.cancel = cycle.cancelFlag(cancel);
  if (beforeCall) beforeCall(request);
  {
    Lum::Core::UnlockMutex unlocked(mutex);
    cycle.perform(request, response);
  }
  // A step without a URL (a check of a local file) has nothing to send.
  if (!request.url.empty() && !request.mock) {
    Fail("a request went past the injector: " + request.url);
  }
  round.url = request.url;
  round.sent = request.data != nullptr
                   ? std::string(reinterpret_cast<const char*>(request.data), request.dataLength)
                   : request.body;
  round.status = response.statusCode;
  cycle.postMicroService(response);
  round.called = true;
  return round;
}

}  // namespace LumFuzz
