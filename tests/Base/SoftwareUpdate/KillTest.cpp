// The agent killed at random moments while it downloads: whatever it had
// verified before a kill stays verified, it never claims a download it has
// not verified, and it ends with the published bytes.
#include <gtest/gtest.h>
#include <lum.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>

#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "UpdateHarness.h"

namespace {

using Lum::Core::JsonUtil;
using LumTest::AgentHarness;
using LumTest::ReadFile;
using LumTest::WriteFile;

constexpr int kKills = 200;

class Child {
 public:
  explicit Child(const std::vector<std::string>& args) {
    pid_ = fork();
    if (pid_ == 0) {
      std::vector<char*> argv;
      for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
      }
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    fd_ = pid_ > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)) : -1;
  }
  ~Child() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      reap();
    }
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  bool started() const { return pid_ > 0 && fd_ >= 0; }
  // Waits until the child ends by itself or `ms` pass; true when it ended.
  bool waitForExit(int ms) {
    pollfd entry{fd_, POLLIN, 0};
    return poll(&entry, 1, ms) == 1;
  }
  int killAndReap() {
    kill(pid_, SIGKILL);
    return reap();
  }
  int reap() {
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
    return status;
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  bool reaped_ = false;
};

TEST(SoftwareUpdateKill, KilledAtRandomTheDownloadOnlyMovesForwardAndEndsVerified) {
  AgentHarness agent;
  Lum::Tools::UpdateOffer offer;
  offer.payload = LumTest::RandomBytes(64 * 1024);
  offer.blockSize = 64;
  Lum::Tools::UpdateFaults faults;
  faults.blockDelay = std::chrono::milliseconds(1);
  agent.backend().updates().publishUpdate(offer);
  agent.backend().updates().setFaults(faults);
  agent.seedPersistedValues(LumTest::UpdateTunables(3, 20));
  agent.backend().pushTunables(LumTest::UpdateTunables(3, 20));

  const std::string dir = agent.persistentPath();
  const std::string staging = dir + "/staging.raw";
  LumJson::Value config(LumJson::objectValue);
  config["core"]["persistentPath"] = dir;
  config["softwareUpdate"]["stagingLocation"] = staging;
  WriteFile(dir + "/identity.json", agent.identityText());
  WriteFile(dir + "/config.json", Lum::Core::JsonUtil::WriteCompact(config));
  WriteFile(dir + "/device.json", agent.deviceText());
  const std::string result = dir + "/result";
  auto args = [&] {
    return std::vector<std::string>{SU_KILL_CHILD,
                                    dir + "/identity.json",
                                    dir + "/config.json",
                                    dir + "/device.json",
                                    staging,
                                    LumTest::Sha256Hex(offer.payload),
                                    result};
  };
  // The stored progress of the update published now; -1 when the stored
  // state is of an earlier one, or there is none.
  auto stored = [&]() -> long long {
    const std::string text = Lum::Core::FileUtil::Load(dir + "/", "suState", 4 * 1024 * 1024);
    LumJson::Value state;
    LumJson::Value envelope;
    LumJson::Value document;
    if (!JsonUtil::ParseObject(text, state) ||
        !JsonUtil::ParseObject(JsonUtil::ReadText(state, "envelope", ""), envelope) ||
        !JsonUtil::ParseObject(JsonUtil::ReadText(envelope, "document", ""), document) ||
        JsonUtil::ReadText(document, "version", "") != offer.version) {
      return -1;
    }
    return static_cast<long long>(state["verifiedBytes"].asUInt64());
  };

  // How long a resumed start takes to verify its next block here (sanitizer
  // builds are several times slower): the kills land from well before that
  // to half as long again after.
  const auto began = std::chrono::steady_clock::now();
  long long persisted = -1;
  int firstBlockMs = 0;
  for (int run = 0; run < 2; ++run) {
    const auto launched = std::chrono::steady_clock::now();
    Child calibration(args());
    ASSERT_TRUE(calibration.started());
    ASSERT_TRUE(LumTest::WaitFor([&] { return stored() > persisted; }, std::chrono::seconds(60)));
    firstBlockMs = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - launched)
                                        .count());
    calibration.killAndReap();
    persisted = stored();
  }
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> moment(std::max(1, firstBlockMs / 8),
                                            firstBlockMs * 3 / 2 + 5);
  int kills = 0;
  int finished = 0;
  int progressed = 0;
  int round = 0;
  while (kills < kKills) {
    Child child(args());
    ASSERT_TRUE(child.started());
    if (child.waitForExit(moment(random))) {
      const int status = child.reap();
      ASSERT_TRUE(WIFEXITED(status)) << status;
      ASSERT_EQ(ReadFile(result), "OK");
      ASSERT_EQ(ReadFile(staging), offer.payload);
      ++finished;
      // Downloaded: the back end offers the next update, which starts over.
      offer.version = "2.0." + std::to_string(++round);
      offer.payload = LumTest::RandomBytes(offer.payload.size());
      agent.backend().updates().publishUpdate(offer);
      persisted = -1;
      continue;
    }
    child.killAndReap();
    ++kills;
    const long long now = stored();
    ASSERT_GE(now, persisted) << "after kill " << kills;
    progressed += now > persisted ? 1 : 0;
    persisted = now;
    // What is claimed verified is on the disk as published.
    const size_t claimed = static_cast<size_t>(std::max(now, 0LL));
    const std::string onDisk = ReadFile(staging);
    ASSERT_GE(onDisk.size(), claimed);
    ASSERT_EQ(onDisk.substr(0, claimed), offer.payload.substr(0, claimed));
  }
  // The last run is left to finish.
  Child last(args());
  ASSERT_TRUE(last.started());
  ASSERT_TRUE(last.waitForExit(60000));
  ASSERT_TRUE(WIFEXITED(last.reap()));
  EXPECT_EQ(ReadFile(result), "OK");
  EXPECT_EQ(ReadFile(staging), offer.payload);
  EXPECT_GT(progressed, 1);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  std::printf(
      "first block after %d ms; %d kills, %d runs progressed, %d finished before their kill, "
      "%d updates done, %lld of %zu bytes verified before the last run, %.1f s\n",
      firstBlockMs, kills, progressed, finished, round, persisted, offer.payload.size(), seconds);
}

}  // namespace
