#include <gtest/gtest.h>
#include <openssl/ocsp.h>
#include <openssl/x509v3.h>

#include "BackendFixture.h"
#include "support/TestSupport.h"
#include "tools/pki/OpenSslHandles.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;

bool Verifies(const std::string& certPem, const std::string& caPem) {
  X509Ptr cert = ReadCertPem(certPem);
  X509Ptr ca = ReadCertPem(caPem);
  X509StorePtr store(X509_STORE_new());
  OpenSslPtr<X509_STORE_CTX, X509_STORE_CTX_free> ctx(X509_STORE_CTX_new());
  if (!cert || !ca || !store || !ctx || X509_STORE_add_cert(store.get(), ca.get()) != 1 ||
      X509_STORE_CTX_init(ctx.get(), store.get(), cert.get(), nullptr) != 1) {
    return false;
  }
  return X509_verify_cert(ctx.get()) == 1;
}

bool KeyMatches(const std::string& certPem, const std::string& keyPem,
                const std::string& pass = "") {
  X509Ptr cert = ReadCertPem(certPem);
  EvpPkeyPtr key = ReadKeyPem(keyPem, pass);
  return cert && key && X509_check_private_key(cert.get(), key.get()) == 1;
}

class TestPkiTest : public BackendTest {
 protected:
  void SetUp() override {}  // these tests need no back end
};

TEST_F(TestPkiTest, CertificatesChainOnlyToTheirOwnCa) {
  DeviceIdentity device;
  ASSERT_TRUE(pki_->issueDevice("OPID.lum.localhost:1", &device, "phrase", KeyType::EcP256));
  struct Case {
    const char* what;
    std::string cert;
    std::string ca;
    bool verifies;
  } cases[] = {
      {"server", pki_->serverCertPem(ServerCertKind::Default), pki_->caCertPem(), true},
      {"wrong host", pki_->serverCertPem(ServerCertKind::WrongHost), pki_->caCertPem(), true},
      {"untrusted", pki_->serverCertPem(ServerCertKind::UntrustedCa), pki_->caCertPem(), false},
      {"untrusted own", pki_->serverCertPem(ServerCertKind::UntrustedCa),
       pki_->untrustedCaCertPem(), true},
      {"device", device.certPem, pki_->caCertPem(), true},
      {"rogue device", device.rogueCertPem, pki_->caCertPem(), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Verifies(c.cert, c.ca), c.verifies) << c.what;
  }
}

TEST_F(TestPkiTest, ServerCertificatesNameTheirHosts) {
  X509Ptr server = ReadCertPem(pki_->serverCertPem(ServerCertKind::Default));
  X509Ptr wrong = ReadCertPem(pki_->serverCertPem(ServerCertKind::WrongHost));
  ASSERT_TRUE(server && wrong);
  struct Case {
    X509* cert;
    const char* host;
    bool matches;
  } cases[] = {
      {server.get(), "LUMDEV01-da.lum.localhost", true},
      {server.get(), "lum.localhost", true},
      {server.get(), "localhost", true},
      {server.get(), "other.example.localhost", false},
      {wrong.get(), "wrong.example.localhost", true},
      {wrong.get(), "LUMDEV01-da.lum.localhost", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(X509_check_host(c.cert, c.host, 0, 0, nullptr) == 1, c.matches) << c.host;
  }
  EXPECT_EQ(X509_check_ip_asc(server.get(), "127.0.0.1", 0), 1);
}

TEST_F(TestPkiTest, DeviceKeysMatchOnlyWhereTheyShould) {
  DeviceIdentity device;
  std::string error;
  ASSERT_TRUE(pki_->issueDevice(TestPki::DeviceCommonName("LUMDEV01", 8443), &device, "s3cret",
                                KeyType::Rsa2048, &error))
      << error;
  EXPECT_EQ(device.commonName, "LUMDEV01.lum.localhost:8443");
  X509Ptr cert = ReadCertPem(device.certPem);
  EXPECT_EQ(CommonNameOf(cert.get()), "LUMDEV01.lum.localhost:8443");
  EXPECT_EQ(EVP_PKEY_get_base_id(X509_get0_pubkey(cert.get())), EVP_PKEY_RSA);

  EXPECT_TRUE(KeyMatches(device.certPem, device.keyPem));
  EXPECT_TRUE(KeyMatches(device.certPem, device.encryptedKeyPem, "s3cret"));
  EXPECT_FALSE(ReadKeyPem(device.encryptedKeyPem, "wrong phrase"));
  EXPECT_NE(device.encryptedKeyPem.find("ENCRYPTED"), std::string::npos);
  EXPECT_FALSE(KeyMatches(device.certPem, device.otherKeyPem));
  EXPECT_TRUE(KeyMatches(device.rogueCertPem, device.rogueKeyPem));
  EXPECT_EQ(CommonNameOf(ReadCertPem(device.rogueCertPem).get()), device.commonName);
}

TEST_F(TestPkiTest, OcspResponsesCarryTheirStatus) {
  X509Ptr server = ReadCertPem(pki_->serverCertPem(ServerCertKind::Default));
  X509Ptr ca = ReadCertPem(pki_->caCertPem());
  X509StorePtr store(X509_STORE_new());
  X509_STORE_add_cert(store.get(), ca.get());
  OcspCertIdPtr id(OCSP_cert_to_id(nullptr, server.get(), ca.get()));
  struct Case {
    OcspStatus status;
    int certStatus;
    bool timesValid;
  } cases[] = {
      {OcspStatus::Good, V_OCSP_CERTSTATUS_GOOD, true},
      {OcspStatus::Revoked, V_OCSP_CERTSTATUS_REVOKED, true},
      {OcspStatus::Expired, V_OCSP_CERTSTATUS_GOOD, false},
  };
  for (const auto& c : cases) {
    const std::string& der = pki_->ocspResponse(ServerCertKind::Default, c.status);
    const auto* data = reinterpret_cast<const unsigned char*>(der.data());
    OcspResponsePtr response(d2i_OCSP_RESPONSE(nullptr, &data, static_cast<long>(der.size())));
    ASSERT_TRUE(response);
    EXPECT_EQ(OCSP_response_status(response.get()), OCSP_RESPONSE_STATUS_SUCCESSFUL);
    OcspBasicRespPtr basic(OCSP_response_get1_basic(response.get()));
    ASSERT_TRUE(basic);
    STACK_OF(X509)* certs = sk_X509_new_null();
    sk_X509_push(certs, ca.get());
    EXPECT_EQ(OCSP_basic_verify(basic.get(), certs, store.get(), 0), 1);
    sk_X509_free(certs);
    int status = -1;
    int reason = 0;
    ASN1_GENERALIZEDTIME *revoked = nullptr, *thisUpdate = nullptr, *nextUpdate = nullptr;
    ASSERT_EQ(OCSP_resp_find_status(basic.get(), id.get(), &status, &reason, &revoked, &thisUpdate,
                                    &nextUpdate),
              1);
    EXPECT_EQ(status, c.certStatus);
    // 300 s is the leeway libcurl grants, so "expired" must be well past it.
    EXPECT_EQ(OCSP_check_validity(thisUpdate, nextUpdate, 300, -1) == 1, c.timesValid);
  }
}

TEST_F(TestPkiTest, WrittenDirectoryLoadsBack) {
  TempDir dir;
  DeviceIdentity device;
  ASSERT_TRUE(pki_->issueDevice("RT.lum.localhost:9", &device, "pass phrase", KeyType::EcP256));
  std::string error;
  ASSERT_TRUE(pki_->writeTo(dir.path(), &device, &error)) << error;

  TestPki loaded;
  ASSERT_TRUE(loaded.load(dir.path(), &error)) << error;
  EXPECT_EQ(loaded.caCertPem(), pki_->caCertPem());
  for (auto kind :
       {ServerCertKind::Default, ServerCertKind::UntrustedCa, ServerCertKind::WrongHost}) {
    EXPECT_EQ(loaded.serverCertPem(kind), pki_->serverCertPem(kind));
    EXPECT_EQ(loaded.serverKeyPem(kind), pki_->serverKeyPem(kind));
  }
  EXPECT_EQ(loaded.ocspResponse(ServerCertKind::Default, OcspStatus::Expired),
            pki_->ocspResponse(ServerCertKind::Default, OcspStatus::Expired));
  EXPECT_EQ(loaded.loadedDevice().commonName, "RT.lum.localhost:9");
  EXPECT_EQ(loaded.loadedDevice().passPhrase, "pass phrase");
  EXPECT_EQ(loaded.loadedDevice().encryptedKeyPem, device.encryptedKeyPem);

  LumJson::Value identity = BackendTest::Parse(ReadFile(dir.file(TestPki::kIdentityJson)));
  EXPECT_EQ(identity["cert"].asString(), device.certPem);
  EXPECT_EQ(identity["key"].asString(), device.encryptedKeyPem);
  EXPECT_EQ(identity["trust"].asString(), pki_->caCertPem());
  EXPECT_EQ(identity["password"].asString(), "pass phrase");

  // A loaded PKI can still issue devices: the CA keys came along.
  DeviceIdentity second;
  EXPECT_TRUE(loaded.issueDevice("RT2.lum.localhost:9", &second, "x", KeyType::EcP256));
  EXPECT_TRUE(Verifies(second.certPem, pki_->caCertPem()));

  TestPki missing;
  EXPECT_FALSE(missing.load(dir.file("absent"), &error));
  EXPECT_FALSE(missing.valid());
}

}  // namespace
}  // namespace LumTest
