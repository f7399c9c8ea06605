// The data services end to end: items submitted through the C interface,
// admitted against the ids the back end pushed, packaged, announced by hash
// and uploaded over mutual TLS to the local back end's regional host.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FileOperations.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/Sha256Util.h"
#include "agent/AgentHarness.h"

namespace {

using Lum::Core::FileUtil;
using Lum::Core::JsonUtil;
using Lum::Tools::Fault;
using LumTest::AgentHarness;
using LumTest::WaitFor;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kTokenPath[] = "/api/v1/ds/uploadtoken";
constexpr char kPackagePath[] = "/api/v1/dsdata/upload/package";
const std::vector<std::string> kAllowed = {"TvPower", "TvTune"};

// Core polls rarely (its schedule is not under test here); the data
// services run on `standardMs`, with retries after `retryMs`.
LumJson::Value Tunables(unsigned standardMs, unsigned retryMs = 300) {
  LumJson::Value tunables = LumTest::QuickTunables(60000, 300);
  for (const char* name :
       {"dsStandardDelayFixedMs", "dsStartupDelayFixedMs", "dsAggressiveDelayFixedMs"}) {
    tunables[name] = standardMs;
  }
  tunables["dsRetryDelayFixedMs"] = retryMs;
  for (const char* name : {"dsStandardDelayVariedMs", "dsStartupDelayVariedMs",
                           "dsAggressiveDelayVariedMs", "dsRetryDelayVariedMs"}) {
    tunables[name] = 0;
  }
  tunables["dsConnectTimeoutMs"] = 5000;
  tunables["dsMessageTimeoutMs"] = 5000;
  return tunables;
}

LumJson::Value DsSection(unsigned maximumDataBytes) {
  LumJson::Value section(LumJson::objectValue);
  section["maximumDataBytes"] = maximumDataBytes;
  return section;
}

std::string AllowedIdsOfStatus() {
  LumStatus status{};
  LumGetStatus(LumStatusMethodImmediate, &status);
  const std::string ids = status.allowedDataItemIds != nullptr ? status.allowedDataItemIds : "";
  LumFreeStatus(&status);
  return ids;
}

// Starts the agent against a back end that allows kAllowed and waits until
// the agent has taken the ids over from its first synchronisation.
void Start(AgentHarness& agent, const LumJson::Value& tunables, unsigned maximumDataBytes = 65536) {
  agent.backend().pushTunables(tunables);
  agent.backend().setAllowedDataItemIds(kAllowed);
  ASSERT_EQ(agent.init(LumJson::Value(), DsSection(maximumDataBytes)), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitFor([] { return !AllowedIdsOfStatus().empty(); }, seconds(10)));
}

std::string Item(const char* id, const std::string& tag) {
  return std::string("{\"id\":\"") + id + "\",\"parameters\":{\"tag\":\"" + tag + "\"}}";
}

unsigned Submit(const std::string& item) {
  return LumSubmitDataItem(item.c_str());
}

std::vector<std::string> TagsOf(const std::vector<std::string>& items) {
  std::vector<std::string> tags;
  for (const std::string& text : items) {
    LumJson::Value item;
    tags.push_back(JsonUtil::ParseStrict(text, item) ? item["parameters"]["tag"].asString()
                                                     : "<not json>");
  }
  return tags;
}

std::vector<std::string> ArrivedTags(AgentHarness& agent) {
  std::vector<std::string> tags;
  for (const auto& package : agent.backend().packages()) {
    for (const std::string& tag : TagsOf(package.items)) {
      tags.push_back(tag);
    }
  }
  return tags;
}

using Tags = std::vector<std::string>;

// "2026-11-21T10:00:00.000Z": digits where the pattern has 'd'.
bool IsStamp(const std::string& text) {
  const std::string pattern = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() != pattern.size()) {
    return false;
  }
  for (size_t i = 0; i < text.size(); ++i) {
    if (pattern[i] == 'd' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != pattern[i]) {
      return false;
    }
  }
  return true;
}

TEST(DataServices, AllowedItemsArriveInOnePackageInSubmissionOrderWithTheirCounts) {
  AgentHarness agent;
  EXPECT_EQ(Submit(Item("TvPower", "before start")), LUM_RESULT_NOT_INITIALIZED);
  Start(agent, Tunables(1500));
  EXPECT_EQ(Submit(Item("TvPower", "a")), LUM_RESULT_SUCCESS);
  EXPECT_EQ(Submit(Item("Unknown", "x")), LUM_RESULT_NOT_QUEUED);
  EXPECT_EQ(Submit("{\"id\":"), LUM_RESULT_NOT_QUEUED);
  EXPECT_EQ(
      Submit("{\"id\":\"TvTune\",\"dateTime\":\"kept as given\",\"parameters\":{\"tag\":\"b\"}}"),
      LUM_RESULT_SUCCESS);
  EXPECT_EQ(Submit(Item("TvPower", "c")), LUM_RESULT_SUCCESS);
  EXPECT_EQ(LumSubmitDataItem(nullptr), LUM_RESULT_BAD_ARGUMENT);

  ASSERT_TRUE(agent.backend().waitForPackages(1, seconds(15)));
  const auto packages = agent.backend().packages();
  ASSERT_EQ(packages.size(), 1u);
  EXPECT_EQ(TagsOf(packages[0].items), (Tags{"a", "b", "c"}));
  EXPECT_EQ(packages[0].rejected, 2u);
  EXPECT_EQ(packages[0].dropped, 0u);

  LumJson::Value first;
  LumJson::Value second;
  ASSERT_TRUE(JsonUtil::ParseStrict(packages[0].items[0], first));
  ASSERT_TRUE(JsonUtil::ParseStrict(packages[0].items[1], second));
  EXPECT_TRUE(IsStamp(first["dateTime"].asString())) << first["dateTime"].asString();
  EXPECT_EQ(second["dateTime"].asString(), "kept as given");

  // The token was bought with the device's GID for exactly this package.
  const auto tokenRequests = agent.backend().requestsTo(kTokenPath);
  ASSERT_EQ(tokenRequests.size(), 1u);
  LumJson::Value tokenBody;
  ASSERT_TRUE(JsonUtil::ParseStrict(tokenRequests[0].body, tokenBody));
  std::string hash;
  Lum::Core::Sha256Util::Hash(packages[0].text, hash);
  EXPECT_EQ(tokenBody["dsPackageHash"].asString(), hash);
  EXPECT_FALSE(tokenRequests[0].header("Authorization").empty());
  const auto uploads = agent.backend().requestsTo(kPackagePath);
  ASSERT_EQ(uploads.size(), 1u);
  EXPECT_EQ(uploads[0].host.compare(0, std::string("acme-dsdata-").size(), "acme-dsdata-"), 0)
      << uploads[0].host;
  EXPECT_TRUE(agent.waitForLog("UploadDataPackage processed (200)", seconds(10)));
}

TEST(DataServices, AFullQueueDropsAndCountsWithoutPushingOutOlderItems) {
  AgentHarness agent;
  // 400 bytes of room for items of about 100 bytes: three fit.
  Start(agent, Tunables(1500), 800);
  std::vector<unsigned> results;
  for (int i = 0; i < 6; ++i) {
    results.push_back(Submit(Item("TvPower", "item-" + std::to_string(i) + std::string(40, '.'))));
  }
  EXPECT_EQ(results, (std::vector<unsigned>{0, 0, 0, 4, 4, 4}));

  ASSERT_TRUE(agent.backend().waitForPackages(1, seconds(15)));
  const auto package = agent.backend().packages()[0];
  EXPECT_EQ(package.items.size(), 3u);
  EXPECT_EQ(package.dropped, 3u);
  EXPECT_EQ(package.rejected, 0u);
  EXPECT_EQ(TagsOf(package.items)[0].compare(0, 6, "item-0"), 0);
}

struct UploadFailure {
  const char* name;
  Fault fault;
  bool itemsKept;
};

Fault StatusFault(int status) {
  Fault fault;
  fault.status = status;
  return fault;
}

Fault DropFault() {
  Fault fault;
  fault.drop = true;
  return fault;
}

TEST(DataServices, AFailedUploadKeepsOrLosesThePackageByWhatTheServerSaid) {
  const UploadFailure cases[] = {
      {"503 asks to come back", StatusFault(503), true},
      {"no answer at all", DropFault(), true},
      {"400 refuses the package for good", StatusFault(400), false},
  };
  for (const UploadFailure& c : cases) {
    SCOPED_TRACE(c.name);
    AgentHarness agent;
    Start(agent, Tunables(400, 400));
    agent.backend().injectFault(kPackagePath, c.fault);
    ASSERT_EQ(Submit(Item("TvPower", "old-1")), 0u);
    ASSERT_EQ(Submit(Item("TvTune", "old-2")), 0u);
    ASSERT_TRUE(agent.backend().waitForRequests(kPackagePath, 1, seconds(15)));
    ASSERT_EQ(Submit(Item("TvPower", "new")), 0u);

    ASSERT_TRUE(WaitFor([&] { return !ArrivedTags(agent).empty(); }, seconds(15)));
    const Tags expected = c.itemsKept ? Tags{"old-1", "old-2", "new"} : Tags{"new"};
    ASSERT_TRUE(WaitFor([&] { return ArrivedTags(agent).size() >= expected.size(); }, seconds(15)));
    EXPECT_EQ(ArrivedTags(agent), expected);
    EXPECT_TRUE(agent.stop());
  }
}

TEST(DataServices, RefusedTokenRetiresTheGidTokenAndTheItemsFollowTheNewOne) {
  AgentHarness agent;
  // The retry waits long enough for the core to register again first.
  Start(agent, Tunables(300, 1000));
  agent.backend().injectFault(kTokenPath, StatusFault(422));
  ASSERT_EQ(Submit(Item("TvPower", "a")), 0u);

  ASSERT_TRUE(WaitFor([&] { return ArrivedTags(agent) == Tags{"a"}; }, seconds(15)));
  EXPECT_GE(agent.backend().requestCount("/api/v1/da/gidtoken"), 2u);
  Lum::Tools::DeviceView view;
  const auto tokenRequests = agent.backend().requestsTo(kTokenPath);
  ASSERT_GE(tokenRequests.size(), 2u);
  ASSERT_TRUE(agent.backend().device(tokenRequests.back().clientCommonName, &view));
  EXPECT_EQ(tokenRequests.back().header("Authorization"), view.gidToken);
  EXPECT_NE(tokenRequests.front().header("Authorization"), view.gidToken);
}

TEST(DataServices, ATokenAnswerWithoutATokenAnnouncesTheSamePackageAgainAfterTheDelay) {
  AgentHarness agent;
  Start(agent, Tunables(1200, 300));
  agent.backend().injectFault(kTokenPath, StatusFault(200));  // answers {}
  ASSERT_EQ(Submit(Item("TvPower", "a")), 0u);
  ASSERT_TRUE(agent.backend().waitForRequests(kTokenPath, 1, seconds(15)));
  const auto firstAnswered = std::chrono::steady_clock::now();
  ASSERT_EQ(Submit(Item("TvPower", "later")), 0u);

  ASSERT_TRUE(agent.backend().waitForRequests(kTokenPath, 2, seconds(15)));
  EXPECT_GE(std::chrono::steady_clock::now() - firstAnswered, milliseconds(800));
  const auto tokenRequests = agent.backend().requestsTo(kTokenPath);
  LumJson::Value first;
  LumJson::Value second;
  ASSERT_TRUE(JsonUtil::ParseStrict(tokenRequests[0].body, first));
  ASSERT_TRUE(JsonUtil::ParseStrict(tokenRequests[1].body, second));
  EXPECT_EQ(first["dsPackageHash"], second["dsPackageHash"]);

  ASSERT_TRUE(WaitFor([&] { return ArrivedTags(agent).size() >= 2; }, seconds(15)));
  EXPECT_EQ(ArrivedTags(agent), (Tags{"a", "later"}));
  EXPECT_EQ(agent.backend().packages().size(), 2u);
}

// The first run cannot upload (every token request is refused), so its
// items are still queued when it stops.
void RunWithUploadsRefused(AgentHarness& agent, const Tags& tags,
                           unsigned maximumDataBytes = 65536) {
  Fault refuse = StatusFault(503);
  refuse.count = -1;
  agent.backend().injectFault(kTokenPath, refuse);
  Start(agent, Tunables(300, 300), maximumDataBytes);
  for (const std::string& tag : tags) {
    ASSERT_EQ(Submit(Item("TvTune", tag)), 0u);
  }
  ASSERT_TRUE(agent.backend().waitForRequests(kTokenPath, 1, seconds(15)));
  ASSERT_TRUE(agent.waitForLog("GetUploadToken processed (503)", seconds(15)));
}

// The queue may hold more than the size limit of the other stored files.
TEST(DataServices, ItemsQueuedAtTerminationAreUploadedAfterTheRestart) {
  constexpr unsigned kMaximumDataBytes = 4 * FileUtil::kDefaultMaxBytes;
  const std::string large(FileUtil::kDefaultMaxBytes + FileUtil::kDefaultMaxBytes / 2, 'b');
  AgentHarness agent;
  RunWithUploadsRefused(agent, {"a", large}, kMaximumDataBytes);
  ASSERT_TRUE(agent.stop());
  LumJson::Value stored;
  ASSERT_TRUE(JsonUtil::ParseStrict(
      FileUtil::Load(agent.persistentPath(), "data", kMaximumDataBytes), stored));
  EXPECT_EQ(stored["version"].asInt(), 2);
  EXPECT_EQ(stored["dataItems"].size(), 2u);
  EXPECT_EQ(LumSubmitDataItem(Item("TvTune", "stopped").c_str()), LUM_RESULT_NOT_INITIALIZED);

  agent.backend().clearFaults();
  ASSERT_EQ(agent.init(LumJson::Value(), DsSection(kMaximumDataBytes)), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitFor([&] { return ArrivedTags(agent).size() >= 2; }, seconds(15)));
  EXPECT_TRUE(ArrivedTags(agent) == (Tags{"a", large}));
  // Kept until its items have left, then dropped, so a crash from here on
  // does not bring them back.
  EXPECT_TRUE(WaitFor(
      [&] { return FileUtil::Load(agent.persistentPath(), "data", kMaximumDataBytes).empty(); },
      seconds(10)));
}

// Names of the files in the persistent directory that belong to `name`
// (its versions, checksum and scratch files included).
std::vector<std::string> FilesOf(const AgentHarness& agent, const std::string& name) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(agent.persistentPath())) {
    const std::string file = entry.path().filename().string();
    if (file == name || file.compare(0, name.size() + 1, name + ".") == 0) {
      found.push_back(file);
    }
  }
  return found;
}

TEST(DataServices, AFactoryResetLosesTheQueuedItemsAndTheUploadTime) {
  AgentHarness agent;
  RunWithUploadsRefused(agent, {"a", "b"});
  ASSERT_TRUE(agent.stop());
  ASSERT_FALSE(FilesOf(agent, "dsTime").empty());
  ASSERT_FALSE(FilesOf(agent, "data").empty());
  ASSERT_EQ(agent.init(LumJson::Value(), DsSection(65536)), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.stop(true));
  EXPECT_EQ(FilesOf(agent, "data"), std::vector<std::string>());
  EXPECT_EQ(FilesOf(agent, "dsTime"), std::vector<std::string>());

  agent.backend().clearFaults();
  Start(agent, Tunables(300, 300));
  ASSERT_EQ(Submit(Item("TvTune", "after reset")), 0u);
  ASSERT_TRUE(agent.backend().waitForPackages(1, seconds(15)));
  EXPECT_EQ(ArrivedTags(agent), (Tags{"after reset"}));
}

// Refuses every write, as a full disk does.
class FullDisk : public Lum::Core::FileOperations {
 public:
  ssize_t write(int, const void*, size_t) override {
    errno = ENOSPC;
    return -1;
  }
};

// The stored queue is the only copy of its items until a newer one replaces
// it: a run whose store fails at the end must leave the old one in place.
TEST(DataServices, AStoreThatFailsAtTheEndKeepsTheStoredQueue) {
  AgentHarness agent;
  RunWithUploadsRefused(agent, {"a", "b"});
  ASSERT_TRUE(agent.stop());
  const std::string stored = FileUtil::Load(agent.persistentPath(), "data");
  ASSERT_NE(stored.find("\"tag\":\"b\""), std::string::npos);

  ASSERT_EQ(agent.init(LumJson::Value(), DsSection(65536)), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.waitForLog("GetUploadToken processed (503)", seconds(15)));
  FullDisk full;
  FileUtil::SetOperations(&full);
  const bool stopped = agent.stop();
  FileUtil::SetOperations(nullptr);
  ASSERT_TRUE(stopped);
  EXPECT_EQ(FileUtil::Load(agent.persistentPath(), "data"), stored);

  agent.backend().clearFaults();
  ASSERT_EQ(agent.init(LumJson::Value(), DsSection(65536)), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitFor([&] { return ArrivedTags(agent).size() >= 2; }, seconds(15)));
  EXPECT_EQ(ArrivedTags(agent), (Tags{"a", "b"}));
}

// A stop during a transfer wakes UploadControl, which is not waiting then and
// leaves without taking the wake; the next run's first wait must still run
// its course.
TEST(DataServices, AStopDuringATransferLeavesNoWakeForTheNextRun) {
  AgentHarness agent;
  Fault stall;
  stall.count = -1;
  stall.stallAfterHeaders = seconds(30);
  agent.backend().injectFault(kTokenPath, stall);
  Start(agent, Tunables(300, 300));
  ASSERT_EQ(Submit(Item("TvPower", "a")), 0u);
  ASSERT_TRUE(agent.backend().waitForRequests(kTokenPath, 1, seconds(15)));
  ASSERT_TRUE(agent.stop());

  agent.backend().clearFaults();
  LumJson::Value slow = Tunables(5000, 5000);
  for (const std::string& id : kAllowed) {
    slow["dsAllowedDataItemIds"].append(id);
  }
  agent.seedPersistedValues(slow);
  ASSERT_EQ(agent.init(LumJson::Value(), DsSection(65536)), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.waitForLog("UploadControl delaying", seconds(5)));
  EXPECT_FALSE(agent.waitForLog("UploadControl delay was previously reset", milliseconds(1500)));
}

// A canned 4xx answer for the upload is the server's refusal like a real
// one: the package is dropped, not announced again and again.
TEST(DataServices, AnInjectedRefusalOfTheUploadDropsThePackage) {
  AgentHarness agent;
  agent.backend().pushTunables(Tunables(300, 300));
  agent.backend().setAllowedDataItemIds(kAllowed);
  LumJson::Value injector(LumJson::objectValue);
  injector["suffix"] = "dsdata/upload/package";
  LumJson::Value refusal(LumJson::objectValue);
  refusal["statusCode"] = 400;
  injector["responses"].append(refusal);
  LumJson::Value core(LumJson::objectValue);
  core["injectors"].append(injector);
  ASSERT_EQ(agent.init(core, DsSection(65536)), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(WaitFor([] { return !AllowedIdsOfStatus().empty(); }, seconds(10)));
  ASSERT_EQ(Submit(Item("TvPower", "a")), 0u);
  ASSERT_TRUE(agent.waitForLog("UploadDataPackage processed (400)", seconds(15)));
  EXPECT_FALSE(agent.backend().waitForRequests(kTokenPath, 2, milliseconds(1500)));
}

// Counts the file operations that begin every store (open) and every
// removal (unlink), to show that a submission never touches the disk.
class CountingFileOperations : public Lum::Core::FileOperations {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    ++calls;
    return FileOperations::open(path, flags, mode);
  }
  int unlink(const char* path) override {
    ++calls;
    return FileOperations::unlink(path);
  }
  std::atomic<int> calls{0};
};

TEST(DataServices, SubmittingTouchesNeitherDiskNorNetwork) {
  AgentHarness agent;
  Start(agent, Tunables(60000));
  ASSERT_TRUE(agent.backend().waitForAnswers(agent.backend().requestCount(), seconds(10)));
  const size_t requestsBefore = agent.backend().requestCount();
  CountingFileOperations counting;
  FileUtil::SetOperations(&counting);
  unsigned failures = 0;
  for (int i = 0; i < 200; ++i) {
    failures += Submit(Item(i % 2 ? "TvPower" : "Unknown", std::to_string(i))) ==
                        (i % 2 ? LUM_RESULT_SUCCESS : LUM_RESULT_NOT_QUEUED)
                    ? 0
                    : 1;
  }
  FileUtil::SetOperations(nullptr);
  EXPECT_EQ(failures, 0u);
  EXPECT_EQ(counting.calls.load(), 0);
  EXPECT_EQ(agent.backend().requestCount(), requestsBefore);
}

TEST(DataServices, EightSubmittingThreadsLoseNothingWhileUploadsRun) {
  AgentHarness agent;
  Start(agent, Tunables(40, 60), 1 << 22);
  Fault refuse = StatusFault(503);
  refuse.count = 2;
  agent.backend().injectFault(kPackagePath, refuse);
  Fault drop = DropFault();
  agent.backend().injectFault(kTokenPath, drop);

  constexpr int kThreads = 8;
  constexpr int kPerThread = 150;
  std::vector<std::vector<unsigned>> results(kThreads, std::vector<unsigned>(kPerThread));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &results] {
      for (int i = 0; i < kPerThread; ++i) {
        results[t][i] = Submit(Item("TvPower", std::to_string(t) + "-" + std::to_string(i)));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<std::string> accepted;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kPerThread; ++i) {
      if (results[t][i] == LUM_RESULT_SUCCESS) {
        accepted.push_back(std::to_string(t) + "-" + std::to_string(i));
      }
    }
  }
  ASSERT_EQ(accepted.size(), static_cast<size_t>(kThreads * kPerThread));

  ASSERT_TRUE(WaitFor([&] { return ArrivedTags(agent).size() >= accepted.size(); }, seconds(60)));
  Tags arrived = ArrivedTags(agent);
  std::sort(arrived.begin(), arrived.end());
  std::sort(accepted.begin(), accepted.end());
  EXPECT_EQ(arrived, accepted);  // each exactly once
  // Each thread's items keep their order across packages.
  std::vector<int> last(kThreads, -1);
  bool ordered = true;
  for (const std::string& tag : ArrivedTags(agent)) {
    const int t = std::stoi(tag.substr(0, tag.find('-')));
    const int i = std::stoi(tag.substr(tag.find('-') + 1));
    ordered = ordered && i > last[t];
    last[t] = i;
  }
  EXPECT_TRUE(ordered);
}

}  // namespace
