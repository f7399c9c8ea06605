#include "agent/AgentHarness.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "Base/PersistentValues.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"

namespace LumTest {

using Lum::Core::JsonUtil;
using Lum::Tools::Backend;
using Lum::Tools::TestPki;

const std::string AgentHarness::kOpid = "acme";

const TestPki& AgentHarness::Pki() {
  static TestPki pki;
  static const bool generated = pki.generate();
  if (!generated) {
    throw std::runtime_error("test PKI generation failed");
  }
  return pki;
}

AgentHarness::AgentHarness() {
  backend_.reset(new Backend(Pki()));
  std::string error;
  if (!backend_->start(&error)) {
    throw std::runtime_error("back end did not start: " + error);
  }
  if (!Pki().issueDevice(TestPki::DeviceCommonName(kOpid, backend_->port()), &device_)) {
    throw std::runtime_error("device issuance failed");
  }
}

AgentHarness::~AgentHarness() {
  // A test that failed half-way must not leave the agent running into the
  // next one.
  if (state() != LumDeviceAgentUninitialized) {
    stop();
  }
  backend_->stop();
}

std::string AgentHarness::identityText() const {
  return device_.identityJson(true);
}

std::string AgentHarness::configText(const LumJson::Value& coreExtra,
                                     const LumJson::Value& dataServices) const {
  LumJson::Value filters(LumJson::arrayValue);
  for (const char* service : {"core", "ds", "sv", "su", "drmp"}) {
    for (const char* category : {"state", "flow", "clibapi", "webservice", "supervisor"}) {
      LumJson::Value filter(LumJson::objectValue);
      filter["service"] = service;
      filter["category"] = category;
      filter["severity"] = std::string(category) == "flow" ? "info" : "trace";
      filters.append(filter);
    }
  }
  LumJson::Value logger(LumJson::objectValue);
  logger["type"] = "file";
  logger["argument"] = logPath();
  logger["format"] = "short";
  logger["filters"] = filters;
  LumJson::Value core(LumJson::objectValue);
  core["persistentPath"] = persistentPath();
  core["loggers"].append(logger);
  if (coreExtra.isObject()) {
    for (const std::string& name : coreExtra.getMemberNames()) {
      core[name] = coreExtra[name];
    }
  }
  LumJson::Value config(LumJson::objectValue);
  config["core"] = core;
  if (dataServices.isObject()) {
    config["dataServices"] = dataServices;
  }
  for (const std::string& name : sections_.getMemberNames()) {
    config[name] = sections_[name];
  }
  return JsonUtil::WriteCompact(config);
}

std::string AgentHarness::deviceText() const {
  LumJson::Value device(LumJson::objectValue);
  device["id"] = "SN-0001";
  device["model"] = "LT-55";
  device["subModel"] = "LT-55-EU";
  device["brand"] = "Acme";
  device["esn"] = "ESN-0001";
  device["mac"] = "00:11:22:33:44:55";
  device["swVersion"] = "1.0.0";
  return JsonUtil::WriteCompact(device);
}

unsigned AgentHarness::init(const LumJson::Value& coreExtra, const LumJson::Value& dataServices) {
  return LumInit(identityText().c_str(), configText(coreExtra, dataServices).c_str(),
                 deviceText().c_str());
}

bool AgentHarness::stop(bool factoryReset) {
  if (factoryReset) {
    LumFactoryReset();
  } else {
    LumTerm();
  }
  return waitForState(LumDeviceAgentUninitialized, std::chrono::seconds(20));
}

unsigned AgentHarness::state() const {
  LumStatus status{};
  LumGetStatus(LumStatusMethodImmediate, &status);
  const unsigned state = status.deviceAgentState;
  LumFreeStatus(&status);
  return state;
}

bool AgentHarness::waitForState(unsigned wanted, std::chrono::milliseconds timeout) const {
  return WaitFor([&] { return state() == wanted; }, timeout);
}

std::vector<std::string> AgentHarness::calls() const {
  std::vector<std::string> paths;
  const std::string prefix = "/api/v1/";
  for (const auto& request : backend_->requests()) {
    paths.push_back(request.path.compare(0, prefix.size(), prefix) == 0
                        ? request.path.substr(prefix.size())
                        : request.path);
  }
  return paths;
}

bool AgentHarness::logContains(const std::string& text) const {
  return log().find(text) != std::string::npos;
}

bool AgentHarness::waitForLog(const std::string& text, std::chrono::milliseconds timeout) const {
  return WaitFor([&] { return logContains(text); }, timeout);
}

void AgentHarness::seedPersistedValues(const LumJson::Value& members) const {
  Lum::Core::PersistentValues defaults;
  std::string text;
  defaults.marshal(text);
  LumJson::Value document;
  JsonUtil::ParseStrict(text, document);
  for (const std::string& name : members.getMemberNames()) {
    document[name] = members[name];
  }
  Lum::Core::FileUtil::Store(persistentPath(), "core", JsonUtil::WriteCompact(document));
}

LumJson::Value QuickTunables(unsigned pollMs, unsigned retryMs) {
  LumJson::Value tunables(LumJson::objectValue);
  tunables["daPollDelayFixedMs"] = pollMs;
  tunables["daPollDelayVariedMs"] = 0;
  tunables["daRetryDelayFixedMs"] = retryMs;
  tunables["daRetryDelayVariedMs"] = 0;
  tunables["daMessageTimeoutMs"] = 5000;
  tunables["daConnectTimeoutMs"] = 5000;
  return tunables;
}

}  // namespace LumTest
