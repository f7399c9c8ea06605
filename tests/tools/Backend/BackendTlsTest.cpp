#include <gtest/gtest.h>
#include <openssl/ocsp.h>

#include "BackendFixture.h"
#include "TlsProbe.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;

using BackendTlsTest = BackendTest;

TEST_F(BackendTlsTest, OnlyDevicesOfTheTrustedCaAreServed) {
  DeviceIdentity rsaDevice;
  ASSERT_TRUE(pki_->issueDevice(TestPki::DeviceCommonName(kOpid, backend_->port()), &rsaDevice));
  struct Case {
    const char* what;
    std::string cert;
    std::string key;
    std::string password;
    bool served;
  } cases[] = {
      {"EC device", device_.certPem, device_.keyPem, "", true},
      {"RSA device, encrypted key", rsaDevice.certPem, rsaDevice.encryptedKeyPem,
       rsaDevice.passPhrase, true},
      {"no client certificate", "", "", "", false},
      {"certificate of another CA", device_.rogueCertPem, device_.rogueKeyPem, "", false},
  };
  for (const auto& c : cases) {
    backend_->clearRequests();
    CurlRequest request = deviceRequest("GET", "/test/method");
    request.certPem = c.cert;
    request.keyPem = c.key;
    request.keyPassword = c.password;
    CurlResult result = PerformCurl(request);
    EXPECT_EQ(result.ok(), c.served) << c.what << ": " << result.error;
    if (c.served) {
      EXPECT_EQ(result.status, 200) << c.what;
      ASSERT_EQ(backend_->requestCount(), 1u) << c.what;
      RecordedRequest recorded = backend_->requests()[0];
      EXPECT_EQ(recorded.clientCommonName, device_.commonName) << c.what;
      // libcurl sends the server name in lower case.
      EXPECT_STRCASEEQ(recorded.serverName.c_str(), "LUMTEST-da.lum.localhost");
      EXPECT_EQ(recorded.host,
                std::string(kOpid) + "-da.lum.localhost:" + std::to_string(backend_->port()));
    } else {
      EXPECT_EQ(backend_->requestCount(), 0u) << c.what;
    }
  }
}

TEST_F(BackendTlsTest, StaplesTheConfiguredOcspAnswer) {
  struct Case {
    OcspMode mode;
    bool stapled;
    int certStatus;
    bool timesValid;
    bool curlAccepts;
  } cases[] = {
      {OcspMode::Good, true, V_OCSP_CERTSTATUS_GOOD, true, true},
      {OcspMode::Revoked, true, V_OCSP_CERTSTATUS_REVOKED, true, false},
      {OcspMode::Expired, true, V_OCSP_CERTSTATUS_GOOD, false, false},
      {OcspMode::None, false, -1, false, false},
  };
  for (const auto& c : cases) {
    backend_->setOcspMode(c.mode);
    TlsProbeRequest probe{backend_->port(), device_.certPem, device_.keyPem, device_.trustPem};
    TlsProbeResult seen = ProbeTls(probe);
    ASSERT_TRUE(seen.connected) << seen.error;
    EXPECT_EQ(seen.stapled, c.stapled);
    if (c.stapled) {
      EXPECT_EQ(seen.responseStatus, OCSP_RESPONSE_STATUS_SUCCESSFUL);
      EXPECT_TRUE(seen.signatureValid);
      EXPECT_EQ(seen.certStatus, c.certStatus);
      EXPECT_EQ(seen.timesValid, c.timesValid);
    }
    CurlResult result = PerformCurl(deviceRequest("GET", "/test/method"));
    EXPECT_EQ(result.ok(), c.curlAccepts) << result.error;
    if (!c.curlAccepts) {
      EXPECT_EQ(result.code, CURLE_SSL_INVALIDCERTSTATUS) << result.error;
    }
  }
}

TEST_F(BackendTlsTest, ServerCertificateChoiceDecidesClientVerification) {
  struct Case {
    ServerCertKind kind;
    CURLcode expected;
  } cases[] = {
      {ServerCertKind::UntrustedCa, CURLE_PEER_FAILED_VERIFICATION},
      {ServerCertKind::WrongHost, CURLE_PEER_FAILED_VERIFICATION},
      {ServerCertKind::Default, CURLE_OK},
  };
  for (const auto& c : cases) {
    std::string error;
    ASSERT_TRUE(backend_->setServerCert(c.kind, &error)) << error;
    CurlResult result = PerformCurl(deviceRequest("GET", "/test/method"));
    EXPECT_EQ(result.code, c.expected) << result.error;
  }
  // Without name and status checks the wrong-host certificate is otherwise sound.
  ASSERT_TRUE(backend_->setServerCert(ServerCertKind::WrongHost));
  CurlRequest lax = deviceRequest("GET", "/test/method");
  lax.url = "https://wrong.example.localhost:" + std::to_string(backend_->port()) + "/test/method";
  EXPECT_TRUE(PerformCurl(lax).ok());
}

TEST_F(BackendTlsTest, OffersTheConfiguredProtocolRange) {
  // Default range: both clients get the newest version they allow.
  EXPECT_TRUE(PerformCurl(deviceRequest("GET", "/test/method")).ok());
  CurlRequest tls12 = deviceRequest("GET", "/test/method");
  tls12.maxVersion = CURL_SSLVERSION_MAX_TLSv1_2;
  EXPECT_TRUE(PerformCurl(tls12).ok());
  std::vector<RecordedRequest> seen = backend_->requests();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].tlsVersion, "TLSv1.3");
  EXPECT_EQ(seen[1].tlsVersion, "TLSv1.2");

  // TLS 1.1 only: a client insisting on 1.2 or later is refused, an old one served.
  ASSERT_TRUE(backend_->setTlsRange(TlsVersion::Tls1_1, TlsVersion::Tls1_1));
  CurlResult modern = PerformCurl(deviceRequest("GET", "/test/method"));
  EXPECT_FALSE(modern.ok());
  EXPECT_EQ(modern.code, CURLE_SSL_CONNECT_ERROR) << modern.error;
  TlsProbeRequest old{backend_->port(), device_.certPem, device_.keyPem,
                      device_.trustPem, TLS1_1_VERSION,  TLS1_1_VERSION};
  TlsProbeResult probe = ProbeTls(old);
  ASSERT_TRUE(probe.connected) << probe.error;
  EXPECT_EQ(probe.version, "TLSv1.1");
  EXPECT_NE(probe.answer.find("\r\n\r\nGET"), std::string::npos) << probe.answer;

  // And back: TLS 1.3 only refuses a client capped at 1.2.
  ASSERT_TRUE(backend_->setTlsRange(TlsVersion::Tls1_3, TlsVersion::Tls1_3));
  EXPECT_FALSE(PerformCurl(tls12).ok());
  EXPECT_TRUE(PerformCurl(deviceRequest("GET", "/test/method")).ok());
}

}  // namespace
}  // namespace LumTest
