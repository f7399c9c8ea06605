// The collector manager and the device-information collector with their real
// threads, the real core mutex and real core value objects. The agent itself
// is not started, so every submission is refused (1); what the collector
// produced is read from its "submitted" lines.
#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Base/CollectorManager.h"
#include "Base/CoreManager.h"
#include "Base/DeviceValues.h"
#include "Base/PersistentValues.h"
#include "Platform/LockMutex.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::CoreManager;
using Lum::Core::LockMutex;
using Lum::Ds::CollectorManager;
using LumTest::WaitFor;
using Ids = std::set<std::string>;
using Lines = std::vector<std::string>;

constexpr char kDevice[] = R"({"esn":"ESN-0001","mac":"00:11:22:33:44:55"})";
constexpr char kEsnItem[] = R"({"id":"DeviceInfoEsn","parameters":{"value":"ESN-0001"}})";
constexpr char kMacItem[] = R"({"id":"DeviceInfoMac","parameters":{"value":"00:11:22:33:44:55"}})";
const std::string kSubmitted = "DeviceInfoControl submitted ";
const Ids kEsn = {"DeviceInfoEsn"};
const Ids kMac = {"DeviceInfoMac"};
const Ids kBoth = {"DeviceInfoEsn", "DeviceInfoMac"};
const Ids kOther = {"TvPower"};

const std::string kStopping = "Stopping Collector \"Device Info\"";
const std::string kWaitingFor = "Waiting for Collector \"Device Info\"";
const std::string kJoining = "Waiting for DeviceInfoControl to join";
const std::string kTerminated = "Terminated Collector \"Device Info\"";
const std::string kHalting = "Halting Collector \"Device Info\"";
const std::string kStartMac = "Initializing Collector \"Device Info\" [DeviceInfoMac]";
const std::string kStartEsn = "Initializing Collector \"Device Info\" [DeviceInfoEsn]";
const std::string kStartBoth =
    "Initializing Collector \"Device Info\" [DeviceInfoEsn,DeviceInfoMac]";

size_t ThreadCount() {
  size_t count = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir)) {
      count += entry->d_name[0] != '.';
    }
    closedir(dir);
  }
  return count;
}

size_t Count(const Lines& lines, const std::string& line) {
  size_t count = 0;
  for (const std::string& each : lines) {
    count += each == line;
  }
  return count;
}

size_t CountPrefix(const Lines& lines, const std::string& prefix) {
  size_t count = 0;
  for (const std::string& each : lines) {
    count += each.compare(0, prefix.size(), prefix) == 0;
  }
  return count;
}

// Whether `expected` occurs in `lines` in this order (other lines between).
bool InOrder(const Lines& lines, const Lines& expected) {
  size_t next = 0;
  for (const std::string& line : lines) {
    if (next < expected.size() && line == expected[next]) {
      ++next;
    }
  }
  return next == expected.size();
}

class CollectorsTest : public ::testing::Test {
 protected:
  CollectorsTest() : device_(kDevice, false, "", "") { Reset(); }

  ~CollectorsTest() override {
    // A failed test must not leave the threads running into the next one.
    Terminate();
  }

  // A fresh log and fresh persistent values (no change marked), as for a
  // new run of the agent. Call only while the manager is terminated.
  void Reset() {
    log_.reset();  // the old capture must let go of the logger first
    log_.reset(new LumTest::LogCapture("debug"));
    persistent_.reset(new Lum::Core::PersistentValues());
    context_.device = &device_;
    context_.persistent = persistent_.get();
  }

  static Lum::Core::Mutex& CoreMutex() { return CoreManager::Instance()->getMutex(); }
  static CollectorManager& Manager() { return *CollectorManager::Instance(); }

  // The core calls these with its mutex held, and so do the tests.
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
  // A device description that differs from the persisted one, as LumInit
  // finds it after the television changed.
  void ChangeDeviceInfo(const std::string& mac) {
    LockMutex lock(&CoreMutex());
    persistent_->setDeviceMac(mac);
  }
  // What the core does at the end of every evaluation.
  void CoreCheck() {
    LockMutex lock(&CoreMutex());
    persistent_->checkDeviceInfoCollector();
  }

  Lines Messages() const { return log_->messages(); }

  Lines Items() const {
    Lines items;
    for (const std::string& line : Messages()) {
      if (line.compare(0, kSubmitted.size(), kSubmitted) == 0) {
        items.push_back(line.substr(kSubmitted.size(), line.rfind(" (") - kSubmitted.size()));
      }
    }
    return items;
  }

  // CollectorControl has finished `rounds` changes and every collector thread
  // it started has finished its pass (it waits or has ended).
  bool Settled(size_t rounds) const {
    const Lines lines = Messages();
    if (Count(lines, "CollectorControl waiting") != rounds + 1 ||
        CountPrefix(lines, "Initializing Collector") != Count(lines, "DeviceInfoControl started")) {
      return false;
    }
    std::string last;
    for (const std::string& line : lines) {
      if (line == "DeviceInfoControl running" || line == "DeviceInfoControl waiting" ||
          line == "DeviceInfoControl terminated") {
        last = line;
      }
    }
    return last != "DeviceInfoControl running";
  }
  void Settle(size_t rounds) {
    ASSERT_TRUE(WaitFor([&] { return Settled(rounds); })) << log_->text();
  }

  // Every stop waited for its thread: each "Terminated" line follows one
  // more "DeviceInfoControl terminated".
  bool EveryStopJoined() const {
    size_t ended = 0;
    size_t stopped = 0;
    for (const std::string& line : Messages()) {
      ended += line == "DeviceInfoControl terminated";
      if (line == kTerminated && ++stopped > ended) {
        return false;
      }
    }
    return true;
  }

  std::unique_ptr<LumTest::LogCapture> log_;
  Lum::Core::DeviceValues device_;
  std::unique_ptr<Lum::Core::PersistentValues> persistent_;
  Lum::Core::ManagerContext context_;
};

// Allowed-id changes in sequence, each carried out before the next.
const struct Transition {
  const char* name;
  bool deviceInfoChanged;
  std::vector<Ids> steps;
  Lines inOrder;                         // these lines, in this order
  std::map<std::string, size_t> counts;  // exact number of these lines
  Lines items;                           // what the collector submitted, in order
} kTransitions[] = {
    {"first start, device info unchanged: MAC only, nothing reported",
     false,
     {kMac},
     {kStartMac},
     {{kHalting, 0}, {kStopping, 0}},
     {}},
    {"first start, device info changed: the MAC item only",
     true,
     {kMac},
     {kStartMac},
     {{kHalting, 0}},
     {kMacItem}},
    {"halted by the first round, the next start reports",
     false,
     {{}, kMac},
     {kHalting, kStartMac},
     {{kHalting, 1}, {kStopping, 0}},
     {kMacItem}},
    {"changed and halted still reports once",
     true,
     {{}, kMac},
     {kHalting, kStartMac},
     {{kHalting, 1}},
     {kMacItem}},
    {"an id of another collector at the first round halts this one",
     false,
     {kOther, kEsn},
     {kHalting, kStartEsn},
     {{kHalting, 1}},
     {kEsnItem}},
    {"MAC to ESN and MAC: stop, then restart with both, ESN first",
     true,
     {kMac, kBoth},
     {kStartMac, kStopping, kWaitingFor, kJoining, kTerminated, kStartBoth},
     {{kStopping, 1}, {kTerminated, 1}},
     {kMacItem, kEsnItem, kMacItem}},
    {"ESN to none: stop, then halt; the next start reports",
     false,
     {kEsn, {}, kMac},
     {kStartEsn, kStopping, kWaitingFor, kTerminated, kHalting, kStartMac},
     {{kHalting, 1}},
     {kMacItem}},
    {"the first-round halt happens in the first round only",
     false,
     {kEsn, {}, kOther},
     {kStartEsn, kTerminated, kHalting},
     {{kHalting, 1}, {kStopping, 1}},
     {}},
    {"an id of another collector leaves a running one alone",
     true,
     {kMac, {"DeviceInfoMac", "TvPower"}},
     {kStartMac},
     {{kStopping, 0}, {kHalting, 0}},
     {kMacItem}},
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
    const Lines lines = Messages();
    EXPECT_TRUE(InOrder(lines, t.inOrder)) << log_->text();
    for (const auto& count : t.counts) {
      EXPECT_EQ(Count(lines, count.first), count.second) << count.first;
    }
    EXPECT_EQ(Items(), t.items);
    Terminate();
    EXPECT_TRUE(EveryStopJoined()) << log_->text();
  }
}

// A change handed over just before termination, while CollectorControl is
// still busy with the previous one, is carried out once; the collector it
// starts is stopped again before terminateEnd returns.
TEST_F(CollectorsTest, ChangePendingAtTerminationIsCarriedOutOnce) {
  const size_t threadsBefore = ThreadCount();
  Start();
  Cascade(kMac);
  Settle(1);
  {
    // Holding the core mutex keeps CollectorControl inside the stop of the
    // next round (stopping needs that mutex), so it cannot have seen what
    // follows when termination begins.
    LockMutex lock(&CoreMutex());
    Manager().cascadeStateChanges({});
    ASSERT_TRUE(WaitFor([&] { return Count(Messages(), kStopping) == 1; })) << log_->text();
    Manager().cascadeStateChanges(kEsn);
    Manager().terminateBegin();
    Manager().cascadeStateChanges(kBoth);  // too late: refused
  }
  Manager().terminateEnd();
  const Lines lines = Messages();
  EXPECT_EQ(Count(lines, "Aborted call to cascadeStateChanges()"), 1u);
  EXPECT_TRUE(InOrder(lines, {kStartMac, kStopping, kTerminated, kHalting, kStartEsn, kStopping,
                              kTerminated, "CollectorControl terminated"}))
      << log_->text();
  EXPECT_EQ(Count(lines, kStartEsn), 1u);
  EXPECT_EQ(Count(lines, kStartBoth), 0u);
  EXPECT_EQ(Count(lines, "DeviceInfoControl started"),
            Count(lines, "DeviceInfoControl terminated"));
  EXPECT_TRUE(EveryStopJoined()) << log_->text();
  EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threadsBefore; }));
}

// The agent is started and stopped many times in one process: each cycle
// must leave the manager ready for the next and no thread behind, also when
// termination begins while a collector is being started.
TEST_F(CollectorsTest, StartStopCyclesLeaveNoThreadAndCanRestart) {
  const size_t threadsBefore = ThreadCount();
  constexpr size_t kCycles = 20;
  for (size_t cycle = 0; cycle < kCycles; ++cycle) {
    SCOPED_TRACE(cycle);
    const size_t waitsBefore = Count(Messages(), "DeviceInfoControl waiting");
    Start();
    Cascade(kBoth);
    // Every other cycle terminates while the collector may still be starting.
    if (cycle % 2 == 0) {
      ASSERT_TRUE(WaitFor([&] {
        return Count(Messages(), "DeviceInfoControl waiting") > waitsBefore;
      })) << log_->text();
    }
    Terminate();
    ASSERT_TRUE(WaitFor([&] { return ThreadCount() == threadsBefore; }));
  }
  const Lines lines = Messages();
  EXPECT_EQ(Count(lines, "CollectorControl started"), kCycles);
  EXPECT_EQ(Count(lines, "CollectorControl terminated"), kCycles);
  EXPECT_EQ(Count(lines, kStartBoth), kCycles);
  EXPECT_EQ(Count(lines, "DeviceInfoControl started"), kCycles);
  EXPECT_EQ(Count(lines, "DeviceInfoControl terminated"), kCycles);
  EXPECT_EQ(Count(lines, "Aborted call to initialize()"), 0u);
  EXPECT_TRUE(EveryStopJoined()) << log_->text();
}

// Calls out of order are refused with their own line and change nothing.
TEST_F(CollectorsTest, CallsOutOfOrderAreRefused) {
  const size_t threadsBefore = ThreadCount();
  Cascade(kMac);
  Terminate();
  Start();
  Start();
  Settle(0);
  EXPECT_EQ(ThreadCount(), threadsBefore + 1);  // one CollectorControl only
  Terminate();
  Terminate();
  const Lines lines = Messages();
  for (const char* refused :
       {"Aborted call to cascadeStateChanges()", "Aborted call to initialize()"}) {
    EXPECT_EQ(Count(lines, refused), 1u) << refused;
  }
  for (const char* refused :
       {"Aborted call to terminateBegin()", "Aborted call to terminateEnd()"}) {
    EXPECT_EQ(Count(lines, refused), 2u) << refused;
  }
  EXPECT_EQ(Count(lines, "CollectorControl started"), 1u);
  EXPECT_EQ(Count(lines, "Waiting for CollectorControl to join"), 1u);
  EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threadsBefore; }));
}

// A change of the device description signalled by the core while the
// collector runs is reported once more; the signal still pending for a
// change made before the start is not reported a second time.
TEST_F(CollectorsTest, DeviceInfoChangesAreReportedOnce) {
  ChangeDeviceInfo("00:11:22:33:44:55");
  Start();
  Cascade(kBoth);
  Settle(1);
  EXPECT_EQ(Items(), (Lines{kEsnItem, kMacItem}));

  CoreCheck();  // the core's check after the start: nothing new to report
  EXPECT_FALSE(WaitFor([&] { return Count(Messages(), "DeviceInfoControl running") > 1; },
                       std::chrono::milliseconds(300)));

  ChangeDeviceInfo("66:77:88:99:aa:bb");
  CoreCheck();
  ASSERT_TRUE(WaitFor([&] { return Items().size() == 4; })) << log_->text();
  Settle(1);
  CoreCheck();  // no further change since
  Terminate();
  EXPECT_EQ(Items(), (Lines{kEsnItem, kMacItem, kEsnItem, kMacItem}));
  EXPECT_EQ(Count(Messages(), "DeviceInfoControl running"), 3u);  // two passes and the last
}

// After termination the collector is gone: the persistent values must not
// hand it a later change.
TEST_F(CollectorsTest, TerminationUnregistersTheCollector) {
  Start();
  Cascade(kMac);
  Settle(1);
  Terminate();
  ChangeDeviceInfo("66:77:88:99:aa:bb");
  CoreCheck();  // would touch the deleted collector
  EXPECT_TRUE(Items().empty());
}

}  // namespace
