// The support view's network tests inside the running agent: reachability
// with a fixture route table and ping program, speed tests against the
// local back end over real mutual TLS. Every address involved is loopback.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "Base/CoreManager.h"
#include "Base/PersistentValues.h"
#include "Base/SupportViewManager.h"
#include "Platform/JsonUtil.h"
#include "Platform/LockMutex.h"
#include "Platform/Network.h"
#include "Platform/System.h"
#include "agent/AgentHarness.h"

namespace {

using Lum::Core::CoreManager;
using Lum::Core::PersistentValues;
using Lum::Sv::Network;
using Lum::Sv::SpeedTestResult;
using Lum::Sv::SupportViewManager;
using Lum::Sv::System;
using LumTest::AgentHarness;
using LumTest::ReadFile;
using LumTest::WriteFile;
using namespace std::chrono;

const char kRouteHeader[] = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\n";
const char kDefaultViaLoopback[] = "lo\t00000000\t0100007F\t0003\t0\t0\t0\t00000000\n";
const char kDefaultVia127_0_0_2[] = "lo\t00000000\t0200007F\t0003\t0\t0\t0\t00000000\n";
const char kNoDefault[] = "lo\t0000007F\t00000000\t0001\t0\t0\t0\t000000FF\n";

// The fixture ping answers only for 127.0.0.1 and notes every address; with
// the file "slow" present it takes a moment and notes whether another ping
// ran at the same time.
const char kPingScript[] = R"(mkdir "$D/busy" 2>/dev/null || echo overlap >> "$D/overlap"
echo "$5" >> "$D/pinged"
[ -e "$D/slow" ] && sleep 0.3
rmdir "$D/busy"
[ "$5" = 127.0.0.1 ]
)";

struct Reachability {
  int result = -1;
  bool dns = false;
  bool gateway = false;
  bool internet = false;
  bool inTime = false;
};

Reachability RunReachability() {
  Reachability r;
  r.result = SupportViewManager::Instance()->runNetworkDiagnosticsTest(r.dns, r.gateway, r.internet,
                                                                       r.inTime);
  return r;
}

class NetworkDiagnostics : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string d = agent_.persistentPath() + "/";
    WriteFile(d + "ping", "#!/bin/sh\nD=" + d + "\n" + kPingScript);
    ASSERT_EQ(chmod((d + "ping").c_str(), 0700), 0);
    ASSERT_TRUE(System::SetPingProgram(d + "ping"));
    routes(kDefaultViaLoopback);

    LumJson::Value tunables = LumTest::QuickTunables(60000);  // one synchronisation
    tunables["svPingTestHostname"] = "localhost";
    tunables["svConnectTimeoutMs"] = 10000;
    agent_.backend().pushTunables(tunables);
    ASSERT_EQ(agent_.init(), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(agent_.waitForLog("Core State Change:  synch=Y", seconds(10))) << agent_.log();
  }
  void TearDown() override {
    agent_.stop();
    System::SetPingProgram("");
    Network::SetProcFiles("", "");
  }
  void routes(const std::string& rows) {
    WriteFile(agent_.persistentPath() + "/route", kRouteHeader + rows);
    Network::SetProcFiles("", agent_.persistentPath() + "/route");
  }
  // Changes the agent's settings as a later synchronisation would.
  void change(const std::function<void(PersistentValues&)>& edit) {
    Lum::Core::LockMutex lock(&CoreManager::Instance()->getMutex());
    edit(*CoreManager::Instance()->getCorePersistentPtr());
  }
  std::string pinged() const { return ReadFile(agent_.persistentPath() + "/pinged"); }
  std::string speedUrl(const char* name) {
    return agent_.backend().svBaseUrl(AgentHarness::kOpid) + "/api/v1/sv/speedtest/" + name;
  }

  AgentHarness agent_;
};

// Each stage passes or fails on its own. The host name first comes from the
// back end; the agent pings only the route table's gateway and the address
// it resolved itself.
TEST_F(NetworkDiagnostics, EachStagePassesOrFailsOnItsOwn) {
  struct Case {
    const char* name;
    const char* hostname;
    const char* routes;
    uint32_t budgetMs;
    Reachability expected;
    const char* pinged;
    const char* logged;
  } cases[] = {
      // clang-format off
      {"all pass", nullptr, kDefaultViaLoopback, 20000, {0, true, true, true, true},
       "127.0.0.1\n127.0.0.1\n", "DNS Lookup localhost. t="},
      {"no host name", "", kDefaultViaLoopback, 20000, {0, false, true, false, true},
       "127.0.0.1\n", "DNS Lookup Test Failed."},
      {"no default route", "localhost", kNoDefault, 20000, {0, true, false, true, true},
       "127.0.0.1\n", "Gateway Ping Test Failed."},
      {"gateway silent", "localhost", kDefaultVia127_0_0_2, 20000, {0, true, false, true, true},
       "127.0.0.2\n127.0.0.1\n", "Gateway Ping Test Failed."},
      {"no budget", "localhost", kDefaultViaLoopback, 900, {2, false, false, false, false},
       "", "Network test time left: 0"},
      // clang-format on
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    unlink((agent_.persistentPath() + "/pinged").c_str());
    routes(c.routes);
    change([&](PersistentValues& p) {
      if (c.hostname != nullptr) {
        p.setSvPingTestHostname(c.hostname);
      }
      p.setSvNetworkDiagTimeoutMs(c.budgetMs);
    });
    const Reachability r = RunReachability();
    EXPECT_EQ(r.result, c.expected.result);
    EXPECT_EQ(r.dns, c.expected.dns);
    EXPECT_EQ(r.gateway, c.expected.gateway);
    EXPECT_EQ(r.internet, c.expected.internet);
    EXPECT_EQ(r.inTime, c.expected.inTime);
    EXPECT_EQ(pinged(), c.pinged);
    EXPECT_TRUE(agent_.logContains(c.logged)) << c.logged;
  }
}

// Two commands asking at once get one test after the other.
TEST_F(NetworkDiagnostics, OneTestAtATime) {
  WriteFile(agent_.persistentPath() + "/slow", "");
  Reachability first;
  std::thread other([&] { first = RunReachability(); });
  const Reachability second = RunReachability();
  other.join();
  EXPECT_EQ(first.result, 0);
  EXPECT_EQ(second.result, 0);
  EXPECT_EQ(pinged(), "127.0.0.1\n127.0.0.1\n127.0.0.1\n127.0.0.1\n");
  EXPECT_EQ(ReadFile(agent_.persistentPath() + "/overlap"), "");
}

// The speed-test URLs come with the back end's state answer.
TEST_F(NetworkDiagnostics, SpeedTestsMeasureAgainstTheBackEnd) {
  SupportViewManager& sv = *SupportViewManager::Instance();
  SpeedTestResult down;
  EXPECT_EQ(sv.runDownloadSpeedTest(down), 0);
  EXPECT_TRUE(down.ok);
  EXPECT_EQ(down.url, speedUrl("download"));
  EXPECT_EQ(down.bytes, 102400u);
  EXPECT_GT(down.bitsPerSecond, 0u);

  SpeedTestResult up;
  EXPECT_EQ(sv.runUploadSpeedTest(up), 0);
  EXPECT_TRUE(up.ok);
  EXPECT_EQ(up.bytes, 102400u);
  const auto uploads = agent_.backend().requestsTo("/api/v1/sv/speedtest/upload");
  ASSERT_EQ(uploads.size(), 1u);
  EXPECT_EQ(uploads[0].body.size(), 102400u);
  EXPECT_EQ(uploads[0].header("Content-Type"), "application/json; charset=UTF-8");
  LumJson::Value body;
  EXPECT_TRUE(Lum::Core::JsonUtil::ParseObject(uploads[0].body, body));

  SpeedTestResult latency;
  EXPECT_EQ(sv.runLatencyTest(latency), 0);
  EXPECT_TRUE(latency.ok);
  EXPECT_TRUE(agent_.logContains("URL = " + speedUrl("upload") + ", size = 102400, time = "));
}

// Every transfer stays within its size and time, and goes only to https.
TEST_F(NetworkDiagnostics, SpeedTestsAreBounded) {
  SupportViewManager& sv = *SupportViewManager::Instance();
  change([&](PersistentValues& p) {
    p.setSvSpeedTestDownloadUrl(speedUrl("download") + "?size=8000000");
    p.setSvSpeedTestDownloadSize(65536);
  });
  SpeedTestResult oversized;
  EXPECT_EQ(sv.runDownloadSpeedTest(oversized), 0);
  EXPECT_TRUE(oversized.ok);
  EXPECT_EQ(oversized.bytes, 65536u);
  // The agent stopped reading there instead of draining the rest.
  EXPECT_TRUE(agent_.logContains("Response body cut off at 65536 bytes"));

  Lum::Tools::Fault stall;
  stall.stallAfterHeaders = seconds(30);
  agent_.backend().injectFault("/api/v1/sv/speedtest/download", stall);
  change([&](PersistentValues& p) { p.setSvSpeedTestDownloadTimeMs(1500); });
  SpeedTestResult stalled;
  const auto start = steady_clock::now();
  EXPECT_EQ(sv.runDownloadSpeedTest(stalled), 4);
  EXPECT_LT(steady_clock::now() - start, seconds(6));
  EXPECT_FALSE(stalled.ok);

  const size_t requests = agent_.backend().requestCount();
  for (const char* url : {"", "http://127.0.0.1:1/x", "ftp://127.0.0.1/x"}) {
    change([&](PersistentValues& p) { p.setSvSpeedTestUploadUrl(url); });
    SpeedTestResult refused;
    EXPECT_EQ(sv.runUploadSpeedTest(refused), 3) << url;
    EXPECT_FALSE(refused.ok);
  }
  EXPECT_TRUE(agent_.logContains("Upload speed test has no URL set."));
  EXPECT_EQ(agent_.backend().requestCount(), requests);
}

}  // namespace
