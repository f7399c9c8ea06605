// Start, restart, reset and stop of the agent through its C interface.
#include <gtest/gtest.h>
#include <lum_platform.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <new>
#include <thread>

#include "Platform/Clock.h"
#include "Platform/FileOperations.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "agent/AgentHarness.h"
#include "support/PlatformRegistration.h"

namespace {

using Lum::Core::FileUtil;
using Lum::Core::JsonUtil;
using LumTest::AgentHarness;
using LumTest::QuickTunables;
using LumTest::WaitFor;
using std::chrono::milliseconds;
using std::chrono::seconds;

size_t ThreadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// Restart keeps token, sequence numbers and poll timing; a factory reset
// drops them, so the next start registers afresh.
TEST(CoreLifecycle, RestartKeepsPersistedStateUntilAFactoryReset) {
  AgentHarness agent;
  agent.backend().pushTunables(QuickTunables(60000));
  agent.backend().queueEvent("noop", 1);
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.waitForLog("SynchronizeCoreState processed (200)", seconds(10)));
  ASSERT_TRUE(agent.stop());

  LumJson::Value core;
  ASSERT_TRUE(JsonUtil::ParseStrict(FileUtil::Load(agent.persistentPath(), "core"), core));
  const std::string token = core["gidToken"].asString();
  EXPECT_FALSE(token.empty());
  EXPECT_TRUE(core["synchronized"].asBool());
  EXPECT_GT(core["opidSeqNum"].asUInt() + core["gidSeqNum"].asUInt(), 0u);

  agent.backend().clearRequests();
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  // Synchronised with a token: the restart goes straight to polling, but
  // only once the poll delay since the last call before the restart passed.
  EXPECT_TRUE(agent.waitForLog("Using standard delay on core startup", seconds(5)));
  EXPECT_TRUE(agent.waitForLog(" seconds before running CheckForNotification", seconds(5)));
  EXPECT_FALSE(agent.logContains("before running GetDeviceIdentity"));
  // A local change makes the device report at once, with what it kept.
  ASSERT_EQ(LumCheckForSoftwareUpdate(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.backend().waitForRequests(1, seconds(10)));
  const auto request = agent.backend().requests().front();
  EXPECT_EQ(request.path, "/api/v1/da/state");
  EXPECT_EQ(request.header("Authorization"), token);
  LumJson::Value body;
  ASSERT_TRUE(JsonUtil::ParseStrict(request.body, body));
  EXPECT_EQ(body["daOpidSeqNum"].asUInt(), core["opidSeqNum"].asUInt());
  EXPECT_EQ(body["daGidSeqNum"].asUInt(), core["gidSeqNum"].asUInt());
  EXPECT_TRUE(body["suCheckForSoftwareUpdate"].asBool());
  ASSERT_TRUE(agent.stop(/*factoryReset=*/true));
  EXPECT_EQ(FileUtil::Load(agent.persistentPath(), "core"), "");
  EXPECT_EQ(FileUtil::Load(agent.persistentPath(), "daTime"), "");

  agent.backend().clearRequests();
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.backend().waitForRequests(1, seconds(10)));
  EXPECT_EQ(agent.calls().front(), "da/gidtoken");
  EXPECT_TRUE(agent.stop());
}

// A wall clock that runs ahead of the system's by a fixed amount.
class ShiftedClock : public Lum::Core::Clock {
 public:
  explicit ShiftedClock(time_t shift) : shift_(shift) {}
  timespec wall() const override {
    timespec now = Lum::Core::Clock::wall();
    now.tv_sec += shift_;
    return now;
  }

 private:
  time_t shift_;
};

TEST(CoreLifecycle, TimeFileInTheFutureOrLongPastChoosesTheStartupReference) {
  // How far the wall clock jumped between the runs, and the line it leads to.
  const std::pair<time_t, const char*> cases[] = {
      {-7200, "Problem reading daTime, lastCall is in the future. Defaulting to monotonic start"},
      {3600, "Using startup delay on core startup"},
  };
  for (const auto& [wallShift, expectedLine] : cases) {
    SCOPED_TRACE(expectedLine);
    AgentHarness agent;
    agent.backend().pushTunables(QuickTunables(600000));
    ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(agent.waitForLog("SynchronizeCoreState processed (200)", seconds(10)));
    ASSERT_TRUE(agent.stop());

    ShiftedClock shifted(wallShift);
    Lum::Core::Clock::Set(&shifted);
    agent.backend().clearRequests();
    ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
    EXPECT_TRUE(agent.waitForLog(expectedLine, seconds(5)));
    EXPECT_TRUE(agent.stop());
    Lum::Core::Clock::Set(nullptr);
  }
}

TEST(CoreLifecycle, StatusFollowerWakesOnEachChangeAndReturnsDuringShutdown) {
  AgentHarness agent;
  agent.seedPersistedValues(QuickTunables(60000));
  std::atomic<bool> sawInitialized{false};
  std::atomic<bool> sawZeroAfterStart{false};
  std::atomic<bool> done{false};
  std::thread follower([&] {
    while (!done) {
      LumStatus status{};
      if (LumGetStatus(LumStatusMethodOnChange, &status) != LUM_RESULT_SUCCESS) {
        break;
      }
      const unsigned state = status.deviceAgentState;
      LumFreeStatus(&status);
      if (state == LumDeviceAgentInitialized) {
        sawInitialized = true;
      } else if (state == LumDeviceAgentUninitialized && sawInitialized) {
        sawZeroAfterStart = true;
        done = true;
      }
    }
  });
  EXPECT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(WaitFor([&] { return sawInitialized.load(); }, seconds(5)));
  EXPECT_EQ(LumEnableTestMode(), LUM_RESULT_SUCCESS);
  LumTerm();
  EXPECT_TRUE(WaitFor([&] { return done.load(); }, seconds(10)));
  if (!done) {
    // Unblock a follower that missed the end so the test can fail cleanly.
    done = true;
    agent.init();
    agent.stop();
  }
  follower.join();
  EXPECT_TRUE(sawZeroAfterStart);
}

TEST(CoreLifecycle, CallsAndStatusBeforeInitWhileRunningAndWhileStopping) {
  AgentHarness agent;
  agent.seedPersistedValues(QuickTunables(60000));
  EXPECT_EQ(LumTerm(), LUM_RESULT_NOT_INITIALIZED);
  EXPECT_EQ(LumEnableTestMode(), LUM_RESULT_NOT_INITIALIZED);
  EXPECT_EQ(LumCheckForSoftwareUpdate(), LUM_RESULT_NOT_INITIALIZED);
  LumStatus status;
  memset(&status, 0xAB, sizeof status);
  status.sdkVersion = nullptr;
  ASSERT_EQ(LumGetStatus(LumStatusMethodImmediate, &status), LUM_RESULT_SUCCESS);
  EXPECT_EQ(status.deviceAgentState, 0u);
  EXPECT_EQ(status.testMode, 0u);
  EXPECT_EQ(status.deviceId, nullptr);
  EXPECT_EQ(LumFreeStatus(&status), LUM_RESULT_SUCCESS);

  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  EXPECT_EQ(agent.init(), LUM_RESULT_REFUSED);
  ASSERT_EQ(LumEnableTestMode(), LUM_RESULT_SUCCESS);
  ASSERT_EQ(LumGetStatus(LumStatusMethodImmediate, &status), LUM_RESULT_SUCCESS);
  EXPECT_EQ(status.deviceAgentState, 1u);
  EXPECT_EQ(status.testMode, 1u);
  ASSERT_NE(status.deviceId, nullptr);
  EXPECT_STREQ(status.deviceId, "SN-0001");
  EXPECT_STREQ(status.certOpid, AgentHarness::kOpid.c_str());
  // Freeing empties exactly the text fields; the numbers stay as filled.
  status.updatePercentDownloaded = 42;
  EXPECT_EQ(LumFreeStatus(&status), LUM_RESULT_SUCCESS);
  EXPECT_EQ(status.sdkVersion, nullptr);
  EXPECT_EQ(status.deviceId, nullptr);
  EXPECT_EQ(status.deviceAgentState, 1u);
  EXPECT_EQ(status.updatePercentDownloaded, 42u);
  EXPECT_EQ(LumFreeStatus(&status), LUM_RESULT_SUCCESS);
  EXPECT_EQ(LumTerm(), LUM_RESULT_SUCCESS);
  // Until the terminate thread is done the agent is shutting down.
  const unsigned again = LumTerm();
  EXPECT_TRUE(again == LUM_RESULT_TERMINATING || again == LUM_RESULT_NOT_INITIALIZED);
  ASSERT_TRUE(agent.waitForState(LumDeviceAgentUninitialized, seconds(10)));
}

// The harness's loggers plus one in the long format, whose lines name the
// function that logged ("...-{LumInit}").
LumJson::Value WithTestFormatLog(const AgentHarness& agent, const std::string& path) {
  LumJson::Value config;
  JsonUtil::ParseStrict(agent.configText(), config);
  LumJson::Value logger(LumJson::objectValue);
  logger["type"] = "file";
  logger["argument"] = path;
  logger["format"] = "long";
  for (const char* category : {"clibapi", "state"}) {
    LumJson::Value filter(LumJson::objectValue);
    filter["service"] = "core";
    filter["category"] = category;
    filter["severity"] = "trace";
    logger["filters"].append(filter);
  }
  LumJson::Value core(LumJson::objectValue);
  core["loggers"] = config["core"]["loggers"];
  core["loggers"].append(logger);
  return core;
}

TEST(CoreLifecycle, BadArgumentsReturnFiveWithTheirLine) {
  AgentHarness agent;
  agent.seedPersistedValues(QuickTunables(60000));
  const std::string testLog = agent.persistentPath() + "/test.log";
  ASSERT_EQ(agent.init(WithTestFormatLog(agent, testLog)), LUM_RESULT_SUCCESS);
  const std::string identity = agent.identityText();
  LumStatus status{};
  status.deviceAgentState = 77;
  // What each call answered, and the line it must have logged.
  const std::pair<unsigned, const char*> cases[] = {
      {LumInit(identity.c_str(), nullptr, nullptr), "LumInit() called with bad config value"},
      {LumInit(nullptr, nullptr, nullptr), "LumInit() called with bad identity value"},
      {LumGetStatus(static_cast<LumStatusMethod>(2), &status),
       "LumGetStatus() called with bad method value"},
      {LumGetStatus(LumStatusMethodImmediate, nullptr),
       "LumGetStatus() called with bad status value"},
      {LumFreeStatus(nullptr), "LumFreeStatus() called with bad status value"},
      {LumLogMessage(6, "x"), "LumLogMessage() called with bad severity value"},
      {LumLogMessage(0, nullptr), "LumLogMessage() called with bad format value"},
  };
  for (const auto& [result, line] : cases) {
    SCOPED_TRACE(line);
    EXPECT_EQ(result, LUM_RESULT_BAD_ARGUMENT);
    EXPECT_TRUE(agent.logContains(line));
  }
  EXPECT_EQ(status.deviceAgentState, 77u);
  // Only the first failing argument is reported.
  EXPECT_FALSE(agent.logContains("LumInit() called with bad device value"));

  EXPECT_EQ(LumLogMessage(0, "%d", 7), LUM_RESULT_SUCCESS);
  EXPECT_EQ(LumLogMessage(5, "host says %s", "bye"), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(agent.stop());
  // Each entry's lines name the entry, none (the shutdown's included) the
  // lambda it runs its body in.
  const std::string lines = LumTest::ReadFile(testLog);
  for (const char* entry : {"LumInit", "LumGetStatus", "LumFreeStatus", "LumLogMessage"}) {
    EXPECT_NE(lines.find(std::string("-{") + entry + "}"), std::string::npos) << entry;
  }
  EXPECT_EQ(lines.find("-{operator()}"), std::string::npos);
  // Short format: service, category, severity, message.
  EXPECT_NE(agent.log().find("core supervisor trace   7\n"), std::string::npos);
  EXPECT_NE(agent.log().find("core supervisor fatal   host says bye\n"), std::string::npos);
  EXPECT_EQ(LumLogMessage(2, "after stop"), LUM_RESULT_NOT_INITIALIZED);
}

TEST(CoreLifecycle, UnreachableOrHangingBackEndDoesNotHoldUpTermination) {
  for (const bool hang : {true, false}) {
    SCOPED_TRACE(hang ? "hanging" : "unreachable");
    AgentHarness agent;
    LumJson::Value tunables = QuickTunables();
    tunables["daMessageTimeoutMs"] = 1500;
    tunables["daConnectTimeoutMs"] = 1500;
    agent.seedPersistedValues(tunables);
    if (hang) {
      Lum::Tools::Fault fault;
      fault.count = -1;
      fault.stallAfterHeaders = seconds(60);
      agent.backend().injectFault("*", fault);
    } else {
      agent.backend().stop();
    }
    ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
    if (hang) {
      ASSERT_TRUE(agent.backend().waitForRequests(1, seconds(10)));
    }
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(LumTerm(), LUM_RESULT_SUCCESS);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, seconds(1));
    // The transfer in flight ends at the message time-out at the latest.
    EXPECT_TRUE(agent.waitForState(LumDeviceAgentUninitialized, seconds(10)));
  }
}

// A persisted time that is not one (other JSON, a non-integer, a number out
// of range) is ignored with a warning: the start succeeds, and the stored
// queue survives it.
TEST(CoreLifecycle, DamagedTimeFilesAreIgnoredAndCostNoData) {
  const char* const contents[] = {
      R"({"sec":1.5e19,"nsec":0})",       R"({"sec":18446744073709551615,"nsec":0})",
      R"({"sec":-9223372036854775808})",  R"({"sec":"yesterday","nsec":0})",
      R"({"sec":1700000000,"nsec":0.5})", R"([1700000000,0])",
  };
  const std::string queue =
      R"({"version":2,"dropped":0,"rejected":0,"dataItems":[{"dateTime":"t","id":"TvPower"}]})";
  for (const char* file : {"daTime", "dsTime"}) {
    for (const char* content : contents) {
      SCOPED_TRACE(std::string(file) + " " + content);
      AgentHarness agent;
      LumJson::Value seeded = QuickTunables(60000);
      seeded["dsAllowedDataItemIds"].append("TvPower");
      agent.seedPersistedValues(seeded);
      agent.backend().setAllowedDataItemIds({"TvPower"});
      Lum::Tools::Fault refuse;
      refuse.status = 503;
      refuse.count = -1;
      agent.backend().injectFault("/api/v1/ds/uploadtoken", refuse);
      ASSERT_TRUE(FileUtil::Store(agent.persistentPath(), "data", queue));
      ASSERT_TRUE(FileUtil::Store(agent.persistentPath(), file, content));

      LumJson::Value dataServices(LumJson::objectValue);
      dataServices["maximumDataBytes"] = 65536;
      ASSERT_EQ(agent.init(LumJson::Value(), dataServices), LUM_RESULT_SUCCESS);
      EXPECT_EQ(agent.state(), LumDeviceAgentInitialized);
      EXPECT_TRUE(agent.waitForLog(
          std::string("Ignoring ") + file + ", it does not hold a valid time", seconds(5)));
      ASSERT_TRUE(agent.stop());
      LumJson::Value stored;
      ASSERT_TRUE(JsonUtil::ParseStrict(FileUtil::Load(agent.persistentPath(), "data"), stored));
      EXPECT_EQ(stored["dataItems"].size(), 1u);
    }
  }
}

// Reading the stored queue fails as an exhausted heap would make it fail.
class FailingQueueRead : public Lum::Core::FileOperations {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    const std::string name(path);
    if (name.size() >= 5 && name.compare(name.size() - 5, 5, "/data") == 0) {
      throw std::bad_alloc();
    }
    return FileOperations::open(path, flags, mode);
  }
};

// A failure half-way through LumInit stops whatever the start had begun,
// stores nothing and leaves state 0; the next start works.
TEST(CoreLifecycle, AFailedStartLeavesNothingBehind) {
  AgentHarness agent;
  agent.seedPersistedValues(QuickTunables(60000));
  const std::string queue = R"({"version":2,"dropped":1,"rejected":0,"dataItems":[]})";
  ASSERT_TRUE(FileUtil::Store(agent.persistentPath(), "data", queue));
  const std::string coreBefore = FileUtil::Load(agent.persistentPath(), "core");
  const size_t threadsBefore = ThreadCount();

  FailingQueueRead failing;
  FileUtil::SetOperations(&failing);
  const unsigned result = agent.init();
  FileUtil::SetOperations(nullptr);
  EXPECT_EQ(result, LUM_RESULT_REFUSED);
  EXPECT_EQ(agent.state(), LumDeviceAgentUninitialized);
  EXPECT_EQ(ThreadCount(), threadsBefore);
  EXPECT_EQ(FileUtil::Load(agent.persistentPath(), "core"), coreBefore);
  EXPECT_EQ(FileUtil::Load(agent.persistentPath(), "data"), queue);
  EXPECT_EQ(LumTerm(), LUM_RESULT_NOT_INITIALIZED);

  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(agent.stop());
}

unsigned gCallbackResult = 0;

std::string SerialAskingForTheStatus() {
  LumStatus status{};
  gCallbackResult = LumGetStatus(LumStatusMethodImmediate, &status);
  return "SN-0001";
}

// A platform callback that calls back into the library while LumInit holds
// the agent's mutex is refused instead of waiting for that mutex for ever.
TEST(CoreLifecycle, ACallbackCallingIntoTheLibraryDuringLumInitIsRefused) {
  AgentHarness agent;
  agent.seedPersistedValues(QuickTunables(60000));
  LumTest::Registration<Lum::Sv::StringGetter> serial(Lum::Sv::RegGetDeviceSN,
                                                      SerialAskingForTheStatus);
  gCallbackResult = 0;
  std::atomic<bool> done{false};
  std::atomic<unsigned> result{99};
  std::thread host([&] {
    result = agent.init();
    done = true;
  });
  if (!WaitFor([&] { return done.load(); }, seconds(20))) {
    // The host thread waits for a mutex it holds itself; nothing can end it.
    std::fprintf(stderr, "LumInit deadlocked on a callback calling LumGetStatus\n");
    std::_Exit(1);
  }
  host.join();
  EXPECT_EQ(result.load(), LUM_RESULT_SUCCESS);
  EXPECT_EQ(gCallbackResult, LUM_RESULT_REFUSED);
  EXPECT_TRUE(agent.logContains(
      "LumGetStatus() called from inside a call into the library (a platform callback), refused"));
  EXPECT_TRUE(agent.stop());
}

TEST(CoreLifecycle, RepeatedStartAndStopLeavesNoThreadBehind) {
  AgentHarness agent;
  agent.seedPersistedValues(QuickTunables(60000));
  const size_t threadsBefore = ThreadCount();
  for (int cycle = 0; cycle < 100; ++cycle) {
    ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS) << "cycle " << cycle;
    ASSERT_TRUE(agent.stop()) << "cycle " << cycle;
  }
  // State 0 is reported only once the terminate thread has been joined.
  EXPECT_EQ(ThreadCount(), threadsBefore);
}

}  // namespace
