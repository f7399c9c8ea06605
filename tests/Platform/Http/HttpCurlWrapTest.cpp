#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <string>

#include "HttpTestSupport.h"
#include "Platform/Http.h"
#include "support/LogCapture.h"

// The binary is linked with --wrap=curl_easy_setopt: every option the agent
// sets passes through here, and the one named by failingOption is refused as
// a libcurl built without it would refuse it.
namespace {
std::atomic<int> failingOption{-1};
const CURLcode kRefusal = CURLE_NOT_BUILT_IN;
}  // namespace

extern "C" CURLcode __real_curl_easy_setopt(CURL* handle, CURLoption option, ...);

// The option is taken as an int: va_start needs a parameter that does not
// undergo promotion, and an enum may.
extern "C" CURLcode __wrap_curl_easy_setopt(CURL* handle, int optionNumber, ...) {
  const auto option = static_cast<CURLoption>(optionNumber);
  if (static_cast<int>(option) == failingOption.load()) {
    return kRefusal;
  }
  // The option number's range tells the type of its one argument.
  va_list args;
  va_start(args, optionNumber);
  CURLcode code;
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    code = __real_curl_easy_setopt(handle, option, va_arg(args, long));
  } else if (option < CURLOPTTYPE_OFF_T) {
    code = __real_curl_easy_setopt(handle, option, va_arg(args, void*));
  } else if (option < CURLOPTTYPE_BLOB) {
    code = __real_curl_easy_setopt(handle, option, va_arg(args, curl_off_t));
  } else {
    code = __real_curl_easy_setopt(handle, option, va_arg(args, void*));
  }
  va_end(args);
  return code;
}

namespace {

using Lum::Core::Http;

// An option that guards the connection must not be lost quietly: the request
// is not sent. Any other option failing costs only its own effect.
TEST(HttpOptionTest, OnlyARefusedSecurityOptionStopsTheRequest) {
  struct Case {
    CURLoption option;
    const char* name;
    bool sent;
  };
#define LUM_CASE(option, sent) \
  { option, #option, sent }
  const Case cases[] = {
      LUM_CASE(CURLOPT_SSL_VERIFYPEER, false),
      LUM_CASE(CURLOPT_SSL_VERIFYHOST, false),
      LUM_CASE(CURLOPT_SSL_VERIFYSTATUS, false),
      LUM_CASE(CURLOPT_SSLVERSION, false),
      LUM_CASE(CURLOPT_CAINFO, false),
      LUM_CASE(CURLOPT_CAPATH, false),
      LUM_CASE(CURLOPT_CA_CACHE_TIMEOUT, false),
      LUM_CASE(CURLOPT_SSL_CTX_FUNCTION, false),
      LUM_CASE(CURLOPT_SSL_CTX_DATA, false),
      LUM_CASE(CURLOPT_PROTOCOLS_STR, false),
      LUM_CASE(CURLOPT_REDIR_PROTOCOLS_STR, false),
      LUM_CASE(CURLOPT_TCP_KEEPIDLE, true),
  };
#undef LUM_CASE
  auto backend = LumHttpTest::StartBackend();
  ASSERT_NE(nullptr, backend);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    backend->clearRequests();
    LumTest::LogCapture capture("error");
    Http::Request request =
        LumHttpTest::DeviceRequest(Http::GET, backend->baseUrl("OPID") + "/test/method");
    request.keepAlive = true;
    Http::Response response;
    failingOption = c.option;
    Http::Perform(request, response);
    failingOption = -1;
    EXPECT_TRUE(capture.logged(std::string(c.name) + " failed with code " +
                               std::to_string(kRefusal) + " - \"" + curl_easy_strerror(kRefusal) +
                               "\""));
    EXPECT_EQ(c.sent ? 200 : 400, response.statusCode);
    EXPECT_EQ(c.sent ? 1u : 0u, backend->requestCount());
    EXPECT_EQ(c.sent, request.handle != nullptr);  // a kept handle survives only success
    Http::Cleanup(request);
  }
}

}  // namespace
