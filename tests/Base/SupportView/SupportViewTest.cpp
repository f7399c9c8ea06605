// Remote support sessions end to end: the agent started through its C
// interface against the local back end, real TLS, real threads.
#include <gtest/gtest.h>
#include <lum.h>
#include <lum_platform.h>

#include <chrono>
#include <set>
#include <string>

#include "Platform/FileUtil.h"
#include "agent/AgentHarness.h"

namespace {

using Lum::Core::FileUtil;
using Lum::Tools::Fault;
using Lum::Tools::SupportSessionState;
using Lum::Tools::SupportSessionView;
using Lum::Tools::TaskAnswer;
using LumTest::AgentHarness;
using LumTest::WaitFor;
using namespace std::chrono;

const char kLocales[] = "FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES";

struct SessionStatus {
  unsigned state = 0;
  bool hasCode = false;
  std::string code;
};

SessionStatus Status() {
  LumStatus status{};
  LumGetStatus(LumStatusMethodImmediate, &status);
  SessionStatus session;
  session.state = status.sessionState;
  session.hasCode = status.sessionCode != nullptr;
  session.code = session.hasCode ? status.sessionCode : "";
  LumFreeStatus(&status);
  return session;
}

bool WaitForSession(unsigned state, milliseconds timeout = seconds(10)) {
  return WaitFor([&] { return Status().state == state; }, timeout);
}

// Short schedules on both sides, so that every step follows within a
// fraction of a second.
LumJson::Value SessionTunables(unsigned activeTimeoutMs = 60000) {
  LumJson::Value tunables = LumTest::QuickTunables(60000);
  tunables["svRetryDelayFixedMs"] = 200;
  tunables["svRetryDelayVariedMs"] = 0;
  tunables["svConnectTimeoutMs"] = 5000;
  tunables["svMessageTimeoutMs"] = 5000;
  tunables["svActiveTimeoutMs"] = activeTimeoutMs;
  return tunables;
}

class SupportView : public ::testing::Test {
 protected:
  void start(bool pause = true, unsigned activeTimeoutMs = 60000) {
    agent_.seedPersistedValues(SessionTunables(activeTimeoutMs));
    agent_.backend().pushTunables(SessionTunables(activeTimeoutMs));
    agent_.backend().setLongPollHold(milliseconds(300));
    LumJson::Value section(LumJson::objectValue);
    section["pauseSessionOnTerm"] = pause;
    section["allowRemoteSession"] = true;
    agent_.setConfigSection("supportView", section);
    ASSERT_EQ(agent_.init(), LUM_RESULT_SUCCESS);
  }
  void openSession() {
    ASSERT_EQ(LumSessionInit(0), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(WaitForSession(LumSessionReady));
  }
  SupportSessionView backendSession() {
    SupportSessionView view;
    agent_.backend().supportSession(cn(), &view);
    return view;
  }
  const std::string& cn() const { return agent_.device().commonName; }
  unsigned calls(const char* path) { return backendSession().calls[path]; }

  AgentHarness agent_;
};

// The whole round: a code shown while waiting for and working with a
// support agent, a task answered with its ids, and the end.
TEST_F(SupportView, SessionOpensAnswersATaskAndEnds) {
  start();
  EXPECT_EQ(LumSessionInit(2), LUM_RESULT_BAD_ARGUMENT);
  openSession();
  const SessionStatus ready = Status();
  EXPECT_TRUE(ready.hasCode);
  EXPECT_EQ(ready.code, backendSession().code);
  // While the television still shows the code, a second request is refused.
  Lum::Sv::RegGetTimeOutFlag([] { return 0; });
  EXPECT_EQ(LumSessionInit(0), LUM_RESULT_REFUSED);
  Lum::Sv::RegGetTimeOutFlag(nullptr);

  const uint32_t task = agent_.backend().queueCommand(cn(), kLocales);
  ASSERT_NE(task, 0u);
  ASSERT_TRUE(agent_.backend().waitForTaskAnswers(1, seconds(10)));
  const TaskAnswer answer = agent_.backend().taskAnswers()[0];
  EXPECT_EQ(answer.taskId, task);
  EXPECT_EQ(answer.sessionId, backendSession().sessionId);
  const LumJson::Value& response = answer.output["RESPONSES"][0];
  EXPECT_EQ(response["RESULT"].asInt(), 0);
  EXPECT_EQ(response["OUTPUTS"][0]["DATA"]["DEFAULT_LOCALE"].asString(), "en-US");
  ASSERT_TRUE(WaitForSession(LumSessionJoined));
  EXPECT_EQ(Status().code, ready.code);
  EXPECT_EQ(LumSessionInit(0), LUM_RESULT_REFUSED);

  EXPECT_EQ(LumSessionTerm(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitForSession(LumSessionNone));
  EXPECT_FALSE(Status().hasCode);
  EXPECT_EQ(backendSession().state, SupportSessionState::Ended);
  EXPECT_EQ(LumSessionTerm(), LUM_RESULT_NOT_INITIALIZED);
}

// A quiet back end answers each poll with 204 after its hold; the agent
// polls again and nothing else changes.
TEST_F(SupportView, AnEmptyAnswerRepeatsTheLongPoll) {
  start();
  openSession();
  ASSERT_TRUE(WaitFor([&] { return calls("sv/command/get") >= 4; }));
  EXPECT_EQ(Status().state, static_cast<unsigned>(LumSessionReady));
  EXPECT_EQ(calls("sv/command/put"), 0u);
  EXPECT_FALSE(agent_.logContains("ExecuteTask started"));
}

// Several tasks in flight at once; each answer comes back exactly once.
TEST_F(SupportView, EveryTaskIsAnsweredOnce) {
  start();
  openSession();
  std::set<uint32_t> queued;
  for (int i = 0; i < 12; ++i) {
    queued.insert(agent_.backend().queueCommand(
        cn(), i % 2 == 0 ? kLocales : "FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS"));
  }
  ASSERT_TRUE(agent_.backend().waitForTaskAnswers(queued.size(), seconds(20)));
  ASSERT_TRUE(WaitFor([&] { return backendSession().pendingTasks == 0; }));
  std::multiset<uint32_t> answered;
  for (const TaskAnswer& answer : agent_.backend().taskAnswers()) {
    answered.insert(answer.taskId);
  }
  EXPECT_EQ(answered, std::multiset<uint32_t>(queued.begin(), queued.end()));
}

// A 422 to any session call but initialize ends the session on the device;
// one to initialize retires the device's registration instead.
TEST_F(SupportView, A422EndsTheSessionOrTheRegistration) {
  start();
  for (const char* path : {"/api/v1/sv/command/get", "/api/v1/sv/command/put"}) {
    SCOPED_TRACE(path);
    openSession();
    Fault refusal;
    refusal.status = 422;
    agent_.backend().injectFault(path, refusal);
    agent_.backend().queueCommand(cn(), kLocales);
    ASSERT_TRUE(WaitForSession(LumSessionNone));
    EXPECT_FALSE(Status().hasCode);
    agent_.backend().clearFaults();
  }
  const size_t tokensBefore = agent_.backend().requestCount("/api/v1/da/gidtoken");
  Fault refusal;
  refusal.status = 422;
  agent_.backend().injectFault("/api/v1/sv/session/initialize", refusal);
  ASSERT_EQ(LumSessionInit(0), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(
      agent_.backend().waitForRequests("/api/v1/da/gidtoken", tokensBefore + 1, seconds(10)));
  // Registered again, the session opens after all.
  EXPECT_TRUE(WaitForSession(LumSessionReady));
}

// A 428 tells the device that the back end's view of it is stale: it
// synchronises again.
TEST_F(SupportView, A428MarksTheDeviceNotSynchronised) {
  start();
  openSession();
  ASSERT_TRUE(agent_.waitForLog("Core State Change:  synch=Y", seconds(10)));
  const size_t states = agent_.backend().requestCount("/api/v1/da/state");
  Fault stale;
  stale.status = 428;
  agent_.backend().injectFault("/api/v1/sv/command/get", stale);
  EXPECT_TRUE(agent_.backend().waitForRequests("/api/v1/da/state", states + 1, seconds(10)));
  EXPECT_TRUE(WaitForSession(LumSessionReady));
}

// Calls that keep failing end the session once the active time-out has
// passed since the first failure.
TEST_F(SupportView, KeepsFailingThenTimesOut) {
  start(true, 1500);
  openSession();
  Fault failing;
  failing.status = 503;
  failing.count = -1;
  agent_.backend().injectFault("/api/v1/sv/command/get", failing);
  const auto failedFrom = steady_clock::now();
  ASSERT_TRUE(agent_.waitForLog("Session timed out", seconds(10)));
  EXPECT_GE(steady_clock::now() - failedFrom, milliseconds(1000));
  EXPECT_TRUE(WaitForSession(LumSessionNone));
  agent_.backend().clearFaults();
}

// With "pauseSessionOnTerm" a session held at shutdown is suspended, and the
// next start resumes it; the stored session is read once.
TEST_F(SupportView, ASuspendedSessionResumesAfterARestart) {
  start(true);
  openSession();
  const std::string code = Status().code;
  ASSERT_TRUE(agent_.stop());
  EXPECT_EQ(backendSession().state, SupportSessionState::Suspended);
  EXPECT_FALSE(FileUtil::Load(agent_.persistentPath(), "session").empty());

  ASSERT_EQ(agent_.init(), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(FileUtil::Load(agent_.persistentPath(), "session").empty());
  ASSERT_TRUE(WaitForSession(LumSessionReady));
  EXPECT_EQ(Status().code, code);
  EXPECT_EQ(backendSession().state, SupportSessionState::Active);
  EXPECT_EQ(calls("sv/session/resume"), 1u);
  agent_.backend().queueCommand(cn(), kLocales);
  EXPECT_TRUE(agent_.backend().waitForTaskAnswers(1, seconds(10)));
}

// Without it, the shutdown ends the session and stores nothing.
TEST_F(SupportView, WithoutPausingTheShutdownEndsTheSession) {
  start(false);
  openSession();
  ASSERT_TRUE(agent_.stop());
  EXPECT_EQ(backendSession().state, SupportSessionState::Ended);
  EXPECT_EQ(calls("sv/session/terminate"), 1u);
  EXPECT_TRUE(FileUtil::Load(agent_.persistentPath(), "session").empty());
}

// LumTerm returns at once while a poll is held, and state 0 follows well
// within the message time-out, a session call included.
TEST_F(SupportView, StopsPromptlyWhileAPollIsHeld) {
  start(true);
  agent_.backend().setLongPollHold(seconds(30));
  openSession();
  ASSERT_TRUE(agent_.backend().waitForHeldPolls(cn(), 1, seconds(10)));
  const auto before = steady_clock::now();
  EXPECT_EQ(LumTerm(), LUM_RESULT_SUCCESS);
  EXPECT_LT(steady_clock::now() - before, milliseconds(500));
  ASSERT_TRUE(agent_.waitForState(LumDeviceAgentUninitialized, seconds(5)));
  EXPECT_EQ(backendSession().state, SupportSessionState::Suspended);
}

// A shutdown makes one attempt to suspend: when it fails the session is
// still kept for the next start, and the stop does not wait out retries.
TEST_F(SupportView, AFailedSuspendStillKeepsTheSession) {
  start(true);
  openSession();
  Fault failing;
  failing.status = 503;
  failing.count = -1;
  agent_.backend().injectFault("/api/v1/sv/session/suspend", failing);
  ASSERT_TRUE(agent_.stop());
  EXPECT_FALSE(FileUtil::Load(agent_.persistentPath(), "session").empty());
  EXPECT_EQ(agent_.backend().requestCount("/api/v1/sv/session/suspend"), 1u);
}

// Answers that come at once are not a reason to call again at once: an
// empty long poll waits the retry delay, and a terminate answered 204 ends
// the session.
TEST_F(SupportView, ImmediateAnswersDoNotMakeABusyLoop) {
  start();
  agent_.backend().setLongPollHold(milliseconds(0));
  openSession();
  const auto from = steady_clock::now();
  ASSERT_TRUE(WaitFor([&] { return calls("sv/command/get") >= 3; }));
  EXPECT_GE(steady_clock::now() - from, milliseconds(300));
  Fault empty;
  empty.status = 204;
  agent_.backend().injectFault("/api/v1/sv/session/terminate", empty);
  ASSERT_EQ(LumSessionTerm(), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(WaitForSession(LumSessionNone));
  EXPECT_EQ(agent_.backend().requestCount("/api/v1/sv/session/terminate"), 1u);
}

// The back end may open a session itself when the configuration allows it.
TEST_F(SupportView, TheBackEndCanStartASession) {
  agent_.backend().queueEvent("startsvsession", 7, "");
  start();
  EXPECT_TRUE(WaitForSession(LumSessionReady));
}

// Sessions opened and closed over and over leave nothing behind (the
// sanitizer builds watch the memory and the threads).
TEST_F(SupportView, HundredSessionsOpenAndClose) {
  start();
  for (int i = 0; i < 100; ++i) {
    SCOPED_TRACE(i);
    openSession();
    ASSERT_EQ(LumSessionTerm(), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(WaitForSession(LumSessionNone));
  }
  EXPECT_EQ(calls("sv/session/terminate"), 100u);
}

}  // namespace
