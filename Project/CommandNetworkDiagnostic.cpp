#include "Project/CommandNetworkDiagnostic.h"

#include <vector>

#include "Base/SpeedTestResult.h"
#include "Base/SupportViewManager.h"
#include "Platform/Network.h"
#include "Project/NorvikInterfaces.h"

namespace Lum {
namespace Sv {

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "The network: interfaces, gateway, link, Wi-Fi, DNS and ping tests, speed tests",
      {{"TESTS", InputType::Boolean, false,
        "Run the DNS look-up and the gateway and internet pings (default true)"},
       {"SPEED_TESTS", InputType::Boolean, false,
        "Run the download, upload and latency tests against the back end (default true)"}},
      {{"NETWORK_DIAGNOSTIC", "JSON",
        "INTERFACES (NAME, ADDRESS, NETMASK, BROADCAST, HW_ADDRESS, GATEWAY, SSID, RX and TX "
        "counters), DEFAULT_GATEWAY, LINK_STATUS, WIFI (SIGNAL_STRENGTH, FIRMWARE); with TESTS: "
        "TESTS (DNS_LOOKUP, GATEWAY_PING, INTERNET_PING, FINISHED_IN_TIME, RESULT); with "
        "SPEED_TESTS: SPEED (DOWNLOAD, UPLOAD, LATENCY: URL, BYTES, MILLISECONDS, "
        "BITS_PER_SECOND, OK, RESULT)"}});
  return form;
}

bool Wanted(const LumJson::Value& inputs, const char* id) {
  return !inputs.isMember(id) || inputs[id].asBool();
}

LumJson::Value Interfaces() {
  std::vector<Network::InterfaceInfo> interfaces;
  Network::GetInterfaceInfo(interfaces);
  Network::getInterfaceInfoMetrics(interfaces);
  LumJson::Value list(LumJson::arrayValue);
  for (const Network::InterfaceInfo& info : interfaces) {
    list.append(Network::InterfaceToJson(info));
  }
  return list;
}

LumJson::Value Speed(int (SupportViewManager::*test)(SpeedTestResult&), bool& ok) {
  SpeedTestResult result;
  const int code = (SupportViewManager::Instance()->*test)(result);
  ok = ok && code == 0 && result.ok;
  LumJson::Value speed(LumJson::objectValue);
  speed["URL"] = result.url;
  speed["BYTES"] = static_cast<LumJson::UInt64>(result.bytes);
  speed["MILLISECONDS"] = static_cast<LumJson::UInt64>(result.milliseconds);
  speed["BITS_PER_SECOND"] = static_cast<LumJson::UInt64>(result.bitsPerSecond);
  speed["OK"] = result.ok;
  speed["RESULT"] = code;
  return speed;
}

}  // namespace

CommandNetworkDiagnostic::CommandNetworkDiagnostic(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "NETWORK_DIAGNOSTIC") {}

int CommandNetworkDiagnostic::run(const LumJson::Value& inputs, LumJson::Value& data) {
  data["INTERFACES"] = Interfaces();
  data["DEFAULT_GATEWAY"] = Network::GetDefaultGateway();
  data["LINK_STATUS"] = NkGetNetworkLinkStatus();
  data["WIFI"]["SIGNAL_STRENGTH"] = NkGetWifiSignalStrength();
  data["WIFI"]["FIRMWARE"] = NkGetWifiFirmware();
  bool ok = true;
  if (Wanted(inputs, "TESTS")) {
    bool dns = false;
    bool gateway = false;
    bool internet = false;
    bool inTime = false;
    const int result =
        SupportViewManager::Instance()->runNetworkDiagnosticsTest(dns, gateway, internet, inTime);
    LumJson::Value& tests = data["TESTS"];
    tests["DNS_LOOKUP"] = dns;
    tests["GATEWAY_PING"] = gateway;
    tests["INTERNET_PING"] = internet;
    tests["FINISHED_IN_TIME"] = inTime;
    tests["RESULT"] = result;
    ok = result == 0 && dns && gateway && internet && inTime;
  }
  if (Wanted(inputs, "SPEED_TESTS")) {
    LumJson::Value& speed = data["SPEED"];
    speed["DOWNLOAD"] = Speed(&SupportViewManager::runDownloadSpeedTest, ok);
    speed["UPLOAD"] = Speed(&SupportViewManager::runUploadSpeedTest, ok);
    speed["LATENCY"] = Speed(&SupportViewManager::runLatencyTest, ok);
  }
  return ok ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
