#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "Platform/FileUtil.h"
#include "gtest/gtest.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::FileUtil;

constexpr int kKills = 220;
constexpr uint64_t kNotOurs = UINT64_MAX;

// 24 to 87 KiB, with a length and a pattern of its own for every sequence
// number, so that any mix of two versions or any cut is detected.
std::string Content(uint64_t seq) {
  std::string text = "seq=" + std::to_string(seq) + "\n";
  const size_t size = 24 * 1024 + (seq * 7919 % 64) * 1024;
  uint32_t x = static_cast<uint32_t>(seq * 2654435761u + 1);
  while (text.size() < size) {
    x = x * 1103515245u + 12345u;
    text += static_cast<char>('a' + (x >> 16) % 26);
  }
  return text;
}

// A process killed with SIGKILL leaves the page cache intact, so what this test
// checks, the order of the steps, does not depend on syncs reaching a disk. On
// tmpfs they cost nothing, which keeps hundreds of kills within seconds.
class ScratchDir {
 public:
  ScratchDir() {
    if (mkdtemp(path_.data()) == nullptr) path_ = fallback_.emplace().path();
  }
  ~ScratchDir() {
    if (!fallback_) std::filesystem::remove_all(path_);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_ = "/dev/shm/lumcrash.XXXXXX";
  std::optional<LumTest::TempDir> fallback_;
};

uint64_t SequenceOf(const std::string& text) {
  if (text.compare(0, 4, "seq=") != 0) return kNotOurs;
  const uint64_t seq = std::stoull(text.substr(4, text.find('\n') - 4));
  return text == Content(seq) ? seq : kNotOurs;
}

// The child stores ever newer contents and reports each completed Store.
[[noreturn]] void Writer(const std::string& dir, uint64_t seq, int report) {
  for (;; ++seq) {
    if (!FileUtil::Store(dir, "state", Content(seq))) _exit(2);
    if (write(report, &seq, sizeof seq) != sizeof seq) _exit(3);
  }
}

// Takes every reported sequence number already in the pipe; with
// `waitForOne`, first waits (up to 10 s) for at least one.
bool ReadReports(int fd, uint64_t* last, bool waitForOne) {
  bool got = false;
  uint64_t seq;
  struct pollfd p = {fd, POLLIN, 0};
  while (poll(&p, 1, waitForOne && !got ? 10000 : 0) == 1 && read(fd, &seq, sizeof seq) == 8) {
    *last = seq;
    got = true;
  }
  return got;
}

// SIGKILL at random moments while Stores run: every Load afterwards returns
// exactly the last completed content or the one being stored, never a torn
// or mixed one.
TEST(FileUtilCrash, KilledWriterLeavesOldOrNewContent) {
  ScratchDir dir;
  ASSERT_TRUE(FileUtil::Store(dir.path(), "state", Content(0)));
  auto start = std::chrono::steady_clock::now();
  for (uint64_t seq = 1; seq <= 10; ++seq)
    ASSERT_TRUE(FileUtil::Store(dir.path(), "state", Content(seq)));
  const auto storeTime = (std::chrono::steady_clock::now() - start) / 10;
  // Kill anywhere within about three Stores of the first report.
  std::uniform_int_distribution<int64_t> delayUs(
      0, 3 * std::chrono::duration_cast<std::chrono::microseconds>(storeTime).count() + 100);
  std::mt19937_64 random(std::random_device{}());

  uint64_t done = 10;
  int interrupted = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(fds[0]);
      Writer(dir.path(), done + 1, fds[1]);
    }
    close(fds[1]);
    uint64_t last = done;
    ASSERT_TRUE(ReadReports(fds[0], &last, true)) << "writer never completed a Store";
    // The random moment of the crash, not a wait for a condition.
    std::this_thread::sleep_for(std::chrono::microseconds(delayUs(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "writer failed with " << WEXITSTATUS(status);
    ReadReports(fds[0], &last, false);
    close(fds[0]);

    interrupted += std::filesystem::exists(dir.path() + "/state.tmp") ? 1 : 0;
    const uint64_t loaded = SequenceOf(FileUtil::Load(dir.path(), "state"));
    ASSERT_TRUE(loaded == last || loaded == last + 1)
        << "kill " << kill << ": loaded " << loaded << " after completed " << last;
    done = last + 1;  // the next writer never repeats a content that may be on disk
  }
  EXPECT_GT(interrupted, 0) << "no kill landed inside a Store";
  RecordProperty("interruptedStores", interrupted);
}

}  // namespace
