#include <gtest/gtest.h>

#include <cstdio>

#include "BackendFixture.h"
#include "support/TestSupport.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;

// TLS behaviour seen through the openssl command-line client, which is
// independent of the agent's client and reports what the server offered.
class BackendTlsTest : public BackendTest {
 protected:
  void SetUp() override {
    BackendTest::SetUp();
    std::string error;
    ASSERT_TRUE(pki_->writeTo(files_.path(), &device_, &error)) << error;
  }

  std::string credentials(const char* cert, const char* key) const {
    return "-cert " + files_.file(cert) + " -key " + files_.file(key);
  }
  std::string device() const { return credentials(TestPki::kDeviceCert, TestPki::kDeviceKey); }

  // Everything `openssl s_client -status` prints while it sends
  // "GET /test/method" to the back end and reads the answer.
  std::string opensslGet(const std::string& options) const {
    const std::string command =
        "printf 'GET /test/method HTTP/1.1\\r\\nHost: x\\r\\nConnection: close\\r\\n\\r\\n' | "
        "timeout 30 openssl s_client -ign_eof -status -verify_return_error -connect 127.0.0.1:" +
        std::to_string(backend_->port()) + " -servername " + kOpid + "-da.lum.localhost" +
        " -CAfile " + files_.file(TestPki::kCaCert) + " " + options + " 2>&1";
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr) << command;
    char buffer[4096];
    for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
      output.append(buffer, n);
    }
    if (pipe != nullptr) pclose(pipe);
    return output;
  }

  TempDir files_;
};

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(BackendTlsTest, OnlyDevicesOfTheTrustedCaAreServed) {
  EXPECT_FALSE(Has(opensslGet(""), "HTTP/1.1"));
  EXPECT_FALSE(
      Has(opensslGet(credentials(TestPki::kRogueDeviceCert, TestPki::kRogueDeviceKey)), "HTTP"));
  EXPECT_EQ(backend_->requestCount(), 0u);

  const std::string served = opensslGet(device());
  EXPECT_TRUE(Has(served, "HTTP/1.1 200 OK")) << served;
  ASSERT_EQ(backend_->requestCount(), 1u);
  EXPECT_EQ(backend_->requests()[0].clientCommonName, device_.commonName);
}

TEST_F(BackendTlsTest, StaplesTheConfiguredOcspAnswer) {
  struct Case {
    OcspMode mode;
    const char* stapled;  // as the openssl client reports it
    bool nextUpdate;
    bool agentAccepts;
  } cases[] = {
      {OcspMode::Good, "Cert Status: good", true, true},
      {OcspMode::Revoked, "Cert Status: revoked", true, false},
      {OcspMode::Expired, "Cert Status: good", true, false},  // but past its next update
      {OcspMode::Stale, "Cert Status: good", false, false},   // but 400 days old
      {OcspMode::FreshWithoutNextUpdate, "Cert Status: good", false, true},
      {OcspMode::None, "OCSP response: no response sent", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stapled);
    backend_->setOcspMode(c.mode);
    const std::string seen = opensslGet(device());
    EXPECT_TRUE(Has(seen, c.stapled)) << seen;
    EXPECT_EQ(Has(seen, "OCSP Response Status: successful"), c.mode != OcspMode::None) << seen;
    EXPECT_EQ(Has(seen, "Next Update:"), c.nextUpdate) << seen;
    EXPECT_TRUE(Has(seen, "Verify return code: 0 (ok)")) << seen;
    EXPECT_EQ(call(Http::GET, "/test/method").statusCode, c.agentAccepts ? 200 : 400);
  }
}

TEST_F(BackendTlsTest, TlsOneOneOnlyServesOldClientsAlone) {
  ASSERT_TRUE(backend_->setTlsRange(TlsVersion::Tls1_1, TlsVersion::Tls1_1));
  EXPECT_EQ(call(Http::GET, "/test/method").statusCode, 400);
  const std::string old = opensslGet(device() + " -tls1_1 -cipher DEFAULT@SECLEVEL=0");
  EXPECT_TRUE(Has(old, "Protocol  : TLSv1.1")) << old;
  EXPECT_TRUE(Has(old, "HTTP/1.1 200 OK")) << old;
}

}  // namespace
}  // namespace LumTest
