// The device-information collector inside the running agent: the back end
// allows its ids, and the device's ESN and MAC arrive there over mutual TLS.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "Platform/FileUtil.h"
#include "agent/AgentHarness.h"

namespace {

using LumTest::AgentHarness;
using LumTest::WaitFor;
using std::chrono::seconds;

// Quick data services; the core polls rarely, as its schedule is not under
// test here.
LumJson::Value Tunables() {
  LumJson::Value tunables = LumTest::QuickTunables(60000, 300);
  for (const char* name : {"dsStandardDelayFixedMs", "dsStartupDelayFixedMs",
                           "dsAggressiveDelayFixedMs", "dsRetryDelayFixedMs"}) {
    tunables[name] = 300;
  }
  for (const char* name : {"dsStandardDelayVariedMs", "dsStartupDelayVariedMs",
                           "dsAggressiveDelayVariedMs", "dsRetryDelayVariedMs"}) {
    tunables[name] = 0;
  }
  return tunables;
}

// Room in the queue (the default of 0 drops every item).
LumJson::Value DsSection() {
  LumJson::Value section(LumJson::objectValue);
  section["maximumDataBytes"] = 65536;
  return section;
}

// The agent's log since the collector thread last started.
std::string LogOfLastStart(const AgentHarness& agent) {
  const std::string log = agent.log();
  const size_t start = log.rfind("DeviceInfoControl started");
  return start == std::string::npos ? std::string() : log.substr(start);
}

TEST(DeviceInfoAgent, EsnAndMacReachTheBackEndOncePerChange) {
  AgentHarness agent;
  agent.backend().pushTunables(Tunables());
  agent.backend().setAllowedDataItemIds({"DeviceInfoEsn", "DeviceInfoMac"});

  // First run: a new device description, and the ids arrive only with the
  // first synchronisation, after the collector was halted at start.
  ASSERT_EQ(agent.init(LumJson::Value(), DsSection()), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.backend().waitForDataItems(2, seconds(20))) << agent.log();
  std::vector<LumJson::Value> items = agent.backend().dataItems();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0]["id"].asString(), "DeviceInfoEsn");
  EXPECT_EQ(items[0]["parameters"]["value"].asString(), "ESN-0001");
  EXPECT_EQ(items[1]["id"].asString(), "DeviceInfoMac");
  EXPECT_EQ(items[1]["parameters"]["value"].asString(), "00:11:22:33:44:55");
  for (const LumJson::Value& item : items) {
    EXPECT_TRUE(item["dateTime"].isString()) << item.toStyledString();
  }
  // The agent keeps a package until it has the back end's answer; stopping
  // before that would store it for the next run.
  ASSERT_TRUE(agent.waitForLog("UploadDataPackage processed (200)", seconds(10))) << agent.log();
  ASSERT_TRUE(agent.stop());

  // Second run: same description, ids already persisted. The collector
  // starts at once and has nothing to report; had it submitted anything, it
  // would have been uploaded or stored with the queue at termination.
  ASSERT_EQ(agent.init(LumJson::Value(), DsSection()), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitFor(
      [&] { return LogOfLastStart(agent).find("DeviceInfoControl waiting") != std::string::npos; },
      seconds(20)))
      << agent.log();
  EXPECT_NE(
      agent.log().find("Initializing Collector \"Device Info\" [DeviceInfoEsn,DeviceInfoMac]"),
      std::string::npos);
  ASSERT_TRUE(agent.stop());
  EXPECT_EQ(LogOfLastStart(agent).find("DeviceInfoControl submitted"), std::string::npos)
      << agent.log();
  EXPECT_EQ(agent.backend().dataItems().size(), 2u);
  const std::string stored = Lum::Core::FileUtil::Load(agent.persistentPath(), "data");
  EXPECT_EQ(stored.find("DeviceInfo"), std::string::npos) << stored << agent.log();
}

}  // namespace
