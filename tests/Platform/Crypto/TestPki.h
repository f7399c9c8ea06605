#pragma once

#include <openssl/evp.h>

#include <string>
#include <vector>

namespace LumTest {

// Keys and certificates made at run time for the crypto tests: an RSA chain
// root -> intermediate -> leaf, an EC P-256 key, and a self-signed impostor
// root that carries the real root's name under a different key. Generated once
// per test binary because RSA key generation dominates the run time.
struct TestPki {
  EVP_PKEY* rootKey;
  EVP_PKEY* intermediateKey;
  EVP_PKEY* leafKey;
  EVP_PKEY* ecKey;

  std::string rootPem;
  std::string intermediatePem;
  std::string leafPem;
  std::string ecLeafPem;          // EC key, issued by the root
  std::string impostorRootPem;    // subject "Test Root", self-signed by leafKey
  std::string otherRootPem;       // subject "Other Root", self-signed by leafKey
  std::string noCommonNamePem;    // subject has only an organisation
  std::string twoCommonNamesPem;  // O=Lum, CN="first" + U+00E9 (UTF-8), CN=second

  static const TestPki& Get();
};

// PEM text of a private key; encrypted with AES-256-CBC when `passPhrase` is
// non-empty.
std::string PrivateKeyPem(EVP_PKEY* key, const std::string& passPhrase = "");

// RSASSA-PKCS1-v1_5 signature with SHA-512.
std::vector<unsigned char> SignRS512(EVP_PKEY* key, const std::string& data);

// RSA-OAEP (SHA-1, MGF1-SHA-1) encryption with the public half of `key`.
std::vector<unsigned char> EncryptOaep(EVP_PKEY* key, const std::string& plaintext);

// A certificate with the given subject entries ("CN", "O", ...), in order.
std::string MakeCertificate(const std::vector<std::pair<std::string, std::string>>& subject,
                            EVP_PKEY* key, const std::string& issuerCommonName, EVP_PKEY* issuerKey,
                            bool isCa);

}  // namespace LumTest
