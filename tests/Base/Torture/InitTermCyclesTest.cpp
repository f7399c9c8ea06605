// A thousand starts and stops, with the back end reachable, down, or no time
// to reach it at all: afterwards the process holds the file descriptors and
// threads it held before (and, under LeakSanitizer, no leaked memory).
#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "TortureSupport.h"

namespace {

using LumTest::AgentHarness;
using namespace std::chrono;

// LUM_TORTURE_SCALE=4 makes the thousand cycles of a long run.
constexpr unsigned kCycles = 250;

unsigned Entries(const char* directory) {
  unsigned count = 0;
  if (DIR* dir = opendir(directory)) {
    while (const dirent* entry = readdir(dir)) {
      count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(dir);
  }
  return count;
}

TEST(InitTermCycles, ResourcesReturnToWhereTheyStarted) {
  AgentHarness agent;
  // One full start first: what stays for the process's lifetime (libcurl's
  // and OpenSSL's global state, the log file's lazily created pieces) is
  // then part of the baseline.
  ASSERT_TRUE(LumTest::StartTortured(agent));
  ASSERT_TRUE(agent.stop());
  const std::string identity = agent.identityText();
  const std::string config = agent.configText();
  const std::string device = agent.deviceText();
  // The back end keeps its own threads and sockets; it runs throughout, and
  // is stopped (not destroyed) for the cycles that find it down.
  const unsigned fds = Entries("/proc/self/fd");
  const unsigned threads = Entries("/proc/self/task");
  const unsigned cycles = kCycles * LumTest::TortureScale();
  unsigned reached = 0;
  milliseconds spent[3] = {};
  bool down = false;
  for (unsigned cycle = 0; cycle < cycles; ++cycle) {
    const unsigned kind = cycle % 3;  // 0 reachable, 1 down, 2 stopped at once
    if ((kind == 1) != down) {
      down = kind == 1;
      if (down) {
        agent.backend().stop();
      } else {
        ASSERT_TRUE(agent.backend().start());
      }
    }
    const auto start = steady_clock::now();
    const size_t before = agent.backend().requestCount();
    ASSERT_EQ(LumInit(identity.c_str(), config.c_str(), device.c_str()), LUM_RESULT_SUCCESS)
        << "cycle " << cycle;
    if (kind == 0 && agent.backend().waitForRequests(before + 1, seconds(10))) {
      ++reached;
    }
    ASSERT_EQ(LumTerm(), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(agent.waitForState(LumDeviceAgentUninitialized, seconds(20))) << "cycle " << cycle;
    spent[kind] += duration_cast<milliseconds>(steady_clock::now() - start);
  }
  std::printf("ms spent reachable %lld, down %lld, stopped at once %lld\n",
              static_cast<long long>(spent[0].count()), static_cast<long long>(spent[1].count()),
              static_cast<long long>(spent[2].count()));
  if (down) {
    ASSERT_TRUE(agent.backend().start());
  }
  // The back end's connection threads end a moment after the agent's last
  // connection closes; the agent's own are gone with state 0.
  const bool settled = LumTest::WaitFor(
      [&] { return Entries("/proc/self/fd") <= fds && Entries("/proc/self/task") <= threads; },
      seconds(20));
  std::printf("%u cycles, %u reached the back end; fds %u -> %u, threads %u -> %u\n", cycles,
              reached, fds, Entries("/proc/self/fd"), threads, Entries("/proc/self/task"));
  EXPECT_TRUE(settled);
  EXPECT_EQ(reached, (cycles + 2) / 3);
}

}  // namespace
