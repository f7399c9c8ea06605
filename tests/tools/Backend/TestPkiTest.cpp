#include <gtest/gtest.h>

#include "BackendFixture.h"
#include "support/TestSupport.h"
#include "tools/pki/OpenSslHandles.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;

// The certificates themselves are checked by the TLS tests against the
// running back end; this is the file round trip the command-line tools use.
class TestPkiTest : public BackendTest {
 protected:
  void SetUp() override {}  // no back end needed
};

TEST_F(TestPkiTest, WrittenDirectoryLoadsBack) {
  TempDir dir;
  DeviceIdentity device;
  const std::string name = TestPki::DeviceCommonName("RT", 9);
  EXPECT_EQ(name, "RT.lum.localhost:9");
  ASSERT_TRUE(pki_->issueDevice(name, &device, "pass phrase", KeyType::EcP256));
  std::string error;
  ASSERT_TRUE(pki_->writeTo(dir.path(), &device, &error)) << error;

  TestPki loaded;
  ASSERT_TRUE(loaded.load(dir.path(), &error)) << error;
  EXPECT_EQ(loaded.caCertPem(), pki_->caCertPem());
  EXPECT_EQ(loaded.serverKeyPem(ServerCertKind::WrongHost),
            pki_->serverKeyPem(ServerCertKind::WrongHost));
  for (const OcspStatus status : {OcspStatus::Good, OcspStatus::Revoked, OcspStatus::Expired,
                                  OcspStatus::Stale, OcspStatus::FreshWithoutNextUpdate}) {
    EXPECT_EQ(loaded.ocspResponse(ServerCertKind::Default, status),
              pki_->ocspResponse(ServerCertKind::Default, status));
  }
  EXPECT_EQ(loaded.loadedDevice().commonName, name);
  EXPECT_EQ(loaded.loadedDevice().passPhrase, "pass phrase");
  EXPECT_EQ(loaded.loadedDevice().encryptedKeyPem, device.encryptedKeyPem);
  LumJson::Value identity = Parse(ReadFile(dir.file(TestPki::kIdentityJson)));
  EXPECT_EQ(identity["cert"].asString(), device.certPem);
  EXPECT_EQ(identity["password"].asString(), "pass phrase");

  // The CA keys came along: the loaded PKI issues devices of the same CA.
  DeviceIdentity second;
  ASSERT_TRUE(loaded.issueDevice("RT2.lum.localhost:9", &second, "x", KeyType::EcP256));
  X509Ptr cert = ReadCertPem(second.certPem);
  X509Ptr ca = ReadCertPem(pki_->caCertPem());
  ASSERT_TRUE(cert && ca);
  EXPECT_EQ(X509_verify(cert.get(), X509_get0_pubkey(ca.get())), 1);
  EXPECT_FALSE(TestPki().load(dir.file("absent"), &error));
}

}  // namespace
}  // namespace LumTest
