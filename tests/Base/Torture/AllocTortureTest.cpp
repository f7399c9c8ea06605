// Allocation failure torture: every operator new of this binary (plain,
// array, nothrow, aligned) can be made to fail at the Nth call after arming.
// For N = 1, 1 + stride, ... each operation runs until one completes without
// reaching its failure; every run must end with a result code, the agent
// stopped, no crash, no hang (leaks are LeakSanitizer's, in the asan build).
// LUM_TORTURE_ALLOC_STRIDE=1 tries every N; the default samples about 150.
// LUM_TORTURE_ALLOC_FIRST starts at another N, to replay one failure.
// malloc itself is not wrapped: ASan's allocator owns it in that build.
// The local back end shares the process; its threads ("lum-backend") are
// left out, since a failure there is the test's, not the agent's.
#include <gtest/gtest.h>
#include <lum.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/AgentHarness.h"
#include "support/KilledWriter.h"

namespace {

std::atomic<bool> armed{false};
std::atomic<long> countdown{0};
std::atomic<long> allocations{0};

bool OnBackendThread() {
  char name[16] = {};  // prctl's own limit; reading it allocates nothing
  prctl(PR_GET_NAME, name);
  return std::strcmp(name, "lum-backend") == 0;
}

// Set while the test's own thread watches the agent: its waits are not part
// of the operation under test.
thread_local bool watching = false;

// True when this allocation is the one to fail.
bool Fails() {
  if (!armed.load(std::memory_order_relaxed) || watching || OnBackendThread()) return false;
  allocations.fetch_add(1, std::memory_order_relaxed);
  return countdown.fetch_sub(1, std::memory_order_relaxed) == 1;
}

void* Allocate(std::size_t size, std::size_t alignment) {
  if (Fails()) return nullptr;
  if (size == 0) size = 1;
  if (alignment <= alignof(std::max_align_t)) return std::malloc(size);
  void* p = nullptr;
  return posix_memalign(&p, alignment, size) == 0 ? p : nullptr;
}

void* AllocateOrThrow(std::size_t size, std::size_t alignment) {
  void* p = Allocate(size, alignment);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace

void* operator new(std::size_t n) {
  return AllocateOrThrow(n, 0);
}
void* operator new[](std::size_t n) {
  return AllocateOrThrow(n, 0);
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  return Allocate(n, 0);
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
  return Allocate(n, 0);
}
void* operator new(std::size_t n, std::align_val_t a) {
  return AllocateOrThrow(n, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t n, std::align_val_t a) {
  return AllocateOrThrow(n, static_cast<std::size_t>(a));
}
void* operator new(std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return Allocate(n, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return Allocate(n, static_cast<std::size_t>(a));
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(p);
}

namespace {

using LumTest::AgentHarness;
using std::chrono::seconds;

// Runs `operation` with the Nth allocation failing; true once it finished
// without reaching N. `allocationsSeen` gets how many it made.
bool RunFailing(long nth, const std::function<void()>& operation, long* allocationsSeen) {
  allocations = 0;
  countdown = nth;
  armed = true;
  operation();
  armed = false;
  *allocationsSeen = allocations;
  return allocations < nth;
}

// Tries N = 1, 1 + stride, ... until the operation completes untouched;
// `after` checks and cleans up after every run, disarmed.
void Torture(const char* name, const std::function<void()>& operation,
             const std::function<void(long nth)>& after, long samples = 150) {
  long total = 0;
  RunFailing(0, operation, &total);  // the clean run, to size the stride
  after(0);
  const long stride = LumTest::KilledWriter::Count("LUM_TORTURE_ALLOC_STRIDE",
                                                   static_cast<int>(total / samples + 1));
  long runs = 0;
  long nth = LumTest::KilledWriter::Count("LUM_TORTURE_ALLOC_FIRST", 1);
  long seen = 0;
  for (;; nth += stride, ++runs) {
    const bool untouched = RunFailing(nth, operation, &seen);
    after(nth);
    if (untouched || testing::Test::HasFatalFailure()) break;
  }
  std::printf("%s: %ld allocations, N = 1..%ld by %ld, %ld runs\n", name, total, nth, stride, runs);
}

LumJson::Value DsSection() {
  LumJson::Value section(LumJson::objectValue);
  section["maximumDataBytes"] = 65536;
  return section;
}

// The agent, never calling its back end during the test (a start far in the
// future), with the ids it may queue already stored.
struct Texts {
  explicit Texts(AgentHarness& agent) {
    LumJson::Value seed(LumJson::objectValue);
    seed["daStartupDelayFixedMs"] = 3600000;
    seed["dsStartupDelayFixedMs"] = 3600000;
    seed["dsAllowedDataItemIds"].append("TvTune");
    agent.seedPersistedValues(seed);
    identity = agent.identityText();
    config = agent.configText(LumJson::Value(), DsSection());
    device = agent.deviceText();
  }
  std::string identity, config, device;
};

void StopAndWait(AgentHarness& agent, long nth) {
  LumTerm();
  const bool stopped = agent.waitForState(0, seconds(20));
  EXPECT_TRUE(stopped) << "hung after failure " << nth;
  if (!stopped) {
    // The tail of the log, without the status polls of the wait above.
    std::istringstream lines(agent.log());
    std::string line, kept;
    while (std::getline(lines, line)) {
      if (line.find("Status() called") == std::string::npos) kept += line + "\n";
    }
    std::printf("%s\n", kept.substr(kept.size() > 8000 ? kept.size() - 8000 : 0).c_str());
  }
}

// A start and a stop with each sampled allocation failing: LumInit answers
// with a code, and the agent always reaches its stopped state.
TEST(AllocTorture, InitAndTerm) {
  AgentHarness agent;
  const Texts texts(agent);
  unsigned result = 0;
  Torture(
      "LumInit+LumTerm",
      [&] {
        result = LumInit(texts.identity.c_str(), texts.config.c_str(), texts.device.c_str());
        LumTerm();
      },
      [&](long nth) {
        EXPECT_TRUE(result == LUM_RESULT_SUCCESS || result == LUM_RESULT_REFUSED)
            << result << " at " << nth;
        StopAndWait(agent, nth);
      });
}

// How many state calls the back end has answered.
size_t StateCalls(const AgentHarness& agent) {
  const std::vector<std::string> calls = agent.calls();
  return static_cast<size_t>(std::count(calls.begin(), calls.end(), "da/state"));
}

// A start that registers and synchronizes at once, with each sampled
// allocation failing on the host's thread or on the agent's while it calls
// the back end; a run ends at the state call (a failed call is retried after
// a short delay) or after a few seconds, then stops.
TEST(AllocTorture, StartSyncAndTerm) {
  AgentHarness agent;
  LumJson::Value seed = LumTest::QuickTunables(60000, 200);
  seed["daStartupDelayFixedMs"] = 0;
  seed["daStartupDelayVariedMs"] = 0;
  // Every start a first one, due at once: no stored schedule, no token.
  const auto firstStart = [&] {
    for (const char* name : {"daTime", "daTime.prev", "daTime.sum"}) {
      std::remove((agent.persistentPath() + "/" + name).c_str());
    }
    agent.seedPersistedValues(seed);
  };
  firstStart();
  const std::string identity = agent.identityText(), config = agent.configText(),
                    device = agent.deviceText();
  unsigned result = 0;
  Torture(
      "LumInit+sync+LumTerm",
      [&] {
        watching = true;
        const size_t before = StateCalls(agent);
        watching = false;
        result = LumInit(identity.c_str(), config.c_str(), device.c_str());
        watching = true;
        const auto deadline = std::chrono::steady_clock::now() + seconds(3);
        while (result == LUM_RESULT_SUCCESS && StateCalls(agent) == before &&
               std::chrono::steady_clock::now() < deadline) {
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        watching = false;
        LumTerm();
      },
      [&](long nth) {
        EXPECT_TRUE(result == LUM_RESULT_SUCCESS || result == LUM_RESULT_REFUSED)
            << result << " at " << nth;
        StopAndWait(agent, nth);
        firstStart();
      },
      40);
}

TEST(AllocTorture, SubmitDataItem) {
  AgentHarness agent;
  const Texts texts(agent);
  ASSERT_EQ(LumInit(texts.identity.c_str(), texts.config.c_str(), texts.device.c_str()),
            LUM_RESULT_SUCCESS);
  unsigned result = 0;
  const std::string item = R"({"id":"TvTune","parameters":{"tag":"x"}})";
  Torture(
      "LumSubmitDataItem", [&] { result = LumSubmitDataItem(item.c_str()); },
      [&](long nth) {
        EXPECT_TRUE(result == LUM_RESULT_SUCCESS || result == LUM_RESULT_NOT_QUEUED ||
                    result == LUM_RESULT_REFUSED)
            << result << " at " << nth;
        LumStatus status{};
        EXPECT_EQ(LumGetStatus(LumStatusMethodImmediate, &status), LUM_RESULT_SUCCESS);
        LumFreeStatus(&status);
      });
  StopAndWait(agent, -1);
}

}  // namespace
