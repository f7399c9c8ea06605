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

// This process's environment with `option` added to the sanitizer options
// variable `name`.
std::vector<std::string> EnvironmentWith(const std::string& name, const std::string& option) {
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::string(*variable).compare(0, name.size() + 1, name + "=") != 0) {
      variables.push_back(*variable);
    }
  }
  const char* options = getenv(name.c_str());
  variables.push_back(name + "=" + (options != nullptr ? options : "") + ":" + option);
  return variables;
}

// How a run of a host program ended, in words, or "" when it exited with 0.
std::string RunHost(const std::vector<std::string>& arguments, std::chrono::seconds limit,
                    std::vector<std::string> environment) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& variable : environment) {
    envp.push_back(&variable[0]);
  }
  envp.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), envp.data()) != 0) {
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

  // The host leaves its status thread running when it exits, on purpose.
  const std::vector<std::string> environment =
      EnvironmentWith("TSAN_OPTIONS", "report_thread_leaks=0");
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
      const std::string outcome = RunHost(arguments, std::chrono::seconds(60), environment);
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
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer cannot unload libcurl and OpenSSL, whose reports it suppresses";
#endif
  AgentHarness agent;
  agent.backend().pushTunables(LumTest::QuickTunables(100, 100));
  // Every load leaves the library's never-destroyed objects behind, which
  // the leak checker would count once the library is gone.
  const std::string outcome =
      RunHost({LUM_UNLOAD_HOST, LUM_LIBRARY, agent.identityText(), agent.configText(),
               agent.deviceText(), "200"},
              std::chrono::seconds(300), EnvironmentWith("ASAN_OPTIONS", "detect_leaks=0"));
  EXPECT_EQ(outcome, "");
  EXPECT_GT(agent.backend().requestCount(), 0u);
}

}  // namespace
