// The agent on a persistent directory that refuses every change (a full disk,
// a read-only mount) from its very first start: it starts, synchronises,
// reports its status and delivers or keeps every item; once the disk takes
// writes again, the next store brings the files up to date.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>

#include "Base/PersistentValues.h"
#include "Platform/FileUtil.h"
#include "agent/AgentHarness.h"
#include "support/FailingFileOperations.h"

namespace {

using Lum::Core::FileUtil;
using LumTest::AgentHarness;
using LumTest::WaitFor;
using std::chrono::seconds;

constexpr char kTokenPath[] = "/api/v1/ds/uploadtoken";

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

std::string Item(const std::string& tag) {
  return R"({"id":"TvTune","parameters":{"tag":")" + tag + R"("}})";
}

// The status reads, and shows the ids the back end allowed.
unsigned Status() {
  LumStatus status{};
  const unsigned result = LumGetStatus(LumStatusMethodImmediate, &status);
  const bool allowed = status.allowedDataItemIds != nullptr && *status.allowedDataItemIds != 0;
  LumFreeStatus(&status);
  return result == LUM_RESULT_SUCCESS && allowed ? result : LUM_RESULT_NOT_INITIALIZED;
}

size_t Arrived(AgentHarness& agent, const std::string& tag) {
  size_t count = 0;
  for (const auto& package : agent.backend().packages()) {
    for (const std::string& item : package.items) {
      count += item.find("\"tag\":\"" + tag + "\"") != std::string::npos ? 1 : 0;
    }
  }
  return count;
}

unsigned Init(AgentHarness& agent) {
  LumJson::Value section(LumJson::objectValue);
  section["maximumDataBytes"] = 65536;
  return agent.init(LumJson::Value(), section);
}

TEST(DiskFault, TheAgentWorksOnAFailingDiskAndCatchesUpOnceItHeals) {
  for (int error : {ENOSPC, EROFS, EIO}) {
    SCOPED_TRACE(error);
    AgentHarness agent;
    agent.backend().pushTunables(Tunables());
    agent.backend().setAllowedDataItemIds({"TvTune"});
    LumTest::FailingFileOperations disk;
    disk.failChanges(error);
    ASSERT_EQ(Init(agent), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(WaitFor([&] { return Status() == LUM_RESULT_SUCCESS; }, seconds(15)));
    EXPECT_EQ(FileUtil::Load(agent.persistentPath(), "core"), "") << "the disk took a write";

    // Delivered while nothing can be stored.
    ASSERT_EQ(LumSubmitDataItem(Item("sent").c_str()), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(WaitFor([&] { return Arrived(agent, "sent") == 1; }, seconds(15)));

    // Refused by the back end: kept in memory, and stored by the stop once
    // the disk takes writes again.
    Lum::Tools::Fault refuse;
    refuse.status = 503;
    refuse.count = -1;
    agent.backend().injectFault(kTokenPath, refuse);
    const size_t tokenCalls = agent.backend().requestCount();
    ASSERT_EQ(LumSubmitDataItem(Item("kept").c_str()), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(WaitFor([&] { return agent.backend().requestCount() > tokenCalls; }, seconds(15)));
    EXPECT_EQ(Status(), LUM_RESULT_SUCCESS);
    disk.failChanges(0);
    ASSERT_TRUE(agent.stop());
    EXPECT_NE(FileUtil::Load(agent.persistentPath(), "data").find("kept"), std::string::npos);
    Lum::Core::PersistentValues stored;
    ASSERT_TRUE(stored.load(agent.persistentPath())) << "core not stored after the disk healed";
    EXPECT_FALSE(stored.getGidToken().empty());

    agent.backend().clearFaults();
    ASSERT_EQ(Init(agent), LUM_RESULT_SUCCESS);
    EXPECT_TRUE(WaitFor([&] { return Arrived(agent, "kept") == 1; }, seconds(15)));
    EXPECT_EQ(Arrived(agent, "sent"), 1u);
    ASSERT_TRUE(agent.stop());
  }
}

}  // namespace
