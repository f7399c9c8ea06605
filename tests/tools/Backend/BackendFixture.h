#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Platform/Http.h"
#include "Platform/LumJson.h"
#include "tools/backend/Backend.h"
#include "tools/pki/TestPki.h"

namespace LumTest {

// A running back end on an ephemeral loopback port with a device whose
// certificate names that port. The PKI is made once per test suite. Calls
// go through the agent's HTTP client; the TLS tests add the openssl command.
class BackendTest : public ::testing::Test {
 protected:
  using Http = Lum::Core::Http;
  static constexpr const char* kOpid = "LUMTEST";

  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  // A request of the device to `url`, with its credentials.
  Http::Request deviceRequest(const std::string& url, uint32_t timeoutMs = 20000) const;
  // A JSON call to `path` on the core host, or on `base` when given, with
  // "Authorization: token" when a token is given. Transport failures read as
  // 400 without headers.
  Http::Response call(Http::Verb verb, const std::string& path, const std::string& token = "",
                      const std::string& body = "", uint32_t timeoutMs = 20000,
                      const std::string& base = "") const;
  Http::Response post(const std::string& path, const std::string& token,
                      const std::string& body = "{}") const {
    return call(Http::POST, path, token, body);
  }
  // Registers the device and returns its GID token (empty on failure).
  std::string registerDevice() const;

  static Http::Response Perform(Http::Request request);
  static LumJson::Value Parse(const std::string& text);  // null when not JSON

  static Lum::Tools::TestPki* pki_;
  std::unique_ptr<Lum::Tools::Backend> backend_;
  Lum::Tools::DeviceIdentity device_;
};

}  // namespace LumTest
