#pragma once

#include <lum.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "Platform/LumJson.h"
#include "agent/AgentHarness.h"

namespace LumTest {

// The update fields of the status record at one moment.
struct UpdateStatus {
  unsigned state = 0;
  unsigned source = 0;
  unsigned permission = 0;
  unsigned percent = 0;
  std::string version;
  std::string hash;
  std::string stagingFile;
};
UpdateStatus ReadUpdateStatus();
bool WaitForUpdateState(unsigned state,
                        std::chrono::milliseconds timeout = std::chrono::seconds(20));

// Follows the status record on a thread of its own for as long as it lives,
// noting every update state it saw.
class StatusWatcher {
 public:
  StatusWatcher();
  ~StatusWatcher();
  bool sawState(unsigned state) const { return (seen_.load() & (1u << state)) != 0; }

 private:
  std::atomic<unsigned> seen_{0};
  std::mutex mutex_;
  std::condition_variable cv_;
  bool stop_ = false;
  std::thread thread_;
};

// Short update schedules, so that retries follow within milliseconds.
LumJson::Value UpdateTunables(unsigned stagingRetries = 2, unsigned stagingRetryDelayMs = 20);
std::string RandomBytes(size_t n);
std::string Sha256Hex(const std::string& bytes);
// The "verifiedBytes" of the stored update state; -1 without a state file.
long long StoredVerifiedBytes(const std::string& persistentPath);

}  // namespace LumTest
