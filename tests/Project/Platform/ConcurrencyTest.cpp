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
std::string PlatformBrand() {
  return "Brand from the platform";
}
int PlatformPorts(std::vector<std::string>& entries) {
  entries.push_back("HDMI9");
  return 0;
}

struct Seen {
  std::atomic<bool> defaultVolume{false};
  std::atomic<bool> platformVolume{false};
  std::atomic<bool> unexpected{false};
};

void CallWrappers(const std::atomic<bool>& stop, Seen& seen) {
  while (!stop.load()) {
    const int volume = NkGetVolume();
    (volume == 15   ? seen.defaultVolume
     : volume == 99 ? seen.platformVolume
                    : seen.unexpected) = true;
    const std::string brand = NkGetBrand();
    if (brand != "Norvik" && brand != "Brand from the platform") {
      seen.unexpected = true;
    }
    std::vector<std::string> ports;
    NkGetVStrHDMIPortNameList(ports);
    if (ports != std::vector<std::string>{"HDMI1", "HDMI2"} &&
        ports != std::vector<std::string>{"HDMI9"}) {
      seen.unexpected = true;
    }
    LumKeyEventProc("HOME");
  }
}

TEST(PlatformConcurrency, RegisteringWhileAgentThreadsCallWrappers) {
  std::atomic<bool> stop{false};
  Seen seen;
  std::thread host([&stop] {
    while (!stop.load()) {
      RegGetVolume(PlatformVolume);
      RegGetBrand(PlatformBrand);
      RegGetVStrHDMIPortNameList(PlatformPorts);
      RegGetVolume(nullptr);
      RegGetBrand(nullptr);
      RegGetVStrHDMIPortNameList(nullptr);
    }
  });
  std::vector<std::thread> agents;
  for (int i = 0; i < 3; ++i) {
    agents.emplace_back(CallWrappers, std::cref(stop), std::ref(seen));
  }
  const bool sawBoth =
      LumTest::WaitFor([&seen] { return seen.defaultVolume.load() && seen.platformVolume.load(); });
  stop = true;
  host.join();
  for (std::thread& agent : agents) {
    agent.join();
  }
  EXPECT_TRUE(sawBoth);
  EXPECT_FALSE(seen.unexpected.load());
  EXPECT_EQ(NkGetVolume(), 15);
}

}  // namespace
