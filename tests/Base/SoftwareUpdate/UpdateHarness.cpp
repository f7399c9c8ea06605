#include "UpdateHarness.h"

#include <openssl/rand.h>
#include <openssl/sha.h>

#include <cstdio>

#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "tools/backend/UploadLedger.h"

namespace LumTest {

UpdateStatus ReadUpdateStatus() {
  LumStatus status{};
  LumGetStatus(LumStatusMethodImmediate, &status);
  UpdateStatus update;
  update.state = status.updateState;
  update.source = status.updateSource;
  update.permission = status.updatePermission;
  update.percent = status.updatePercentDownloaded;
  update.version = status.updateVersion != nullptr ? status.updateVersion : "";
  update.hash = status.updateHash != nullptr ? status.updateHash : "";
  update.stagingFile = status.updateStagingFile != nullptr ? status.updateStagingFile : "";
  LumFreeStatus(&status);
  return update;
}

bool WaitForUpdateState(unsigned state, std::chrono::milliseconds timeout) {
  return WaitFor([&] { return ReadUpdateStatus().state == state; }, timeout);
}

StatusWatcher::StatusWatcher()
    : thread_([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
          lock.unlock();
          seen_ |= 1u << (ReadUpdateStatus().state & 31u);
          lock.lock();
          cv_.wait_for(lock, std::chrono::milliseconds(1), [this] { return stop_; });
        }
      }) {}

StatusWatcher::~StatusWatcher() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  cv_.notify_all();
  thread_.join();
}

LumJson::Value UpdateTunables(unsigned stagingRetries, unsigned stagingRetryDelayMs) {
  LumJson::Value tunables = QuickTunables(60000);
  tunables["suMaxRetryCount"] = 2;
  tunables["suRetryDelayFixedMs"] = 20;
  tunables["suRetryDelayVariedMs"] = 0;
  tunables["suConnectTimeoutMs"] = 5000;
  tunables["suMessageTimeoutMs"] = 5000;
  tunables["suStagingMaxRetryCount"] = stagingRetries;
  tunables["suStagingRetryDelayFixedMs"] = stagingRetryDelayMs;
  tunables["suStagingRetryDelayVariedMs"] = 0;
  tunables["suStagingConnectTimeoutMs"] = 5000;
  tunables["suStagingMessageTimeoutMs"] = 5000;
  return tunables;
}

std::string RandomBytes(size_t n) {
  std::string bytes(n, '\0');
  RAND_bytes(reinterpret_cast<unsigned char*>(&bytes[0]), static_cast<int>(n));
  return bytes;
}

std::string Sha256Hex(const std::string& bytes) {
  return Lum::Tools::UploadLedger::Sha256Hex(bytes);
}

long long StoredVerifiedBytes(const std::string& persistentPath) {
  const std::string text =
      Lum::Core::FileUtil::Load(persistentPath + "/", "suState", 4 * 1024 * 1024);
  LumJson::Value stored;
  if (text.empty() || !Lum::Core::JsonUtil::ParseObject(text, stored) ||
      !stored["verifiedBytes"].isUInt64()) {
    return -1;
  }
  return static_cast<long long>(stored["verifiedBytes"].asUInt64());
}

}  // namespace LumTest
