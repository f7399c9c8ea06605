// The core's conversation with a real back end over mutual TLS: who calls
// what, when, and what the answers change.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "agent/AgentHarness.h"

namespace {

using Lum::Core::JsonUtil;
using LumTest::AgentHarness;
using LumTest::QuickTunables;
using LumTest::WaitFor;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr char kGid[] = "da/gidtoken";
constexpr char kState[] = "da/state";
constexpr char kNotify[] = "da/notification";
constexpr char kGidPath[] = "/api/v1/da/gidtoken";
constexpr char kStatePath[] = "/api/v1/da/state";
constexpr char kNotifyPath[] = "/api/v1/da/notification";

std::vector<std::string> Expect(std::initializer_list<const char*> paths) {
  return std::vector<std::string>(paths.begin(), paths.end());
}

TEST(CoreSchedule, FreshDeviceRegistersAtOnceSynchronisesThenPollsAfterThePollDelay) {
  AgentHarness agent;
  agent.backend().pushTunables(QuickTunables(600));
  const auto start = Clock::now();
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);

  ASSERT_TRUE(agent.backend().waitForAnswers(2, seconds(10)));
  const auto synchronised = Clock::now();
  ASSERT_TRUE(agent.backend().waitForRequests(3, seconds(10)));
  const auto polled = Clock::now();

  EXPECT_EQ(agent.calls(), Expect({kGid, kState, kNotify}));
  // Registration is not delayed, the poll waits its 600 ms after the last call.
  EXPECT_LT(synchronised - start, seconds(5));
  EXPECT_GE(polled - synchronised, milliseconds(450));

  const auto requests = agent.backend().requests();
  EXPECT_FALSE(requests[0].hasHeader("Authorization"));
  LumJson::Value gidBody;
  ASSERT_TRUE(JsonUtil::ParseStrict(requests[0].body, gidBody));
  EXPECT_EQ(gidBody["daId"].asString(), "SN-0001");
  EXPECT_FALSE(gidBody["daTestMode"].asBool());

  Lum::Tools::DeviceView view;
  ASSERT_TRUE(agent.backend().device(requests[0].clientCommonName, &view));
  EXPECT_EQ(requests[1].header("Authorization"), view.gidToken);
  EXPECT_EQ(requests[1].header("Accept"), "application/json");
  EXPECT_EQ(requests[1].header("Content-Type"), "application/json; charset=UTF-8");
  EXPECT_EQ(requests[1].header("Date").size(), std::string("2026-01-01T00:00:00Z").size());
  EXPECT_EQ(view.reportedState["daModel"].asString(), "LT-55");
  EXPECT_EQ(view.reportedState["daSwVersion"].asString(), "1.0.0");
  EXPECT_TRUE(view.reportedState.isMember("daVersion"));
  EXPECT_TRUE(view.reportedState.isMember("suCheckForSoftwareUpdate"));
  EXPECT_EQ(requests[0].host,
            AgentHarness::kOpid + "-da.lum.localhost:" + std::to_string(agent.backend().port()));
  EXPECT_TRUE(agent.stop());
}

TEST(CoreSchedule, RejectedTokenIsRetiredAndRegistrationFollowsAfterTheRetryDelay) {
  AgentHarness agent;
  agent.backend().pushTunables(QuickTunables(200, 700));
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.backend().waitForRequests(kNotifyPath, 1, seconds(10)));

  agent.backend().revokeGidToken();
  ASSERT_TRUE(agent.backend().waitForRequests(kGidPath, 2, seconds(10)));
  ASSERT_TRUE(agent.backend().waitForRequests(kStatePath, 2, seconds(10)));
  const auto calls = agent.calls();
  // The call answered 422 is followed by a fresh registration, then a sync.
  const auto registration = std::find(calls.begin() + 1, calls.end(), kGid);
  ASSERT_NE(registration, calls.end());
  ASSERT_NE(registration + 1, calls.end());
  EXPECT_EQ(*(registration - 1), kNotify);
  EXPECT_EQ(*(registration + 1), kState);
  EXPECT_TRUE(agent.waitForLog("calculated 0.700s delay", seconds(5)));
  EXPECT_TRUE(agent.stop());
}

TEST(CoreSchedule, StaleStateLeadsToANewSynchronisation) {
  struct Case {
    const char* name;
    bool byStatus428;
  };
  for (const Case& c : {Case{"428 answer", true}, Case{"daStateSynchronized false", false}}) {
    SCOPED_TRACE(c.name);
    AgentHarness agent;
    agent.backend().pushTunables(QuickTunables(200, 200));
    ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(agent.backend().waitForRequests(kNotifyPath, 1, seconds(10)));
    if (c.byStatus428) {
      Lum::Tools::Fault fault;
      fault.status = 428;
      agent.backend().injectFault(kNotifyPath, fault);
    } else {
      agent.backend().setConsentUrl("https://consent.example/accept");
    }
    ASSERT_TRUE(agent.backend().waitForRequests(kStatePath, 2, seconds(10)));
    const auto calls = agent.calls();
    const auto second = std::find(calls.begin() + 2, calls.end(), kState);
    ASSERT_NE(second, calls.end());
    EXPECT_EQ(*(second - 1), kNotify);
    EXPECT_TRUE(agent.stop());
  }
}

TEST(CoreSchedule, ThreeFailedSynchronisationsInARowStopTheImmediateRetry) {
  AgentHarness agent;
  agent.backend().setSynchronizedAnswer(false);
  agent.seedPersistedValues(QuickTunables(60000, 60000));
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.backend().waitForRequests(kStatePath, 3, seconds(10)));
  ASSERT_TRUE(
      agent.waitForLog("Too many SynchronizeCoreState calls in a row, delaying", seconds(5)));
  // A fourth synchronisation would follow at once if the rule did not hold.
  EXPECT_FALSE(agent.backend().waitForRequests(kStatePath, 4, milliseconds(800)));
  EXPECT_EQ(agent.calls(), Expect({kGid, kState, kState, kState}));
  EXPECT_TRUE(agent.stop());
}

// The refusals counted against a token say nothing about the next one: once
// the back end has retired the token, the new one is synchronised at once.
TEST(CoreSchedule, ANewTokenStartsTheCountOfFailedSynchronisationsAgain) {
  AgentHarness agent;
  agent.backend().setSynchronizedAnswer(false);
  agent.seedPersistedValues(QuickTunables(300, 300));
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(
      agent.waitForLog("Too many SynchronizeCoreState calls in a row, delaying", seconds(5)));
  agent.backend().setSynchronizedAnswer(true);
  agent.backend().revokeGidToken();
  // Without the fresh count the held-back call is another registration,
  // every poll period, and the device never polls again.
  ASSERT_TRUE(agent.backend().waitForRequests(kNotifyPath, 1, seconds(10)));
  const auto calls = agent.calls();
  const auto second = std::find(calls.begin() + 1, calls.end(), kGid);
  ASSERT_NE(second, calls.end());
  ASSERT_NE(second + 1, calls.end());
  EXPECT_EQ(*(second + 1), kState);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), kGid), 2);
  EXPECT_TRUE(agent.stop());
}

// Delays pushed as 0 against a back end that answers at once must not turn
// the poll into a busy loop (thousands of calls a second): a floor of 100 ms
// separates any two calls.
TEST(CoreSchedule, DelaysPushedAsZeroStillPauseBetweenCalls) {
  AgentHarness agent;
  agent.backend().pushTunables(QuickTunables(0, 0));
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.backend().waitForRequests(kNotifyPath, 1, seconds(10)));
  const auto first = Clock::now();
  ASSERT_TRUE(agent.backend().waitForRequests(kNotifyPath, 6, seconds(10)));
  EXPECT_GE(Clock::now() - first, milliseconds(450));
  EXPECT_TRUE(agent.stop());
}

TEST(CoreSchedule, PushedTunablesChangeTheScheduleAndArePersisted) {
  AgentHarness agent;
  // A previous run left a minute-long poll; the back end shortens it in its
  // first state answer, so polls follow within a second.
  agent.seedPersistedValues(QuickTunables(60000));
  LumJson::Value faster(LumJson::objectValue);
  faster["daPollDelayFixedMs"] = 250;
  faster["daPollDelayVariedMs"] = 0;
  agent.backend().pushTunables(faster);
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(agent.backend().waitForRequests(kNotifyPath, 3, seconds(10)));
  EXPECT_TRUE(WaitFor(
      [&] {
        return Lum::Core::FileUtil::Load(agent.persistentPath(), "core")
                   .find("\"daPollDelayFixedMs\":250") != std::string::npos;
      },
      seconds(10)));
  EXPECT_TRUE(agent.stop());
}

}  // namespace
