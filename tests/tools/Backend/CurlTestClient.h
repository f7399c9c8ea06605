#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

#include "tools/backend/HttpExchange.h"

namespace LumTest {

// One HTTPS request through libcurl with in-memory PEM credentials, the way a
// device talks to the back end. Only for loopback back ends.
struct CurlRequest {
  std::string method = "GET";  // sent verbatim (CURLOPT_CUSTOMREQUEST unless GET/POST)
  std::string url;
  bool post = false;
  std::string body;
  bool chunked = false;                          // send the body with Transfer-Encoding: chunked
  std::vector<Lum::Tools::MultipartPart> parts;  // a multipart form when not empty
  std::vector<std::string> headers;
  std::string certPem;
  std::string keyPem;
  std::string keyPassword;
  std::string caPem;
  bool verifyStatus = true;  // require a valid stapled OCSP answer
  long minVersion = CURL_SSLVERSION_TLSv1_2;
  long maxVersion = CURL_SSLVERSION_MAX_DEFAULT;
  long timeoutMs = 20000;
};

struct CurlResult {
  CURLcode code = CURLE_FAILED_INIT;
  long status = 0;
  std::string body;
  std::string error;  // libcurl's error buffer
  bool ok() const { return code == CURLE_OK; }
};

CurlResult PerformCurl(const CurlRequest& request);

}  // namespace LumTest
