#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "agent/AgentHarness.h"
#include "support/TestSupport.h"

extern char** environ;

namespace {

using LumTest::AgentHarness;

// How a run of a host program ended, in words, or "" when it exited with 0.
std::string RunHost(const std::vector<std::string>& arguments, std::chrono::seconds limit,
                    char** environment = environ) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environment) != 0) {
    return "could not start";
  }
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
      return "hung";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (WIFSIGNALED(status)) {
    return "killed by signal " + std::to_string(WTERMSIG(status));
  }
  if (WEXITSTATUS(status) != 0) {
    return "exit code " + std::to_string(WEXITSTATUS(status));
  }
  return "";
}

// A television may be switched off at any moment: its software exits while
// the agent's threads are in the middle of their work, right after LumTerm
// or without it. The process must end cleanly every time, whatever the
// agent was doing (registering, polling, uploading, storing its files).
TEST(HostExitTest, ExitingWhileTheAgentWorksNeverCrashesOrHangs) {
  AgentHarness agent;
  LumJson::Value tunables = LumTest::QuickTunables(100, 100);
  for (const char* delay : {"Standard", "Startup", "Aggressive", "Retry"}) {
    tunables[std::string("ds") + delay + "DelayFixedMs"] = 50;
    tunables[std::string("ds") + delay + "DelayVariedMs"] = 0;
  }
  agent.backend().pushTunables(tunables);
  agent.backend().setAllowedDataItemIds({"TvPowerState", "DeviceInfoEsn", "DeviceInfoMac"});
  const std::string dir = agent.persistentPath();
  LumTest::WriteFile(dir + "/identity.json", agent.identityText());
  LumTest::WriteFile(dir + "/config.json", agent.configText());
  LumTest::WriteFile(dir + "/device.json", agent.deviceText());
  std::string items;
  for (int i = 0; i < 20; ++i) {
    items += "{\"id\":\"TvPowerState\",\"value\":\"on\"}\n";
  }
  LumTest::WriteFile(dir + "/items.txt", items);

  const int kRuns = 100;
  std::vector<std::string> failures;
  for (const bool term : {true, false}) {
    for (int run = 0; run < kRuns; ++run) {
      // Spread the exits over start-up, registration, polls and uploads.
      const int exitAfterMs = 1 + (run * 37) % 400;
      std::vector<std::string> arguments = {LUM_HOST_PROGRAM,
                                            "--identity",
                                            dir + "/identity.json",
                                            "--config",
                                            dir + "/config.json",
                                            "--device",
                                            dir + "/device.json",
                                            "--items",
                                            dir + "/items.txt",
                                            "--items-delay-ms",
                                            "5",
                                            "--exit-after-ms",
                                            std::to_string(exitAfterMs)};
      if (!term) {
        arguments.push_back("--no-term");
      }
      const std::string outcome = RunHost(arguments, std::chrono::seconds(30));
      if (!outcome.empty()) {
        failures.push_back(std::string(term ? "LumTerm" : "no LumTerm") + ", exit after " +
                           std::to_string(exitAfterMs) + " ms: " + outcome);
      }
    }
  }
  EXPECT_TRUE(failures.empty()) << failures.size() << " of " << 2 * kRuns
                                << " runs failed, first: " << failures.front();
  // The runs did reach the back end, so the exits met a working agent.
  EXPECT_GT(agent.backend().requestCount(), 0u);
}

// The agent started, stopped and its library unloaded the moment
// LumGetStatus first reports state 0, again and again: by then no thread of
// the agent may still run the library's code.
TEST(HostExitTest, UnloadingTheLibraryAfterStateZeroIsSafe) {
  AgentHarness agent;
  agent.backend().pushTunables(LumTest::QuickTunables(100, 100));
  const std::string dir = agent.persistentPath();
  LumTest::WriteFile(dir + "/identity.json", agent.identityText());
  LumTest::WriteFile(dir + "/config.json", agent.configText());
  LumTest::WriteFile(dir + "/device.json", agent.deviceText());
  // Every load leaves the library's never-destroyed objects behind, which
  // the leak checker would count once the library is gone.
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::string(*variable).compare(0, 13, "ASAN_OPTIONS=") != 0) {
      variables.push_back(*variable);
    }
  }
  const char* asan = getenv("ASAN_OPTIONS");
  variables.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") +
                      ":detect_leaks=0");
  std::vector<char*> environment;
  for (std::string& variable : variables) {
    environment.push_back(&variable[0]);
  }
  environment.push_back(nullptr);

  const std::string outcome = RunHost({LUM_UNLOAD_HOST, LUM_LIBRARY, dir + "/identity.json",
                                       dir + "/config.json", dir + "/device.json", "200"},
                                      std::chrono::seconds(300), environment.data());
  EXPECT_EQ(outcome, "");
  EXPECT_GT(agent.backend().requestCount(), 0u);
}

}  // namespace
