#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "CurlTestClient.h"
#include "Platform/LumJson.h"
#include "tools/backend/Backend.h"
#include "tools/pki/TestPki.h"

namespace LumTest {

// A running back end on an ephemeral loopback port with a device whose
// certificate names that port. The PKI is made once per test binary.
class BackendTest : public ::testing::Test {
 protected:
  static constexpr const char* kOpid = "LUMTEST";

  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;
  void TearDown() override;

  // Replaces the running back end by one with these options.
  void restartBackend(const Lum::Tools::BackendOptions& options);

  // A request from the device to `path` on the back end's host name.
  CurlRequest deviceRequest(const std::string& method, const std::string& path,
                            const std::string& body = "") const;
  // POSTs a JSON body (with "Authorization: token" when token is not empty).
  CurlResult postJson(const std::string& path, const std::string& token,
                      const LumJson::Value& body) const;
  // Registers the device and returns its GID token (empty on failure).
  std::string registerDevice() const;

  static LumJson::Value Parse(const std::string& text);

  static Lum::Tools::TestPki* pki_;
  std::unique_ptr<Lum::Tools::Backend> backend_;
  Lum::Tools::DeviceIdentity device_;
};

}  // namespace LumTest
