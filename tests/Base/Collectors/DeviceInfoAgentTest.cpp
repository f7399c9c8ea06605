// The device-information collector inside the running agent: the back end
// allows its ids, and the device's ESN and MAC arrive there over mutual TLS.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/FileUtil.h"
#include "agent/AgentHarness.h"

namespace {

using LumTest::AgentHarness;
using std::chrono::seconds;

TEST(DeviceInfoAgent, EsnAndMacReachTheBackEndOncePerChange) {
  AgentHarness agent;
  LumJson::Value tunables = LumTest::QuickTunables(60000, 300);  // the core polls rarely
  for (const char* delay : {"Standard", "Startup", "Aggressive", "Retry"}) {
    tunables[std::string("ds") + delay + "DelayFixedMs"] = 300;
    tunables[std::string("ds") + delay + "DelayVariedMs"] = 0;
  }
  agent.backend().pushTunables(tunables);
  agent.backend().setAllowedDataItemIds({"DeviceInfoEsn", "DeviceInfoMac"});
  LumJson::Value dataServices(LumJson::objectValue);
  dataServices["maximumDataBytes"] = 65536;  // the default of 0 drops every item

  // First run: a new device description; the ids arrive with the first
  // synchronisation, after the collector was halted at start.
  ASSERT_EQ(agent.init(LumJson::Value(), dataServices), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.backend().waitForDataItems(2, seconds(20))) << agent.log();
  const std::vector<LumJson::Value> items = agent.backend().dataItems();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0]["id"].asString(), "DeviceInfoEsn");
  EXPECT_EQ(items[0]["parameters"]["value"].asString(), "ESN-0001");
  EXPECT_EQ(items[1]["id"].asString(), "DeviceInfoMac");
  EXPECT_EQ(items[1]["parameters"]["value"].asString(), "00:11:22:33:44:55");
  EXPECT_TRUE(items[1]["dateTime"].isString());
  // Stopping before the answer would keep the package for the next run.
  ASSERT_TRUE(agent.waitForLog("UploadDataPackage processed (200)", seconds(10)));
  ASSERT_TRUE(agent.stop());

  // Second run: same description, ids persisted. The collector starts at
  // once and reports nothing: no item is uploaded or left in the queue.
  ASSERT_EQ(agent.init(LumJson::Value(), dataServices), LUM_RESULT_SUCCESS);
  const auto sinceStart = [&] {
    const std::string log = agent.log();
    const size_t start = log.rfind("DeviceInfoControl started");
    return start == std::string::npos ? std::string() : log.substr(start);
  };
  ASSERT_TRUE(LumTest::WaitFor(
      [&] { return sinceStart().find("DeviceInfoControl waiting") != std::string::npos; },
      seconds(20)))
      << agent.log();
  ASSERT_TRUE(agent.stop());
  EXPECT_EQ(sinceStart().find("DeviceInfoControl submitted"), std::string::npos) << agent.log();
  EXPECT_EQ(agent.backend().dataItems().size(), 2u);
  const std::string stored = Lum::Core::FileUtil::Load(agent.persistentPath(), "data");
  EXPECT_EQ(stored.find("DeviceInfo"), std::string::npos) << stored;
}

}  // namespace
