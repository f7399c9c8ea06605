// Events pushed by the back end are carried out in order, one at a time,
// and those still queued at termination are dropped with a line each.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "agent/AgentHarness.h"
#include "Base/CoreManager.h"
#include "Base/EventManager.h"
#include "Platform/LockMutex.h"

namespace {

using LumTest::AgentHarness;
using LumTest::QuickTunables;
using Lum::Core::CoreManager;
using Lum::Core::EventManager;
using std::chrono::seconds;

// Holds the event thread inside an action until the test lets it go.
class Gate {
 public:
  bool enter() {
    std::unique_lock<std::mutex> lock(mutex_);
    entered_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    return true;
  }
  bool waitEntered() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, seconds(10), [this] { return entered_; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool open_ = false;
};

void SetSessionStarter(EventManager::Handler handler) {
  Lum::Core::LockMutex lock(&CoreManager::Instance()->getMutex());
  EventManager::Instance()->setSessionStarter(std::move(handler));
}

TEST(Events, PushedEventsRunInOrderAndUnwiredSessionsAreSuppressed) {
  AgentHarness agent;
  agent.backend().pushTunables(QuickTunables(60000));
  agent.backend().queueEvent("firstevent", 11, "a");
  agent.backend().queueEvent("startsvsession", 12, "");
  agent.backend().queueEvent("secondevent", 13, "b");
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.waitForLog("Ignoring event=secondevent, id=13, parameters=b", seconds(10)));
  EXPECT_TRUE(agent.stop());
  const std::string log = agent.log();
  const size_t first = log.find("Ignoring event=firstevent, id=11, parameters=a");
  const size_t session = log.find("Suppressing event=startsvsession, id=12, parameters=");
  const size_t second = log.find("Ignoring event=secondevent, id=13, parameters=b");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(session, std::string::npos);
  EXPECT_LT(first, session);
  EXPECT_LT(session, second);
  EXPECT_NE(log.find("Queueing event=firstevent, id=11, parameters=a"), std::string::npos);
}

TEST(Events, EventsLeftAtTerminationAreAbortedNotRun) {
  AgentHarness agent;
  Gate gate;
  SetSessionStarter([&](uint32_t, const std::string&) { return gate.enter(); });
  agent.backend().pushTunables(QuickTunables(60000));
  agent.backend().queueEvent("startsvsession", 1, "");
  agent.backend().queueEvent("laterevent", 2, "x");
  agent.backend().queueEvent("lastevent", 3, "y");
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(gate.waitEntered());
  ASSERT_TRUE(agent.waitForLog("Queueing event=lastevent", seconds(10)));
  LumTerm();
  gate.open();
  ASSERT_TRUE(agent.waitForState(LumDeviceAgentUninitialized, seconds(10)));
  SetSessionStarter(nullptr);
  const std::string log = agent.log();
  EXPECT_NE(log.find("Aborting event=laterevent, id=2, parameters=x"), std::string::npos);
  EXPECT_NE(log.find("Aborting event=lastevent, id=3, parameters=y"), std::string::npos);
  EXPECT_EQ(log.find("Ignoring event=laterevent"), std::string::npos);
}

}  // namespace
