#include "Base/NetworkDiagnostics.h"

#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include "Platform/Clock.h"
#include "Platform/Http.h"
#include "Platform/Logger.h"
#include "Platform/Network.h"
#include "Platform/System.h"
#include "Platform/Time.h"

LUM_SOURCE_FILE("Base/NetworkDiagnostics");

namespace Lum {
namespace Sv {

namespace {

using FP = Core::FilterProperties;
using Core::Http;

constexpr int kSv = FP::SERVICE_SV;
const char* const kDnsLookup = "DNS Lookup";
const char* const kGatewayPing = "Gateway Ping";
const char* const kInternetPing = "Internet Ping";
// The longest host name DNS carries.
constexpr size_t kMaxHostnameLength = 253;
// What the upload's and the latency test's answers may bring; they are
// acknowledgements, not data.
constexpr uint32_t kMaxAnswerBytes = 4096;
const char kJsonPrefix[] = "{\"data\":\"";
const char kJsonSuffix[] = "\"}";

// The seconds left, logged; false (the test is over) below one second.
bool TimeLeft(int budgetSeconds, time_t start, int& left) {
  left = Time::CalculateRemainingTime(budgetSeconds, start);
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "Network test time left: %d", left);
  return left >= 1;
}

// The host's first IPv4 address in dotted form; empty when it has none.
std::string Resolve(const std::string& hostname) {
  if (hostname.empty() || hostname.size() > kMaxHostnameLength) {
    return std::string();
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* answers = nullptr;
  if (getaddrinfo(hostname.c_str(), nullptr, &hints, &answers) != 0 || answers == nullptr) {
    return std::string();
  }
  std::string address;
  if (answers->ai_family == AF_INET && answers->ai_addrlen >= sizeof(sockaddr_in)) {
    const sockaddr_in* inet = reinterpret_cast<const sockaddr_in*>(answers->ai_addr);
    address = Network::convertToIPv4Address(inet->sin_addr.s_addr);
  }
  freeaddrinfo(answers);
  return address;
}

bool PingOk(const std::string& address) {
  int exitCode = -1;
  return System::Ping(address, exitCode) == 0 && exitCode == 0;
}

bool IsHttps(const std::string& url) {
  static const char kScheme[] = "https://";
  return url.size() > sizeof kScheme - 1 &&
         strncasecmp(url.c_str(), kScheme, sizeof kScheme - 1) == 0;
}

// False, logged, when the transfer has no URL it may use.
bool UsableUrl(const char* test, const std::string& url) {
  if (url.empty()) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "%s test has no URL set.", test);
    return false;
  }
  if (!IsHttps(url)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "%s test URL is not https: %s", test,
            url.c_str());
    return false;
  }
  return true;
}

void Prepare(const NetworkDiagnostics::Transfer& transfer, Http::Request& request) {
  request.clientCertificate = transfer.clientCertificate.c_str();
  request.clientKey = transfer.clientKey.c_str();
  request.clientKeyPassword = transfer.clientKeyPassword.c_str();
  request.caCertificates = transfer.caCertificates.c_str();
  request.url = transfer.url;
  request.connectTimeout = Http::ClampConnectTimeoutMs(transfer.connectTimeoutMs);
  request.messageTimeout = Http::ClampMessageTimeoutMs(transfer.timeMs);
  request.cancel = transfer.cancel;
}

// Runs the request, answer body into `buffer` and cut off beyond it, and
// fills the result's time and outcome.
void Measure(Http::Request& request, std::vector<uint8_t>& buffer, SpeedTestResult& result) {
  Http::Response response;
  response.bodyBuffer = buffer.data();
  response.bodyMaxLength = static_cast<uint32_t>(buffer.size());
  response.stopAtMaxLength = true;
  const timespec start = Core::Clock::MonotonicNow();
  Http::Perform(request, response);
  const long long ms = Core::DiffMilliseconds(Core::Clock::MonotonicNow(), start);
  Http::Cleanup(request);
  result.milliseconds = ms > 0 ? static_cast<uint64_t>(ms) : 0;
  result.ok = response.answered && response.statusCode >= 200 && response.statusCode < 300;
  result.bytes = response.bodyLength;
}

void Finish(int size, SpeedTestResult& result) {
  if (result.ok && result.bytes > 0) {
    result.bitsPerSecond = result.bytes * 8 * 1000 / std::max<uint64_t>(result.milliseconds, 1);
  }
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "URL = %s, size = %d, time = %d.",
          result.url.c_str(), size,
          static_cast<int>(std::min<uint64_t>(result.milliseconds, 0x7fffffff)));
}

uint32_t BoundedSize(uint32_t size) {
  return std::clamp<uint32_t>(size, 1, NetworkDiagnostics::kMaxSpeedTestBytes);
}

}  // namespace

int NetworkDiagnostics::RunReachability(const std::string& hostname, int budgetSeconds,
                                        bool& dnsLookupOk, bool& gatewayPingOk,
                                        bool& internetPingOk, bool& finishedInTime) {
  LUM_TRACE(kSv);
  dnsLookupOk = false;
  gatewayPingOk = false;
  internetPingOk = false;
  finishedInTime = false;
  const time_t start = Core::Clock::WallNow().tv_sec;
  int left = 0;

  if (!TimeLeft(budgetSeconds, start, left)) {
    return OutOfTime;
  }
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s %s. t=%d", kDnsLookup, hostname.c_str(),
          left);
  const std::string resolved = Resolve(hostname);
  dnsLookupOk = !resolved.empty();
  if (!dnsLookupOk) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "DNS Lookup Test Failed.");
  }

  if (!TimeLeft(budgetSeconds, start, left)) {
    return OutOfTime;
  }
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s. t=%d", kGatewayPing, left);
  // Only what the agent read itself is pinged: the route table's gateway and
  // the address it resolved, both in its own dotted form.
  gatewayPingOk = PingOk(Network::GetDefaultGateway());
  if (!gatewayPingOk) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Gateway Ping Test Failed.");
  }

  if (!TimeLeft(budgetSeconds, start, left)) {
    return OutOfTime;
  }
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "%s. t=%d", kInternetPing, left);
  internetPingOk = dnsLookupOk && PingOk(resolved);
  if (!internetPingOk) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_WARNING, "Internet Ping Test Failed.");
  }
  finishedInTime = true;
  return Done;
}

int NetworkDiagnostics::Download(const Transfer& transfer, SpeedTestResult& result) {
  LUM_TRACE(kSv);
  result = SpeedTestResult();
  result.url = transfer.url;
  if (!UsableUrl("Download speed", transfer.url)) {
    return NoUsableUrl;
  }
  std::vector<uint8_t> buffer(BoundedSize(transfer.size));
  Http::Request request;
  Prepare(transfer, request);
  request.verb = Http::GET;
  Measure(request, buffer, result);
  Finish(static_cast<int>(result.bytes), result);
  return result.ok ? Done : TransferFailed;
}

int NetworkDiagnostics::Upload(const Transfer& transfer, SpeedTestResult& result) {
  LUM_TRACE(kSv);
  result = SpeedTestResult();
  result.url = transfer.url;
  if (!UsableUrl("Upload speed", transfer.url)) {
    return NoUsableUrl;
  }
  // A JSON document of exactly the size asked for (never below the smallest
  // such document).
  const size_t frame = sizeof kJsonPrefix - 1 + sizeof kJsonSuffix - 1;
  const size_t size = std::max<size_t>(BoundedSize(transfer.size), frame);
  Http::Request request;
  Prepare(transfer, request);
  request.verb = Http::POST;
  request.headers.push_back("Content-Type: application/json; charset=UTF-8");
  request.body.reserve(size);
  request.body = kJsonPrefix;
  request.body.append(size - frame, 'a');
  request.body += kJsonSuffix;
  std::vector<uint8_t> answer(kMaxAnswerBytes);
  Measure(request, answer, result);
  result.bytes = result.ok ? size : 0;
  Finish(static_cast<int>(size), result);
  return result.ok ? Done : TransferFailed;
}

int NetworkDiagnostics::Latency(const Transfer& transfer, SpeedTestResult& result) {
  LUM_TRACE(kSv);
  result = SpeedTestResult();
  result.url = transfer.url;
  if (!UsableUrl("Latency", transfer.url)) {
    return NoUsableUrl;
  }
  // The first bytes of the download are enough: the time to the answer is
  // what counts, and the cut-off ends the transfer there.
  std::vector<uint8_t> buffer(std::min<uint32_t>(BoundedSize(transfer.size), kMaxAnswerBytes));
  Http::Request request;
  Prepare(transfer, request);
  request.verb = Http::GET;
  Measure(request, buffer, result);
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_INFO, "URL = %s, size = %d, time = %d.",
          result.url.c_str(), static_cast<int>(result.bytes),
          static_cast<int>(std::min<uint64_t>(result.milliseconds, 0x7fffffff)));
  return result.ok ? Done : TransferFailed;
}

}  // namespace Sv
}  // namespace Lum
