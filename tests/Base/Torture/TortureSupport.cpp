#include "TortureSupport.h"

#include <cstdlib>

#include "Platform/JsonUtil.h"

namespace LumTest {

unsigned TortureScale() {
  const char* text = std::getenv("LUM_TORTURE_SCALE");
  const long scale = text != nullptr ? std::strtol(text, nullptr, 10) : 1;
  return scale > 0 ? static_cast<unsigned>(scale) : 1;
}

LumJson::Value TortureTunables(unsigned messageMs) {
  LumJson::Value tunables = QuickTunables(300, 300);
  for (const char* prefix : {"da", "ds", "sv"}) {
    tunables[std::string(prefix) + "ConnectTimeoutMs"] = 1000;
    tunables[std::string(prefix) + "MessageTimeoutMs"] = messageMs;
  }
  for (const char* name :
       {"dsStandardDelay", "dsStartupDelay", "dsAggressiveDelay", "dsRetryDelay", "svRetryDelay"}) {
    tunables[std::string(name) + "FixedMs"] = 300;
    tunables[std::string(name) + "VariedMs"] = 0;
  }
  tunables["svActiveTimeoutMs"] = 600000;
  return tunables;
}

bool StartTortured(AgentHarness& agent, unsigned messageMs) {
  const LumJson::Value tunables = TortureTunables(messageMs);
  agent.seedPersistedValues(tunables);
  agent.backend().pushTunables(tunables);
  agent.backend().setAllowedDataItemIds({"Probe"});
  // Held polls end well inside the message time-out.
  agent.backend().setLongPollHold(std::chrono::milliseconds(300));
  LumJson::Value section(LumJson::objectValue);
  section["allowRemoteSession"] = true;
  agent.setConfigSection("supportView", section);
  LumJson::Value dataServices(LumJson::objectValue);
  dataServices["maximumDataBytes"] = 65536;
  if (agent.init(LumJson::Value(), dataServices) != LUM_RESULT_SUCCESS) {
    return false;
  }
  return WaitFor(
      [] {
        LumStatus status = Status();
        const bool allowed =
            status.allowedDataItemIds != nullptr && status.allowedDataItemIds[0] != 0;
        LumFreeStatus(&status);
        return allowed;
      },
      std::chrono::seconds(20));
}

std::string ProbeItem(const std::string& uid) {
  return "{\"id\":\"Probe\",\"parameters\":{\"uid\":\"" + uid + "\"}}";
}

std::vector<std::string> ReceivedUids(AgentHarness& agent) {
  std::vector<std::string> uids;
  for (const LumJson::Value& item : agent.backend().dataItems()) {
    uids.push_back(item["parameters"]["uid"].asString());
  }
  return uids;
}

LumStatus Status() {
  LumStatus status{};
  LumGetStatus(LumStatusMethodImmediate, &status);
  return status;
}

}  // namespace LumTest
