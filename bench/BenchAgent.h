#pragma once

// The agent started through its C interface against a local back end, for
// the benchmarks; and a count of the agent's own threads' wake-ups.
#include <dirent.h>
#include <lum.h>
#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "Platform/JsonUtil.h"
#include "support/TestSupport.h"
#include "tools/backend/Backend.h"
#include "tools/pki/TestPki.h"

namespace LumBench {

using Lum::Core::JsonUtil;
using Lum::Tools::Backend;
using Lum::Tools::TestPki;

using Lum::Core::JsonUtil;
using Lum::Tools::Backend;
using Lum::Tools::TestPki;

// One back end and device for the whole run; logging off, as in the field.
class BenchAgent {
 public:
  BenchAgent() {
    pki_.generate();
    backend_.reset(new Backend(pki_));
    backend_->start();
    LumJson::Value tunables(LumJson::objectValue);
    // Every schedule an hour away; the device-information collector runs
    // (its ids are allowed) and its items wait in the queue.
    for (const char* name :
         {"daPollDelayFixedMs", "dsStandardDelayFixedMs", "dsStartupDelayFixedMs",
          "dsAggressiveDelayFixedMs", "dsRetryDelayFixedMs"}) {
      tunables[name] = 3600000;
    }
    tunables["daPollDelayVariedMs"] = 0;
    backend_->pushTunables(tunables);
    backend_->setAllowedDataItemIds({"DeviceInfoEsn", "DeviceInfoMac"});
    pki_.issueDevice(TestPki::DeviceCommonName("bench", backend_->port()), &device_);
    identity_ = device_.identityJson(true);
    LumJson::Value config;
    config["core"]["persistentPath"] = dir_.path();
    config_ = JsonUtil::WriteCompact(config);
    device_text_ = R"({"id":"BENCH-1","model":"M","subModel":"S","brand":"B","swVersion":"1"})";
  }
  // Threads whose names exceed the kernel's 15 characters (CollectorControl,
  // DeviceInfoControl) keep the name they inherit; started under this name
  // they are still told apart from the back end's threads.
  unsigned init() {
    pthread_setname_np(pthread_self(), kInheritedName);
    const unsigned result = LumInit(identity_.c_str(), config_.c_str(), device_text_.c_str());
    pthread_setname_np(pthread_self(), "bench_agent");
    return result;
  }
  static constexpr const char* kInheritedName = "lum-inherited";
  static unsigned state() {
    LumStatus status{};
    LumGetStatus(LumStatusMethodImmediate, &status);
    LumFreeStatus(&status);
    return status.deviceAgentState;
  }
  static void stop() {
    LumTerm();
    LumTest::WaitFor([] { return state() == LumDeviceAgentUninitialized; });
  }
  Backend& backend() { return *backend_; }

 private:
  TestPki pki_;
  LumTest::TempDir dir_;
  std::unique_ptr<Backend> backend_;
  Lum::Tools::DeviceIdentity device_;
  std::string identity_, config_, device_text_;
};

inline BenchAgent& Agent() {
  static BenchAgent agent;
  return agent;
}

inline long ThreadCpuNanos() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return now.tv_sec * 1000000000L + now.tv_nsec;
}

inline bool IsAgentThread(const std::string& task, std::string* threadName = nullptr) {
  std::ifstream comm("/proc/self/task/" + task + "/comm");
  std::string name;
  std::getline(comm, name);
  if (threadName != nullptr) {
    *threadName = name;
  }
  return name == BenchAgent::kInheritedName || name == "StateControl" || name == "EventControl" ||
         name == "TerminateThread" || name == "UploadControl" || name == "UpdateControl" ||
         name == "CollectorCtrl" || name == "DeviceInfoCtrl" || name == "ExecuteTask" ||
         name == "SessionControl" || name == "GetTaskControl" || name == "PutTaskControl";
}

// Context switches of the agent's own threads (the back end's threads share
// this process but are not the agent's).
// With `perThread`, also the count of each thread by name.
inline long long AgentContextSwitches(int* threads = nullptr,
                                      std::map<std::string, long long>* perThread = nullptr) {
  long long total = 0;
  DIR* dir = opendir("/proc/self/task");
  while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    std::string name;
    if (entry->d_name[0] == '.' || !IsAgentThread(entry->d_name, &name)) {
      continue;
    }
    if (threads != nullptr) {
      ++*threads;
    }
    std::ifstream status(std::string("/proc/self/task/") + entry->d_name + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
          line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
        const long long count = std::atoll(line.substr(line.find(':') + 1).c_str());
        total += count;
        if (perThread != nullptr) {
          (*perThread)[name] += count;
        }
      }
    }
  }
  if (dir != nullptr) {
    closedir(dir);
  }
  return total;
}

}  // namespace LumBench
