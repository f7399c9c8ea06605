#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Platform/RsaUtil.h"
#include "Platform/X509Util.h"

namespace {

using Lum::Core::RsaUtil;
using Lum::Core::X509Util;

// Made once per test binary (RSA key generation dominates the run time): an
// RSA chain root -> intermediate -> leaf, an EC P-256 certificate issued by the
// root, and an impostor root that carries the real root's name under another key.
struct TestPki {
  EVP_PKEY* rootKey;
  EVP_PKEY* intermediateKey;
  EVP_PKEY* leafKey;
  EVP_PKEY* ecKey;
  std::string rootPem, intermediatePem, leafPem, ecLeafPem, impostorRootPem;
};

// The text written to a memory BIO, which is freed.
std::string Drain(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<size_t>(length));
  BIO_free(bio);
  return text;
}

std::string MakeCertificate(const char* commonName, EVP_PKEY* key, const char* issuerCommonName,
                            EVP_PKEY* issuerKey, bool isCa) {
  static long serial = 1;
  X509* cert = X509_new();
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
  X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600);
  X509_set_pubkey(cert, key);
  const auto* cn = reinterpret_cast<const unsigned char*>(commonName);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_UTF8, cn, -1, -1, 0);
  cn = reinterpret_cast<const unsigned char*>(issuerCommonName);
  X509_NAME_add_entry_by_txt(X509_get_issuer_name(cert), "CN", MBSTRING_UTF8, cn, -1, -1, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints,
                                            isCa ? "critical,CA:TRUE" : "CA:FALSE");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
  X509_sign(cert, issuerKey, EVP_sha256());
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, cert);
  X509_free(cert);
  return Drain(bio);
}

const TestPki& Pki() {
  static const TestPki pki = [] {
    TestPki p;
    p.rootKey = EVP_RSA_gen(2048);
    p.intermediateKey = EVP_RSA_gen(2048);
    p.leafKey = EVP_RSA_gen(2048);
    p.ecKey = EVP_EC_gen("P-256");
    p.rootPem = MakeCertificate("Test Root", p.rootKey, "Test Root", p.rootKey, true);
    p.intermediatePem =
        MakeCertificate("Test Intermediate", p.intermediateKey, "Test Root", p.rootKey, true);
    p.leafPem =
        MakeCertificate("device-0042", p.leafKey, "Test Intermediate", p.intermediateKey, false);
    p.ecLeafPem = MakeCertificate("ec-device", p.ecKey, "Test Root", p.rootKey, false);
    p.impostorRootPem = MakeCertificate("Test Root", p.leafKey, "Test Root", p.leafKey, true);
    return p;
  }();
  return pki;
}

// Unencrypted, or under AES-256-CBC with a non-empty pass phrase.
std::string PrivateKeyPem(EVP_PKEY* key, const std::string& passPhrase = "") {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(bio, key, passPhrase.empty() ? nullptr : EVP_aes_256_cbc(),
                           reinterpret_cast<const unsigned char*>(passPhrase.data()),
                           static_cast<int>(passPhrase.size()), nullptr, nullptr);
  return Drain(bio);
}

std::vector<unsigned char> SignRS512(EVP_PKEY* key, const std::string& data) {
  std::vector<unsigned char> signature(static_cast<size_t>(EVP_PKEY_get_size(key)));
  size_t length = signature.size();
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_DigestSignInit(ctx, nullptr, EVP_sha512(), nullptr, key);
  EVP_DigestSign(ctx, signature.data(), &length,
                 reinterpret_cast<const unsigned char*>(data.data()), data.size());
  EVP_MD_CTX_free(ctx);
  signature.resize(length);
  return signature;
}

// RSA-OAEP (SHA-1) with the public half of `key`.
std::vector<unsigned char> EncryptOaep(EVP_PKEY* key, const std::string& plaintext) {
  std::vector<unsigned char> cipher(static_cast<size_t>(EVP_PKEY_get_size(key)));
  size_t length = cipher.size();
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
  EVP_PKEY_encrypt_init(ctx);
  EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING);
  EVP_PKEY_encrypt(ctx, cipher.data(), &length,
                   reinterpret_cast<const unsigned char*>(plaintext.data()), plaintext.size());
  EVP_PKEY_CTX_free(ctx);
  cipher.resize(length);
  return cipher;
}

const char kGarbageCert[] = "-----BEGIN CERTIFICATE-----\nAA==\n-----END CERTIFICATE-----\n";

TEST(RsaUtil, VerifyRS512) {
  const TestPki& pki = Pki();
  const std::string data("payload with a \0 byte inside", 28);
  const std::vector<unsigned char> signature = SignRS512(pki.leafKey, data);
  std::string tampered = data;
  tampered[3] ^= 0x20;
  const struct {
    const char* name;
    std::string cert;
    std::string data;
    std::vector<unsigned char> signature;
    bool expected;
  } cases[] = {
      {"good signature", pki.leafPem, data, signature, true},
      {"tampered data", pki.leafPem, tampered, signature, false},
      {"data cut at the NUL", pki.leafPem, data.substr(0, 14), signature, false},
      {"empty signature", pki.leafPem, data, {}, false},
      {"wrong certificate", pki.intermediatePem, data, signature, false},
      {"certificate with EC key", pki.ecLeafPem, data, signature, false},
      {"garbage PEM", kGarbageCert, data, signature, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(RsaUtil::VerifyRS512(c.cert, reinterpret_cast<const unsigned char*>(c.data.data()),
                                   static_cast<unsigned>(c.data.size()), c.signature.data(),
                                   static_cast<unsigned>(c.signature.size())),
              c.expected)
        << c.name;
  }
}

TEST(RsaUtil, DecryptOaep) {
  const TestPki& pki = Pki();
  const std::string secret("session key \x01\x00\xff", 15);
  const std::vector<unsigned char> cipher = EncryptOaep(pki.leafKey, secret);
  std::vector<unsigned char> corrupted = cipher;
  corrupted[100] ^= 0x80;
  const std::string plainKey = PrivateKeyPem(pki.leafKey);
  const std::string lockedKey = PrivateKeyPem(pki.leafKey, "tv-secret");
  const struct {
    const char* name;
    std::string keyPem;
    const char* passPhrase;
    std::vector<unsigned char> cipher;
    bool expected;
  } cases[] = {
      {"unencrypted key", plainKey, nullptr, cipher, true},
      {"encrypted key, right pass phrase", lockedKey, "tv-secret", cipher, true},
      {"encrypted key, wrong pass phrase", lockedKey, "tv-secreT", cipher, false},
      {"encrypted key, no pass phrase", lockedKey, nullptr, cipher, false},
      {"corrupted ciphertext", plainKey, nullptr, corrupted, false},
      {"other key", PrivateKeyPem(pki.rootKey), nullptr, cipher, false},
  };
  for (const auto& c : cases) {
    unsigned char* out = reinterpret_cast<unsigned char*>(0x1);  // must be overwritten
    unsigned length = 0;
    const bool ok = RsaUtil::Decrypt(c.keyPem.c_str(), c.passPhrase, c.cipher.data(),
                                     static_cast<unsigned>(c.cipher.size()), out, length);
    EXPECT_EQ(ok, c.expected) << c.name;
    if (c.expected && ok) {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(out), length), secret) << c.name;
    } else {
      EXPECT_EQ(out, nullptr) << c.name;
    }
    if (out != reinterpret_cast<unsigned char*>(0x1)) free(out);
  }
}

TEST(X509Util, GetCommonNameLeavesTheValueOnFailure) {
  const TestPki& pki = Pki();
  const std::pair<std::string, std::string> cases[] = {
      {pki.leafPem, "device-0042"},
      {pki.intermediatePem + pki.rootPem, "Test Intermediate"},  // first of a bundle
      {kGarbageCert, "unchanged"},
      {"", "unchanged"},
  };
  for (const auto& c : cases) {
    std::string commonName = "unchanged";
    X509Util::GetCommonName(c.first, commonName);
    EXPECT_EQ(commonName, c.second) << c.first;
  }
}

TEST(X509Util, VerifyChain) {
  const TestPki& pki = Pki();
  const struct {
    const char* name;
    std::string leaf, intermediates, ca;
    bool expected;
  } cases[] = {
      {"leaf, intermediate, root", pki.leafPem, pki.intermediatePem, pki.rootPem, true},
      {"root among several trusted", pki.leafPem, pki.intermediatePem, pki.ecLeafPem + pki.rootPem,
       true},
      {"root name under another key", pki.leafPem, pki.intermediatePem, pki.impostorRootPem, false},
      {"missing intermediate", pki.leafPem, "", pki.rootPem, false},
      {"root offered in place of the intermediate", pki.leafPem, pki.rootPem, pki.rootPem, false},
      {"no trusted certificates", pki.leafPem, pki.intermediatePem, "", false},
      {"garbage leaf", kGarbageCert, pki.intermediatePem, pki.rootPem, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(X509Util::VerifyChain(c.leaf, c.intermediates, c.ca), c.expected) << c.name;
  }
}

}  // namespace
