#pragma once

#include <string>

namespace LumTest {

// What an OpenSSL client saw when it connected to a loopback server while
// asking for a stapled OCSP answer.
struct TlsProbeResult {
  bool connected = false;
  std::string error;
  std::string version;  // "TLSv1.1", "TLSv1.2", "TLSv1.3"
  bool stapled = false;
  int responseStatus = -1;  // OCSP_RESPONSE_STATUS_*
  int certStatus = -1;      // V_OCSP_CERTSTATUS_*
  bool signatureValid = false;
  bool timesValid = false;  // thisUpdate/nextUpdate accepted with libcurl's 300 s leeway
  std::string answer;       // raw HTTP answer to "GET /test/method"
};

struct TlsProbeRequest {
  int port = 0;
  std::string certPem;
  std::string keyPem;
  std::string caPem;
  int minVersion = 0;  // TLS1_x_VERSION, 0 for the library default
  int maxVersion = 0;
};

TlsProbeResult ProbeTls(const TlsProbeRequest& request);

}  // namespace LumTest
