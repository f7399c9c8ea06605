#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "Base/ControlLoop.h"
#include "Platform/Clock.h"
#include "Platform/LockMutex.h"
#include "Platform/Mutex.h"
#include "Platform/TimedSem.h"
#include "agent/AgentHarness.h"
#include "support/LogCapture.h"

namespace {

using Lum::Core::ControlCycle;
using Lum::Core::ControlLoop;
using Lum::Core::ControlTexts;
using Lum::Core::Http;
using Lum::Core::LockMutex;
using Lum::Core::Mutex;
using Lum::Core::TimedSem;
using Outcome = ControlCycle::WaitOutcome;
using Step = ControlCycle::Step;
using namespace std::chrono;

// A cycle that plays a script of steps (waits relative to now) and records
// what the loop tells it. Calls go to the local back end.
class ScriptedCycle : public ControlCycle {
 public:
  struct Entry {
    Step step;
    long long waitMs;  // for WaitUntil, relative to when the step is taken
  };

  ScriptedCycle(LumTest::AgentHarness& agent, std::deque<Entry> script, bool keep)
      : agent_(agent), script_(std::move(script)), keep_(keep) {}

  Step nextStep(timespec& deadline) override {
    if (script_.empty()) {
      return Step::Stop;
    }
    const Entry entry = script_.front();
    script_.pop_front();
    deadline = Lum::Core::AddMilliseconds(Lum::Core::Clock::MonotonicNow(), 0);
    if (entry.waitMs >= 0) {
      deadline = Lum::Core::AddMilliseconds(deadline, entry.waitMs);
    } else {
      deadline.tv_sec -= 1;
    }
    return entry.step;
  }
  std::string nextCallName() override { return "TestCall"; }
  void prepMicroService(Http::Request& request) override {
    request.clientCertificate = agent_.device().certPem.c_str();
    request.clientKey = agent_.device().keyPem.c_str();
    request.caCertificates = agent_.device().trustPem.c_str();
    request.url = agent_.backend().baseUrl("acme") + "/test/method";
    request.connectTimeout = 5000;
    request.messageTimeout = 20000;
    request.keepAlive = keep_;
  }
  void postMicroService(Http::Response& response) override {
    statuses.push_back(response.statusCode);
    if (keep_) {
      handles.push_back(kept_.handle);
    }
  }
  void waitStarted() override { waiting = true; }
  void waitEnded(Outcome outcome) override {
    waiting = false;
    outcomes.push_back(outcome);
  }
  Http::Request* keptRequest() override { return keep_ ? &kept_ : nullptr; }

  std::vector<long> statuses;
  std::vector<Outcome> outcomes;
  std::vector<void*> handles;
  std::atomic<bool> waiting{false};
  Http::Request kept_;

 private:
  LumTest::AgentHarness& agent_;
  std::deque<Entry> script_;
  bool keep_;
};

ControlTexts Texts(bool skips) {
  ControlTexts texts;
  texts.name = "TestControl";
  texts.callSuffix = " (long poll)";
  texts.skipsPassedDelay = skips;
  texts.logsDelayed = true;
  texts.indefiniteWaitEnded = "delay was previosly reset";
  return texts;
}

// Runs the loop on a thread; `wake` resets the semaphore whenever the cycle
// is asleep on it and the test asks for a wake.
struct LoopThread {
  LoopThread(ScriptedCycle& cycle, const ControlTexts& loopTexts)
      : texts(loopTexts),
        sem(mutex),
        thread([this, &cycle] { ControlLoop::Run(texts, 0, mutex, sem, cycle, cancel); }) {}
  ~LoopThread() { thread.join(); }
  void wakeWhenWaiting(ScriptedCycle& cycle) {
    ASSERT_TRUE(LumTest::WaitFor([&] { return cycle.waiting.load(); }));
    LockMutex lock(&mutex);
    sem.reset();
  }
  const ControlTexts texts;  // the loop reads them for as long as it runs
  Mutex mutex;
  TimedSem sem;
  std::atomic<bool> cancel{false};
  std::thread thread;
};

// Every way a wait ends reaches the cycle, and each has its own line.
TEST(ControlLoop, TellsTheCycleHowEachWaitEnded) {
  LumTest::AgentHarness agent;
  LumTest::LogCapture log("debug");
  ScriptedCycle cycle(agent,
                      {{Step::WaitUntil, 30},
                       {Step::WaitUntil, 60000},
                       {Step::WaitUntil, -1},
                       {Step::WaitForever, 0},
                       {Step::Call, 0}},
                      false);
  const ControlTexts texts = Texts(true);
  {
    LoopThread loop(cycle, texts);
    // The first wait runs out; the second is cut short.
    auto asleepAfter = [&](size_t waits) {
      return LumTest::WaitFor([&] {
        LockMutex lock(&loop.mutex);
        return cycle.outcomes.size() == waits && cycle.waiting;
      });
    };
    ASSERT_TRUE(asleepAfter(1));
    loop.wakeWhenWaiting(cycle);
    ASSERT_TRUE(asleepAfter(3));
    loop.wakeWhenWaiting(cycle);
  }
  EXPECT_EQ(cycle.outcomes, (std::vector<Outcome>{Outcome::TimedOut, Outcome::Woken,
                                                  Outcome::Skipped, Outcome::Woken}));
  EXPECT_EQ(cycle.statuses, std::vector<long>{200});
  for (const char* line :
       {"TestControl started", "TestControl delayed", "TestControl delay was previously reset",
        "TestControl skipping delay", "TestControl delaying indefinitely",
        "TestControl delay was previosly reset", "TestControl calling TestCall (long poll)",
        "TestControl terminated"}) {
    EXPECT_TRUE(log.logged(line)) << line;
  }
}

// Without the skip, a deadline that has passed leads straight to the call.
TEST(ControlLoop, APassedDeadlineCallsAtOnceUnlessTheThreadSkips) {
  LumTest::AgentHarness agent;
  ScriptedCycle cycle(agent, {{Step::WaitUntil, -1}}, false);
  { LoopThread loop(cycle, Texts(false)); }
  EXPECT_TRUE(cycle.outcomes.empty());
  EXPECT_EQ(cycle.statuses, std::vector<long>{200});
}

// A kept request keeps its connection from call to call and gives it up when
// the thread ends.
TEST(ControlLoop, AKeptRequestKeepsItsConnectionUntilTheThreadEnds) {
  LumTest::AgentHarness agent;
  ScriptedCycle cycle(agent, {{Step::Call, 0}, {Step::Call, 0}, {Step::Call, 0}}, true);
  { LoopThread loop(cycle, Texts(true)); }
  ASSERT_EQ(cycle.handles.size(), 3u);
  EXPECT_NE(cycle.handles[0], nullptr);
  EXPECT_EQ(cycle.handles[1], cycle.handles[0]);
  EXPECT_EQ(cycle.handles[2], cycle.handles[0]);
  EXPECT_EQ(cycle.kept_.handle, nullptr);
  EXPECT_EQ(cycle.statuses, (std::vector<long>{200, 200, 200}));
}

}  // namespace
