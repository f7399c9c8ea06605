// Events pushed by the back end are carried out in order, one at a time,
// and those still queued at termination are dropped with a line each.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>

#include "Base/CoreManager.h"
#include "Base/EventManager.h"
#include "Platform/LockMutex.h"
#include "agent/AgentHarness.h"
#include "support/LogCapture.h"

namespace {

using Lum::Core::CoreManager;
using Lum::Core::EventManager;
using LumTest::AgentHarness;
using LumTest::QuickTunables;
using LumTest::ReadFile;
using LumTest::WaitFor;
using std::chrono::seconds;

// Holds the event thread inside an action until the test lets it go.
class Gate {
 public:
  bool enter() {
    std::unique_lock<std::mutex> lock(mutex_);
    entered_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    return true;
  }
  bool waitEntered() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, seconds(10), [this] { return entered_; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool entered_ = false;
  bool open_ = false;
};

void SetSessionStarter(EventManager::Handler handler) {
  Lum::Core::LockMutex lock(&CoreManager::Instance()->getMutex());
  EventManager::Instance()->setSessionStarter(std::move(handler));
}

TEST(Events, PushedEventsRunInOrderAndUnwiredSessionsAreSuppressed) {
  AgentHarness agent;
  agent.backend().pushTunables(QuickTunables(60000));
  agent.backend().queueEvent("firstevent", 11, "a");
  agent.backend().queueEvent("startsvsession", 12, "");
  agent.backend().queueEvent("secondevent", 13, "b");
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(agent.waitForLog("Ignoring event=secondevent, id=13, parameters=b", seconds(10)));
  EXPECT_TRUE(agent.stop());
  const std::string log = agent.log();
  const size_t first = log.find("Ignoring event=firstevent, id=11, parameters=a");
  const size_t session = log.find("Suppressing event=startsvsession, id=12, parameters=");
  const size_t second = log.find("Ignoring event=secondevent, id=13, parameters=b");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(session, std::string::npos);
  EXPECT_LT(first, session);
  EXPECT_LT(session, second);
  EXPECT_NE(log.find("Queueing event=firstevent, id=11, parameters=a"), std::string::npos);
}

TEST(Events, EventsLeftAtTerminationAreAbortedNotRun) {
  AgentHarness agent;
  Gate gate;
  agent.backend().pushTunables(QuickTunables(60000));
  agent.backend().queueEvent("startsvsession", 1, "");
  agent.backend().queueEvent("laterevent", 2, "x");
  agent.backend().queueEvent("lastevent", 3, "y");
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  // After the start, which wires the support view's own starter; the events
  // come with the answer to the second call.
  SetSessionStarter([&](uint32_t, const std::string&) { return gate.enter(); });
  ASSERT_TRUE(gate.waitEntered());
  ASSERT_TRUE(agent.waitForLog("Queueing event=lastevent", seconds(10)));
  LumTerm();
  gate.open();
  ASSERT_TRUE(agent.waitForState(LumDeviceAgentUninitialized, seconds(10)));
  SetSessionStarter(nullptr);
  const std::string log = agent.log();
  EXPECT_NE(log.find("Aborting event=laterevent, id=2, parameters=x"), std::string::npos);
  EXPECT_NE(log.find("Aborting event=lastevent, id=3, parameters=y"), std::string::npos);
  EXPECT_EQ(log.find("Ignoring event=laterevent"), std::string::npos);
}

// The state letter and parent of a process, from /proc/<pid>/stat; state 0
// when the process is gone.
struct ProcessState {
  char state = 0;
  pid_t parent = 0;
};

ProcessState StateOf(const std::string& pid) {
  const std::string stat = ReadFile("/proc/" + pid + "/stat");
  const size_t name = stat.rfind(')');  // the name itself may hold ')'
  ProcessState result;
  if (name != std::string::npos && name + 4 < stat.size()) {
    result.state = stat[name + 2];
    result.parent = static_cast<pid_t>(std::atol(stat.c_str() + name + 4));
  }
  return result;
}

bool HasZombieChild() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string pid = entry.path().filename().string();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    const ProcessState process = StateOf(pid);
    if (process.parent == getpid() && process.state == 'Z') return true;
  }
  return false;
}

// A stand-in browser found first on PATH, which records its arguments.
class FakeBrowser {
 public:
  FakeBrowser() : path_(getenv("PATH") != nullptr ? getenv("PATH") : "") {
    const std::string script = dir_.file("chromium-browser");
    LumTest::WriteFile(script, "#!/bin/sh\ncd '" + dir_.path() +
                                   "' || exit 1\n"
                                   "printf '%s\\n' \"$#\" \"$@\" > args.tmp\n"
                                   "mv args.tmp args\n");
    chmod(script.c_str(), 0700);
    setenv("PATH", (dir_.path() + ":" + path_).c_str(), 1);
  }
  ~FakeBrowser() { setenv("PATH", path_.c_str(), 1); }
  std::string file(const char* name) const { return ReadFile(dir_.file(name)); }

 private:
  LumTest::TempDir dir_;
  std::string path_;
};

// The browser gets the URL as its one argument, and neither it nor the
// process that launched it is left as a zombie of the host. Anything but an
// https URL, which could pass for an option, starts nothing.
TEST(Events, ConsentPageOpensOnlyHttpsUrlsAndLeavesNoZombie) {
  FakeBrowser browser;
  LumTest::LogCapture log("info");
  for (const char* url : {"-\u2013no-sandbox", "--flag", "http://x", "https://a b", ""}) {
    EXPECT_EQ(EventManager::PerformConsentNotification(url), -1) << url;
  }
  EXPECT_TRUE(log.logged("Not executing chromium-browser --flag, not an https URL")) << log.text();

  const std::string url = "https://consent.example/page?a=1&b=$HOME;c='d'";
  const pid_t pid = EventManager::PerformConsentNotification(url);
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitFor([&] { return !browser.file("args").empty(); })) << log.text();
  EXPECT_EQ(browser.file("args"), "1\n" + url + "\n");
  EXPECT_TRUE(WaitFor([] { return !HasZombieChild(); }));
  EXPECT_TRUE(log.logged("Executing chromium-browser " + url)) << log.text();
}

}  // namespace
