#include "tools/pki/TestPki.h"

#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "Platform/LumJson.h"
#include "tools/pki/OpenSslHandles.h"

namespace Lum {
namespace Tools {

namespace {

constexpr long kDay = 24 * 60 * 60;
// Certificates start a day back so that a device clock a little behind the
// host still accepts them, and last long enough for any test run.
constexpr long kNotBefore = -kDay;
constexpr long kNotAfter = 30 * kDay;
// libcurl accepts OCSP answers up to five minutes past nextUpdate, so the
// expired answer ended a full day ago.
constexpr long kOcspThisUpdate = -60 * 60;
constexpr long kOcspNextUpdate = 7 * kDay;
constexpr long kOcspExpiredThisUpdate = -2 * kDay;
constexpr long kOcspExpiredNextUpdate = -kDay;
// An answer without nextUpdate never expires by libcurl's check; this one is
// far older than any client should accept.
constexpr long kOcspStaleThisUpdate = -400 * kDay;

constexpr const char* kServerNames =
    "DNS:*.lum.localhost,DNS:lum.localhost,DNS:localhost,IP:127.0.0.1";
constexpr const char* kWrongHostName = "wrong.example.localhost";

struct CertProfile {
  std::string commonName;
  bool ca = false;
  std::string extendedKeyUsage;  // "serverAuth", "clientAuth" or empty
  std::string subjectAltNames;   // in the configuration syntax, empty for none
};

bool Fail(std::string* error, const std::string& text) {
  if (error != nullptr) {
    *error = text;
  }
  return false;
}

EvpPkeyPtr GenerateKey(KeyType type) {
  if (type == KeyType::Rsa2048) {
    return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)));
  }
  return EvpPkeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
}

std::string KeyToPem(EVP_PKEY* key, const std::string& passPhrase = "") {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) {
    return std::string();
  }
  int written;
  if (passPhrase.empty()) {
    written = PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  } else {
    written = PEM_write_bio_PKCS8PrivateKey(bio.get(), key, EVP_aes_256_cbc(), passPhrase.c_str(),
                                            static_cast<int>(passPhrase.size()), nullptr, nullptr);
  }
  if (written != 1) {
    return std::string();
  }
  char* data = nullptr;
  long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

bool SetRandomSerial(X509* cert) {
  uint64_t serial = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) != 1) {
    return false;
  }
  serial &= 0x7fffffffffffffffULL;  // positive and never zero
  serial |= 1;
  return ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert), serial) == 1;
}

bool AddExtension(X509* cert, X509V3_CTX* ctx, int nid, const std::string& value) {
  X509ExtensionPtr extension(X509V3_EXT_nconf_nid(nullptr, ctx, nid, value.c_str()));
  return extension && X509_add_ext(cert, extension.get(), -1) == 1;
}

bool AddExtensions(X509* cert, X509* issuer, const CertProfile& profile) {
  X509V3_CTX ctx;
  X509V3_set_ctx(&ctx, issuer != nullptr ? issuer : cert, cert, nullptr, nullptr, 0);
  bool ok = AddExtension(cert, &ctx, NID_basic_constraints,
                         profile.ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
  ok = ok && AddExtension(cert, &ctx, NID_key_usage,
                          profile.ca ? "critical,keyCertSign,cRLSign,digitalSignature"
                                     : "critical,digitalSignature,keyEncipherment");
  ok = ok && AddExtension(cert, &ctx, NID_subject_key_identifier, "hash");
  ok = ok && AddExtension(cert, &ctx, NID_authority_key_identifier, "keyid:always");
  if (ok && !profile.extendedKeyUsage.empty()) {
    ok = AddExtension(cert, &ctx, NID_ext_key_usage, profile.extendedKeyUsage);
  }
  if (ok && !profile.subjectAltNames.empty()) {
    ok = AddExtension(cert, &ctx, NID_subject_alt_name, profile.subjectAltNames);
  }
  return ok;
}

// A certificate for `key`, signed by issuerKey; self-signed when issuer is null.
X509Ptr MakeCert(const CertProfile& profile, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey,
                 std::string* error) {
  X509Ptr cert(X509_new());
  if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1 || !SetRandomSerial(cert.get())) {
    Fail(error, OpenSslErrorText("certificate set-up"));
    return nullptr;
  }
  X509_NAME* subject = X509_get_subject_name(cert.get());
  const auto* cn = reinterpret_cast<const unsigned char*>(profile.commonName.c_str());
  const auto* org = reinterpret_cast<const unsigned char*>("Lum Test PKI");
  if (X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_UTF8, org, -1, -1, 0) != 1 ||
      X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, cn, -1, -1, 0) != 1) {
    Fail(error, OpenSslErrorText("subject name " + profile.commonName));
    return nullptr;
  }
  X509_NAME* issuerName = issuer != nullptr ? X509_get_subject_name(issuer) : subject;
  bool ok = X509_set_issuer_name(cert.get(), issuerName) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(cert.get()), kNotBefore) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(cert.get()), kNotAfter) != nullptr &&
            X509_set_pubkey(cert.get(), key) == 1 && AddExtensions(cert.get(), issuer, profile);
  if (!ok) {
    Fail(error, OpenSslErrorText("certificate fields for " + profile.commonName));
    return nullptr;
  }
  if (X509_sign(cert.get(), issuer != nullptr ? issuerKey : key, EVP_sha256()) <= 0) {
    Fail(error, OpenSslErrorText("signing " + profile.commonName));
    return nullptr;
  }
  return cert;
}

// A certificate and key in PEM form, signed by the given CA (self-signed when
// caCertPem is empty).
bool IssuePem(const CertProfile& profile, KeyType keyType, const std::string& caCertPem,
              const std::string& caKeyPem, std::string* certPem, std::string* keyPem,
              std::string* error) {
  EvpPkeyPtr key = GenerateKey(keyType);
  if (!key) {
    return Fail(error, OpenSslErrorText("key generation"));
  }
  X509Ptr caCert;
  EvpPkeyPtr caKey;
  if (!caCertPem.empty()) {
    caCert = ReadCertPem(caCertPem);
    caKey = ReadKeyPem(caKeyPem);
    if (!caCert || !caKey) {
      return Fail(error, OpenSslErrorText("reading the issuing CA"));
    }
  }
  X509Ptr cert = MakeCert(profile, key.get(), caCert.get(), caKey.get(), error);
  if (!cert) {
    return false;
  }
  *certPem = CertToPem(cert.get());
  *keyPem = KeyToPem(key.get());
  if (certPem->empty() || keyPem->empty()) {
    return Fail(error, OpenSslErrorText("PEM encoding " + profile.commonName));
  }
  return true;
}

// A signed OCSP response (DER) about `certPem`, issued by the CA that signed it.
bool MakeOcspResponse(const std::string& certPem, const std::string& caCertPem,
                      const std::string& caKeyPem, OcspStatus status, std::string* der,
                      std::string* error) {
  X509Ptr cert = ReadCertPem(certPem);
  X509Ptr caCert = ReadCertPem(caCertPem);
  EvpPkeyPtr caKey = ReadKeyPem(caKeyPem);
  if (!cert || !caCert || !caKey) {
    return Fail(error, OpenSslErrorText("reading OCSP material"));
  }
  const bool expired = status == OcspStatus::Expired;
  const bool stale = status == OcspStatus::Stale;
  const bool withNextUpdate = !stale && status != OcspStatus::FreshWithoutNextUpdate;
  Asn1TimePtr thisUpdate(X509_gmtime_adj(nullptr, expired ? kOcspExpiredThisUpdate
                                                  : stale ? kOcspStaleThisUpdate
                                                          : kOcspThisUpdate));
  Asn1TimePtr nextUpdate(
      X509_gmtime_adj(nullptr, expired ? kOcspExpiredNextUpdate : kOcspNextUpdate));
  Asn1TimePtr revokedAt(X509_gmtime_adj(nullptr, kOcspThisUpdate));
  OcspCertIdPtr id(OCSP_cert_to_id(EVP_sha1(), cert.get(), caCert.get()));
  OcspBasicRespPtr basic(OCSP_BASICRESP_new());
  if (!thisUpdate || !nextUpdate || !revokedAt || !id || !basic) {
    return Fail(error, OpenSslErrorText("OCSP set-up"));
  }
  bool revoked = status == OcspStatus::Revoked;
  if (OCSP_basic_add1_status(
          basic.get(), id.get(), revoked ? V_OCSP_CERTSTATUS_REVOKED : V_OCSP_CERTSTATUS_GOOD,
          revoked ? OCSP_REVOKED_STATUS_KEYCOMPROMISE : 0, revoked ? revokedAt.get() : nullptr,
          thisUpdate.get(), withNextUpdate ? nextUpdate.get() : nullptr) == nullptr ||
      OCSP_basic_sign(basic.get(), caCert.get(), caKey.get(), EVP_sha256(), nullptr, 0) != 1) {
    return Fail(error, OpenSslErrorText("OCSP signing"));
  }
  OcspResponsePtr response(OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, basic.get()));
  unsigned char* buffer = nullptr;
  int length = response ? i2d_OCSP_RESPONSE(response.get(), &buffer) : -1;
  if (length <= 0) {
    return Fail(error, OpenSslErrorText("OCSP encoding"));
  }
  der->assign(reinterpret_cast<char*>(buffer), static_cast<size_t>(length));
  OPENSSL_free(buffer);
  return true;
}

bool WriteFile(const std::string& dir, const std::string& name, const std::string& content,
               std::string* error) {
  std::ofstream out(dir + "/" + name, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) {
    return Fail(error, "cannot write " + dir + "/" + name);
  }
  return true;
}

bool ReadFile(const std::string& dir, const std::string& name, std::string* content) {
  std::ifstream in(dir + "/" + name, std::ios::binary);
  if (!in) {
    return false;
  }
  std::ostringstream buffer;
  buffer << in.rdbuf();
  *content = buffer.str();
  return true;
}

std::string TrimLineEnd(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
    text.pop_back();
  }
  return text;
}

}  // namespace

std::string DeviceIdentity::identityJson(bool encrypted) const {
  LumJson::Value identity(LumJson::objectValue);
  identity["key"] = encrypted ? encryptedKeyPem : keyPem;
  identity["cert"] = certPem;
  identity["trust"] = trustPem;
  identity["password"] = encrypted ? passPhrase : std::string();
  LumJson::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  return LumJson::writeString(writer, identity);
}

std::string TestPki::DeviceCommonName(const std::string& opid, int port) {
  return opid + ".lum.localhost:" + std::to_string(port);
}

bool TestPki::generate(std::string* error) {
  const std::string noCa;
  CertProfile ca{"Lum Test CA", true, "", ""};
  CertProfile untrustedCa{"Lum Untrusted Test CA", true, "", ""};
  CertProfile server{"lum.localhost", false, "serverAuth", kServerNames};
  CertProfile wrongHost{kWrongHostName, false, "serverAuth", std::string("DNS:") + kWrongHostName};
  bool ok = IssuePem(ca, KeyType::EcP256, noCa, noCa, &caCertPem_, &caKeyPem_, error) &&
            IssuePem(untrustedCa, KeyType::EcP256, noCa, noCa, &untrustedCaCertPem_,
                     &untrustedCaKeyPem_, error) &&
            IssuePem(server, KeyType::EcP256, caCertPem_, caKeyPem_, &serverCertPem_,
                     &serverKeyPem_, error) &&
            IssuePem(server, KeyType::EcP256, untrustedCaCertPem_, untrustedCaKeyPem_,
                     &untrustedServerCertPem_, &untrustedServerKeyPem_, error) &&
            IssuePem(wrongHost, KeyType::EcP256, caCertPem_, caKeyPem_, &wrongHostServerCertPem_,
                     &wrongHostServerKeyPem_, error);
  ok = ok &&
       MakeOcspResponse(serverCertPem_, caCertPem_, caKeyPem_, OcspStatus::Good, &ocspGood_,
                        error) &&
       MakeOcspResponse(serverCertPem_, caCertPem_, caKeyPem_, OcspStatus::Revoked, &ocspRevoked_,
                        error) &&
       MakeOcspResponse(serverCertPem_, caCertPem_, caKeyPem_, OcspStatus::Expired, &ocspExpired_,
                        error) &&
       MakeOcspResponse(serverCertPem_, caCertPem_, caKeyPem_, OcspStatus::Stale, &ocspStale_,
                        error) &&
       MakeOcspResponse(serverCertPem_, caCertPem_, caKeyPem_, OcspStatus::FreshWithoutNextUpdate,
                        &ocspFreshWithoutNextUpdate_, error) &&
       MakeOcspResponse(untrustedServerCertPem_, untrustedCaCertPem_, untrustedCaKeyPem_,
                        OcspStatus::Good, &untrustedOcspGood_, error) &&
       MakeOcspResponse(wrongHostServerCertPem_, caCertPem_, caKeyPem_, OcspStatus::Good,
                        &wrongHostOcspGood_, error);
  if (!ok) {
    *this = TestPki();
  }
  return ok;
}

bool TestPki::issueLeaf(const std::string& commonName, KeyType keyType, bool trustedCa,
                        std::string* certPem, std::string* keyPem, std::string* error) const {
  if (!valid()) {
    return Fail(error, "the PKI has not been generated or loaded");
  }
  CertProfile profile{commonName, false, "clientAuth", ""};
  return IssuePem(profile, keyType, trustedCa ? caCertPem_ : untrustedCaCertPem_,
                  trustedCa ? caKeyPem_ : untrustedCaKeyPem_, certPem, keyPem, error);
}

bool TestPki::issueDevice(const std::string& commonName, DeviceIdentity* device,
                          const std::string& passPhrase, KeyType keyType,
                          std::string* error) const {
  DeviceIdentity made;
  made.commonName = commonName;
  made.passPhrase = passPhrase;
  made.trustPem = caCertPem_;
  if (!issueLeaf(commonName, keyType, true, &made.certPem, &made.keyPem, error) ||
      !issueLeaf(commonName, keyType, false, &made.rogueCertPem, &made.rogueKeyPem, error)) {
    return false;
  }
  EvpPkeyPtr key = ReadKeyPem(made.keyPem);
  EvpPkeyPtr otherKey = GenerateKey(keyType);
  if (!key || !otherKey) {
    return Fail(error, OpenSslErrorText("device keys"));
  }
  made.encryptedKeyPem = KeyToPem(key.get(), passPhrase);
  made.otherKeyPem = KeyToPem(otherKey.get());
  if (made.encryptedKeyPem.empty() || made.otherKeyPem.empty()) {
    return Fail(error, OpenSslErrorText("device key encoding"));
  }
  *device = made;
  return true;
}

bool TestPki::writeTo(const std::string& dir, const DeviceIdentity* device,
                      std::string* error) const {
  if (!valid()) {
    return Fail(error, "the PKI has not been generated or loaded");
  }
  std::vector<std::pair<const char*, const std::string*>> files = {
      {kCaCert, &caCertPem_},
      {kCaKey, &caKeyPem_},
      {kServerCert, &serverCertPem_},
      {kServerKey, &serverKeyPem_},
      {kOcspGood, &ocspGood_},
      {kOcspRevoked, &ocspRevoked_},
      {kOcspExpired, &ocspExpired_},
      {kOcspStale, &ocspStale_},
      {kOcspFreshWithoutNextUpdate, &ocspFreshWithoutNextUpdate_},
      {kUntrustedCaCert, &untrustedCaCertPem_},
      {kUntrustedCaKey, &untrustedCaKeyPem_},
      {kUntrustedServerCert, &untrustedServerCertPem_},
      {kUntrustedServerKey, &untrustedServerKeyPem_},
      {kUntrustedOcspGood, &untrustedOcspGood_},
      {kWrongHostServerCert, &wrongHostServerCertPem_},
      {kWrongHostServerKey, &wrongHostServerKeyPem_},
      {kWrongHostOcspGood, &wrongHostOcspGood_},
  };
  std::string identity;
  std::string pass;
  if (device != nullptr) {
    identity = device->identityJson(true);
    pass = device->passPhrase + "\n";
    files.insert(files.end(), {{kDeviceCert, &device->certPem},
                               {kDeviceKey, &device->keyPem},
                               {kDeviceKeyEncrypted, &device->encryptedKeyPem},
                               {kDevicePass, &pass},
                               {kDeviceOtherKey, &device->otherKeyPem},
                               {kRogueDeviceCert, &device->rogueCertPem},
                               {kRogueDeviceKey, &device->rogueKeyPem},
                               {kIdentityJson, &identity}});
  }
  for (const auto& file : files) {
    if (!WriteFile(dir, file.first, *file.second, error)) {
      return false;
    }
  }
  return true;
}

bool TestPki::load(const std::string& dir, std::string* error) {
  TestPki loaded;
  std::vector<std::pair<const char*, std::string*>> required = {
      {kCaCert, &loaded.caCertPem_},
      {kCaKey, &loaded.caKeyPem_},
      {kServerCert, &loaded.serverCertPem_},
      {kServerKey, &loaded.serverKeyPem_},
      {kOcspGood, &loaded.ocspGood_},
      {kOcspRevoked, &loaded.ocspRevoked_},
      {kOcspExpired, &loaded.ocspExpired_},
      {kOcspStale, &loaded.ocspStale_},
      {kOcspFreshWithoutNextUpdate, &loaded.ocspFreshWithoutNextUpdate_},
      {kUntrustedCaCert, &loaded.untrustedCaCertPem_},
      {kUntrustedCaKey, &loaded.untrustedCaKeyPem_},
      {kUntrustedServerCert, &loaded.untrustedServerCertPem_},
      {kUntrustedServerKey, &loaded.untrustedServerKeyPem_},
      {kUntrustedOcspGood, &loaded.untrustedOcspGood_},
      {kWrongHostServerCert, &loaded.wrongHostServerCertPem_},
      {kWrongHostServerKey, &loaded.wrongHostServerKeyPem_},
      {kWrongHostOcspGood, &loaded.wrongHostOcspGood_},
  };
  for (const auto& file : required) {
    if (!ReadFile(dir, file.first, file.second) || file.second->empty()) {
      return Fail(error, std::string("missing or empty ") + dir + "/" + file.first);
    }
  }
  DeviceIdentity& device = loaded.loadedDevice_;
  if (ReadFile(dir, kDeviceCert, &device.certPem)) {
    std::string pass;
    ReadFile(dir, kDeviceKey, &device.keyPem);
    ReadFile(dir, kDeviceKeyEncrypted, &device.encryptedKeyPem);
    ReadFile(dir, kDeviceOtherKey, &device.otherKeyPem);
    ReadFile(dir, kRogueDeviceCert, &device.rogueCertPem);
    ReadFile(dir, kRogueDeviceKey, &device.rogueKeyPem);
    ReadFile(dir, kDevicePass, &pass);
    device.passPhrase = TrimLineEnd(pass);
    device.trustPem = loaded.caCertPem_;
    X509Ptr cert = ReadCertPem(device.certPem);
    device.commonName = CommonNameOf(cert.get());
  }
  *this = loaded;
  return true;
}

const std::string& TestPki::serverCertPem(ServerCertKind kind) const {
  switch (kind) {
    case ServerCertKind::UntrustedCa:
      return untrustedServerCertPem_;
    case ServerCertKind::WrongHost:
      return wrongHostServerCertPem_;
    case ServerCertKind::Default:
      break;
  }
  return serverCertPem_;
}

const std::string& TestPki::serverKeyPem(ServerCertKind kind) const {
  switch (kind) {
    case ServerCertKind::UntrustedCa:
      return untrustedServerKeyPem_;
    case ServerCertKind::WrongHost:
      return wrongHostServerKeyPem_;
    case ServerCertKind::Default:
      break;
  }
  return serverKeyPem_;
}

const std::string& TestPki::ocspResponse(ServerCertKind kind, OcspStatus status) const {
  if (kind == ServerCertKind::UntrustedCa) {
    return untrustedOcspGood_;
  }
  if (kind == ServerCertKind::WrongHost) {
    return wrongHostOcspGood_;
  }
  switch (status) {
    case OcspStatus::Revoked:
      return ocspRevoked_;
    case OcspStatus::Expired:
      return ocspExpired_;
    case OcspStatus::Stale:
      return ocspStale_;
    case OcspStatus::FreshWithoutNextUpdate:
      return ocspFreshWithoutNextUpdate_;
    case OcspStatus::Good:
      break;
  }
  return ocspGood_;
}

}  // namespace Tools
}  // namespace Lum
