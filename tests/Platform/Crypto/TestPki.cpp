#include "TestPki.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace LumTest {

namespace {

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test PKI: ") + what + " failed");
}

std::string drain(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  std::string text(data, static_cast<size_t>(length));
  BIO_free(bio);
  return text;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  check(ext != nullptr && X509_add_ext(cert, ext, -1) == 1, "extension");
  X509_EXTENSION_free(ext);
}

}  // namespace

std::string MakeCertificate(const std::vector<std::pair<std::string, std::string>>& subject,
                            EVP_PKEY* key, const std::string& issuerCommonName, EVP_PKEY* issuerKey,
                            bool isCa) {
  static long serial = 1;
  X509* cert = X509_new();
  check(cert != nullptr, "X509_new");
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
  X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600);
  X509_set_pubkey(cert, key);
  X509_NAME* name = X509_get_subject_name(cert);
  for (const auto& entry : subject) {
    check(X509_NAME_add_entry_by_txt(name, entry.first.c_str(), MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(entry.second.c_str()),
                                     -1, -1, 0) == 1,
          "subject");
  }
  X509_NAME* issuerName = X509_get_issuer_name(cert);
  X509_NAME_add_entry_by_txt(issuerName, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(issuerCommonName.c_str()), -1,
                             -1, 0);
  addExtension(cert, nullptr, NID_basic_constraints, isCa ? "critical,CA:TRUE" : "CA:FALSE");
  if (isCa) addExtension(cert, nullptr, NID_key_usage, "critical,keyCertSign,cRLSign");
  check(X509_sign(cert, issuerKey, EVP_sha256()) > 0, "X509_sign");
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, cert);
  X509_free(cert);
  return drain(bio);
}

const TestPki& TestPki::Get() {
  static const TestPki pki = [] {
    TestPki p;
    p.rootKey = EVP_RSA_gen(2048);
    p.intermediateKey = EVP_RSA_gen(2048);
    p.leafKey = EVP_RSA_gen(2048);
    p.ecKey = EVP_EC_gen("P-256");
    check(p.rootKey && p.intermediateKey && p.leafKey && p.ecKey, "key generation");
    p.rootPem = MakeCertificate({{"CN", "Test Root"}}, p.rootKey, "Test Root", p.rootKey, true);
    p.intermediatePem = MakeCertificate({{"CN", "Test Intermediate"}}, p.intermediateKey,
                                        "Test Root", p.rootKey, true);
    p.leafPem = MakeCertificate({{"CN", "device-0042"}}, p.leafKey, "Test Intermediate",
                                p.intermediateKey, false);
    p.ecLeafPem = MakeCertificate({{"CN", "ec-device"}}, p.ecKey, "Test Root", p.rootKey, false);
    p.impostorRootPem =
        MakeCertificate({{"CN", "Test Root"}}, p.leafKey, "Test Root", p.leafKey, true);
    p.otherRootPem =
        MakeCertificate({{"CN", "Other Root"}}, p.leafKey, "Other Root", p.leafKey, true);
    p.noCommonNamePem =
        MakeCertificate({{"O", "Nameless"}}, p.leafKey, "Test Root", p.rootKey, false);
    p.twoCommonNamesPem = MakeCertificate({{"O", "Lum"}, {"CN", "first\xc3\xa9"}, {"CN", "second"}},
                                          p.leafKey, "Test Root", p.rootKey, false);
    return p;
  }();
  return pki;
}

std::string PrivateKeyPem(EVP_PKEY* key, const std::string& passPhrase) {
  BIO* bio = BIO_new(BIO_s_mem());
  const bool encrypt = !passPhrase.empty();
  check(PEM_write_bio_PrivateKey(
            bio, key, encrypt ? EVP_aes_256_cbc() : nullptr,
            encrypt ? reinterpret_cast<const unsigned char*>(passPhrase.data()) : nullptr,
            static_cast<int>(passPhrase.size()), nullptr, nullptr) == 1,
        "PEM_write_bio_PrivateKey");
  return drain(bio);
}

std::vector<unsigned char> SignRS512(EVP_PKEY* key, const std::string& data) {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  size_t length = 0;
  check(EVP_DigestSignInit(ctx, nullptr, EVP_sha512(), nullptr, key) == 1 &&
            EVP_DigestSign(ctx, nullptr, &length,
                           reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1,
        "sign init");
  std::vector<unsigned char> signature(length);
  check(EVP_DigestSign(ctx, signature.data(), &length,
                       reinterpret_cast<const unsigned char*>(data.data()), data.size()) == 1,
        "sign");
  signature.resize(length);
  EVP_MD_CTX_free(ctx);
  return signature;
}

std::vector<unsigned char> EncryptOaep(EVP_PKEY* key, const std::string& plaintext) {
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
  size_t length = 0;
  const auto* in = reinterpret_cast<const unsigned char*>(plaintext.data());
  check(ctx != nullptr && EVP_PKEY_encrypt_init(ctx) == 1 &&
            EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) == 1 &&
            EVP_PKEY_encrypt(ctx, nullptr, &length, in, plaintext.size()) == 1,
        "encrypt init");
  std::vector<unsigned char> cipher(length);
  check(EVP_PKEY_encrypt(ctx, cipher.data(), &length, in, plaintext.size()) == 1, "encrypt");
  cipher.resize(length);
  EVP_PKEY_CTX_free(ctx);
  return cipher;
}

}  // namespace LumTest
