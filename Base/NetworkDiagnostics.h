#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "Base/SpeedTestResult.h"

namespace Lum {
namespace Sv {

// The support view's network tests: reachability (name lookup, gateway and
// internet pings) and the speed tests against the back end. They run on a
// task thread without the core mutex; SupportViewManager reads what they
// need under it and hands it over here, one test at a time.
class NetworkDiagnostics {
 public:
  enum Result {
    Done = 0,           // the test ran; its outcome is in the out-arguments
    NotRunning = 1,     // the agent is not running
    OutOfTime = 2,      // the budget ran out before every stage had run
    NoUsableUrl = 3,    // speed tests: the URL is missing or not https
    TransferFailed = 4  // speed tests: no 2xx answer within the time
  };

  // One speed-test transfer, with copies of the device's credentials: the
  // transfer outlives the core mutex, and the identity may go away with a
  // shutdown meanwhile.
  struct Transfer {
    std::string url;
    uint32_t size = 0;    // bytes expected (download) or sent (upload)
    uint32_t timeMs = 0;  // the whole transfer
    uint32_t connectTimeoutMs = 0;
    std::string clientCertificate;
    std::string clientKey;
    std::string clientKeyPassword;
    std::string caCertificates;
    const std::atomic<bool>* cancel = nullptr;  // the agent's shutdown
  };

  // The three reachability stages within `budgetSeconds`: Done when all ran
  // (each ok flag saying whether it passed), OutOfTime otherwise.
  static int RunReachability(const std::string& hostname, int budgetSeconds, bool& dnsLookupOk,
                             bool& gatewayPingOk, bool& internetPingOk, bool& finishedInTime);

  static int Download(const Transfer& transfer, SpeedTestResult& result);
  static int Upload(const Transfer& transfer, SpeedTestResult& result);
  static int Latency(const Transfer& transfer, SpeedTestResult& result);

  // The largest body a speed test moves, whatever size is asked for: the
  // download is held in memory.
  static constexpr uint32_t kMaxSpeedTestBytes = 16u * 1024u * 1024u;
};

}  // namespace Sv
}  // namespace Lum
