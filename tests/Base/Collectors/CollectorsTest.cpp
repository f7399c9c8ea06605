// The collector manager and the device-information collector with their real
// threads and the core mutex. The agent is not started, so submissions are
// refused; what the collector produced is read from its "submitted" lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Base/CollectorManager.h"
#include "Base/CoreMutex.h"
#include "Base/DeviceValues.h"
#include "Base/PersistentValues.h"
#include "Platform/LockMutex.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::CoreMutex;
using Lum::Core::LockMutex;
using LumTest::WaitFor;
using Ids = std::set<std::string>;
using Lines = std::vector<std::string>;

constexpr char kEsnItem[] = R"({"id":"DeviceInfoEsn","parameters":{"value":"ESN-0001"}})";
constexpr char kMacItem[] = R"({"id":"DeviceInfoMac","parameters":{"value":"00:11:22:33:44:55"}})";
const std::string kSubmitted = "DeviceInfoControl submitted ";
const Ids kEsn = {"DeviceInfoEsn"}, kMac = {"DeviceInfoMac"}, kOther = {"TvPower"};
const Ids kBoth = {"DeviceInfoEsn", "DeviceInfoMac"};
const std::string kStopping = "Stopping Collector \"Device Info\"";
const std::string kTerminated = "Terminated Collector \"Device Info\"";
const std::string kHalting = "Halting Collector \"Device Info\"";
const std::string kStartMac = "Initializing Collector \"Device Info\" [DeviceInfoMac]";
const std::string kStartEsn = "Initializing Collector \"Device Info\" [DeviceInfoEsn]";
const std::string kStartBoth =
    "Initializing Collector \"Device Info\" [DeviceInfoEsn,DeviceInfoMac]";

size_t ThreadCount() {
  namespace fs = std::filesystem;
  return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
}

// The kernel's names of this process's threads.
Ids ThreadNames() {
  Ids names;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name = LumTest::ReadFile(task.path().string() + "/comm");
    names.insert(name.substr(0, name.find('\n')));
  }
  return names;
}

size_t Count(const Lines& lines, const std::string& line) {
  return std::count(lines.begin(), lines.end(), line);
}

// Whether `expected` occurs in `lines` in this order (other lines between).
bool InOrder(const Lines& lines, const Lines& expected) {
  size_t next = 0;
  for (const std::string& line : lines) {
    next += next < expected.size() && line == expected[next];
  }
  return next == expected.size();
}

class CollectorsTest : public ::testing::Test {
 protected:
  CollectorsTest() : device_(R"({"esn":"ESN-0001","mac":"00:11:22:33:44:55"})", false, "", "") {
    Reset();
  }
  ~CollectorsTest() override { Terminate(); }  // a failed test must not leave threads

  // A fresh log and persistent values without a change mark, as for a new
  // run of the agent.
  void Reset() {
    log_.reset();  // the old capture must let go of the logger first
    log_.reset(new LumTest::LogCapture("debug"));
    persistent_.reset(new Lum::Core::PersistentValues());
    context_.device = &device_;
    context_.persistent = persistent_.get();
  }

  static Lum::Ds::CollectorManager& Manager() { return *Lum::Ds::CollectorManager::Instance(); }

  // As the core does: with its mutex held.
  void Start() {
    LockMutex lock(&CoreMutex());
    Manager().initialize(context_);
  }
  void Cascade(const Ids& ids) {
    LockMutex lock(&CoreMutex());
    Manager().cascadeStateChanges(ids);
  }
  void Terminate() {
    {
      LockMutex lock(&CoreMutex());
      Manager().terminateBegin();
    }
    Manager().terminateEnd();
  }
  void ChangeDeviceInfo(const std::string& mac) {
    LockMutex lock(&CoreMutex());
    persistent_->setDeviceMac(mac);
  }
  void CoreCheck() {  // the end of every core evaluation
    LockMutex lock(&CoreMutex());
    persistent_->checkDeviceInfoCollector();
  }

  Lines Messages() const { return log_->messages(); }
  size_t Count(const std::string& line) const { return ::Count(Messages(), line); }
  Lines Items() const {
    Lines items;
    for (const std::string& line : Messages()) {
      if (line.compare(0, kSubmitted.size(), kSubmitted) == 0) {
        items.push_back(line.substr(kSubmitted.size(), line.rfind(" (") - kSubmitted.size()));
      }
    }
    return items;
  }

  // CollectorControl finished `rounds` changes, and every collector thread it
  // started is through its pass (waiting or ended).
  void Settle(size_t rounds) {
    ASSERT_TRUE(WaitFor([&] {
      const Lines lines = Messages();
      size_t starts = 0;
      std::string last;  // the collector thread's last state line
      for (const std::string& line : lines) {
        starts += line.compare(0, 22, "Initializing Collector") == 0;
        if (line.compare(0, 18, "DeviceInfoControl ") == 0 &&
            line.find(' ', 18) == std::string::npos) {
          last = line;
        }
      }
      return ::Count(lines, "CollectorControl waiting") == rounds + 1 &&
             ::Count(lines, "DeviceInfoControl started") == starts &&
             last != "DeviceInfoControl running" && last != "DeviceInfoControl started";
    })) << log_->text();
  }

  std::unique_ptr<LumTest::LogCapture> log_;
  Lum::Core::DeviceValues device_;
  std::unique_ptr<Lum::Core::PersistentValues> persistent_;
  Lum::Core::ManagerContext context_;
};

// Allowed-id changes, each carried out before the next.
const struct Transition {
  const char* name;
  bool deviceInfoChanged;
  std::vector<Ids> steps;
  Lines inOrder;                         // these lines in this order
  std::map<std::string, size_t> counts;  // exact numbers of these lines
  Lines items;                           // submitted, in order
  bool laterChange = false;              // the device info changes after the steps
} kTransitions[] = {
    // clang-format off
    {"first start, unchanged: MAC only, nothing", false, {kMac}, {kStartMac}, {{kHalting, 0}}, {}},
    {"halted by the first round: next start reports", false, {{}, kMac}, {kHalting, kStartMac},
     {{kStopping, 0}}, {kMacItem}},
    {"MAC to both: stop, restart, ESN first", true, {kMac, kBoth},
     {kStartMac, kStopping, "Waiting for Collector \"Device Info\"",
      "Waiting for DeviceInfoControl to join", kTerminated, kStartBoth},
     {{kStopping, 1}}, {kMacItem, kEsnItem, kMacItem}},
    {"ESN to none: stop, then halt; next start reports", false, {kEsn, {}, kMac},
     {kStartEsn, kStopping, kTerminated, kHalting, kStartMac}, {{kHalting, 1}}, {kMacItem}},
    {"first-round halt only in the first round", false, {kEsn, {}, kOther}, {kHalting},
     {{kHalting, 1}}, {}},
    {"other ids leave a running collector alone", true, {kMac, {"DeviceInfoMac", "TvPower"}},
     {kStartMac}, {{kStopping, 0}, {kHalting, 0}}, {kMacItem}},
    {"a change while running is reported once more", true, {kBoth}, {kStartBoth}, {{kStopping, 0}},
     {kEsnItem, kMacItem, kEsnItem, kMacItem}, true},
    // clang-format on
};

TEST_F(CollectorsTest, TransitionsStopHaltAndStartTheCollector) {
  for (const Transition& t : kTransitions) {
    SCOPED_TRACE(t.name);
    Reset();
    if (t.deviceInfoChanged) {
      ChangeDeviceInfo("00:11:22:33:44:55");
    }
    Start();
    for (size_t i = 0; i < t.steps.size(); ++i) {
      Cascade(t.steps[i]);
      Settle(i + 1);
    }
    if (t.laterChange) {
      // The signal left from the change before the start runs nothing more.
      const size_t runs = Count("DeviceInfoControl running");
      CoreCheck();
      EXPECT_FALSE(WaitFor([&] { return Count("DeviceInfoControl running") > runs; },
                           std::chrono::milliseconds(300)));
      ChangeDeviceInfo("66:77:88:99:aa:bb");
      CoreCheck();
      ASSERT_TRUE(WaitFor([&] { return Items().size() == t.items.size(); })) << log_->text();
    }
    EXPECT_TRUE(InOrder(Messages(), t.inOrder)) << log_->text();
    for (const auto& count : t.counts) {
      EXPECT_EQ(Count(count.first), count.second) << count.first;
    }
    EXPECT_EQ(Items(), t.items);
    Terminate();
    ChangeDeviceInfo("aa:bb:cc:dd:ee:ff");
    CoreCheck();  // ASan reports a use after free if the collector stayed registered
  }
}

// The kernel takes at most 15 characters as a thread's name.
TEST_F(CollectorsTest, ThreadsCarryTheirNames) {
  Start();
  Cascade(kMac);
  Ids names;
  EXPECT_TRUE(WaitFor([&] {
    names = ThreadNames();
    return names.count("CollectorCtrl") == 1 && names.count("DeviceInfoCtrl") == 1;
  })) << testing::PrintToString(names);
}

// A change handed over just before termination, while CollectorControl is
// busy with the previous one, is carried out once, and the collector it
// starts is stopped before terminateEnd returns.
TEST_F(CollectorsTest, ChangePendingAtTerminationIsCarriedOutOnce) {
  const size_t threadsBefore = ThreadCount();
  Start();
  Cascade(kMac);
  Settle(1);
  {
    // Stopping needs the core mutex: holding it keeps CollectorControl in
    // the stop, blind to what follows.
    LockMutex lock(&CoreMutex());
    Manager().cascadeStateChanges({});
    ASSERT_TRUE(WaitFor([&] { return Count(kStopping) == 1; })) << log_->text();
    Manager().cascadeStateChanges(kEsn);
    Manager().terminateBegin();
    Manager().cascadeStateChanges(kBoth);  // too late: refused
  }
  Manager().terminateEnd();
  EXPECT_TRUE(InOrder(Messages(), {kStopping, kTerminated, kHalting, kStartEsn, kStopping,
                                   kTerminated, "CollectorControl terminated"}))
      << log_->text();
  EXPECT_EQ(Count(kStartEsn), 1u);
  EXPECT_EQ(Count("Aborted call to cascadeStateChanges()"), 1u);
  EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threadsBefore; }));
}

// The agent starts and stops many times in one process: every cycle leaves
// the manager ready for the next and no thread behind, also when termination
// begins while the collector is starting. Calls out of turn are refused.
TEST_F(CollectorsTest, StartStopCyclesLeaveNoThreadAndRefuseCallsOutOfTurn) {
  const size_t threadsBefore = ThreadCount();
  Cascade(kMac);
  Terminate();
  constexpr size_t kCycles = 20;
  for (size_t cycle = 0; cycle < kCycles; ++cycle) {
    SCOPED_TRACE(cycle);
    const size_t waitsBefore = Count("DeviceInfoControl waiting");
    Start();
    Start();
    Cascade(kBoth);
    if (cycle % 2 == 0) {
      ASSERT_TRUE(WaitFor([&] { return Count("DeviceInfoControl waiting") > waitsBefore; }));
    }
    Terminate();
    ASSERT_TRUE(WaitFor([&] { return ThreadCount() == threadsBefore; }));
  }
  const std::map<std::string, size_t> expected = {{"Aborted call to cascadeStateChanges()", 1},
                                                  {"Aborted call to terminateBegin()", 1},
                                                  {"Aborted call to terminateEnd()", 1},
                                                  {"Aborted call to initialize()", kCycles},
                                                  {kStartBoth, kCycles},
                                                  {"DeviceInfoControl terminated", kCycles}};
  for (const auto& count : expected) {
    EXPECT_EQ(Count(count.first), count.second) << count.first;
  }
}

}  // namespace
