// The host may register callbacks on its own threads while agent threads call
// the wrappers; each call sees either the old or the new callback, whole.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Project/NorvikInterfaces.h"
#include "support/TestSupport.h"

namespace {

using namespace Lum::Sv;

int PlatformVolume() {
  return 99;
}

TEST(PlatformConcurrency, RegisteringWhileAgentThreadsCallWrappers) {
  std::atomic<bool> stop{false};
  std::atomic<bool> sawDefault{false}, sawPlatform{false}, sawOther{false};
  std::thread host([&stop] {
    while (!stop.load()) {
      RegGetVolume(PlatformVolume);
      RegGetVolume(nullptr);
    }
  });
  std::vector<std::thread> agents;
  for (int i = 0; i < 3; ++i) {
    agents.emplace_back([&] {
      while (!stop.load()) {
        const int volume = NkGetVolume();
        (volume == 15 ? sawDefault : volume == 99 ? sawPlatform : sawOther) = true;
        LumKeyEventProc("HOME");  // the first caller fills the key map
      }
    });
  }
  const bool sawBoth = LumTest::WaitFor([&] { return sawDefault.load() && sawPlatform.load(); });
  stop = true;
  host.join();
  for (std::thread& agent : agents) {
    agent.join();
  }
  EXPECT_TRUE(sawBoth);
  EXPECT_FALSE(sawOther.load());
  EXPECT_EQ(NkGetVolume(), 15);
}

}  // namespace
