#pragma once

#include <string>

namespace Lum {
namespace Tools {

// Which server certificate the local back end presents.
enum class ServerCertKind {
  Default,      // "*.lum.localhost", issued by the trusted CA
  UntrustedCa,  // same names, issued by a CA the device does not trust
  WrongHost,    // issued by the trusted CA, but only for "wrong.example.localhost"
};

// Which stapled OCSP answer a server certificate comes with.
enum class OcspStatus {
  Good,
  Revoked,
  Expired,                 // status good, but nextUpdate lies a day in the past
  Stale,                   // status good, no nextUpdate, thisUpdate 400 days ago
  FreshWithoutNextUpdate,  // status good, no nextUpdate, thisUpdate an hour ago
};

// Key algorithm of a generated certificate.
enum class KeyType {
  EcP256,   // fast to generate; used for the CAs and the servers
  Rsa2048,  // used for devices: the agent may also decrypt with its key
};

// One device's credentials, PEM texts throughout.
struct DeviceIdentity {
  std::string commonName;       // "OPID.lum.localhost:PORT"
  std::string certPem;          // device certificate, issued by the trusted CA
  std::string keyPem;           // its private key, unencrypted PKCS#8
  std::string encryptedKeyPem;  // the same key, PKCS#8 encrypted under passPhrase
  std::string passPhrase;
  std::string otherKeyPem;   // a key of the same type that does NOT belong to certPem
  std::string rogueCertPem;  // same common name, issued by the untrusted CA
  std::string rogueKeyPem;   // the key of rogueCertPem
  std::string trustPem;      // what the device trusts: the CA certificate

  // The identity text the agent takes at start-up: {"key", "cert", "trust",
  // "password"}; with `encrypted` the pass-phrase protected key and its phrase.
  std::string identityJson(bool encrypted = true) const;
};

// A throwaway PKI for tests and for manual runs against the local back end.
//
// One CA signs the server and device certificates (the back end verifies
// clients against it, the device trusts it for the server). A second,
// untrusted CA signs a server certificate and a device certificate that the
// other side must refuse. For every server certificate there are signed OCSP
// responses (DER) for stapling.
//
// Generation is a few milliseconds for the EC keys and a few tens for each
// RSA device key, so a test binary builds one PKI and issues one device per
// back end (the device certificate names the back end's port).
//
// Files written by writeTo() / read by load(), all in one directory:
//   "ca-cert.pem", "ca-key.pem"                   trusted CA (also the device CA)
//   "server-cert.pem", "server-key.pem"           "*.lum.localhost", "lum.localhost",
//                                                 "localhost", 127.0.0.1
//   "ocsp-good.der", "ocsp-revoked.der",          OCSP responses for server-cert.pem,
//   "ocsp-expired.der", "ocsp-stale.der",         signed by the CA
//   "ocsp-fresh-no-next-update.der"
//   "untrusted-ca-cert.pem", "untrusted-ca-key.pem"
//   "untrusted-server-cert.pem", "untrusted-server-key.pem", "untrusted-ocsp-good.der"
//   "wronghost-server-cert.pem", "wronghost-server-key.pem", "wronghost-ocsp-good.der"
// and, when a device is given:
//   "device-cert.pem", "device-key.pem"           CN "OPID.lum.localhost:PORT"
//   "device-key-encrypted.pem", "device-pass.txt" the same key under the pass phrase
//   "device-other-key.pem"                        a key that does not match the cert
//   "rogue-device-cert.pem", "rogue-device-key.pem"  issued by the untrusted CA
//   "identity.json"                               the agent's identity text
//
// Not thread-safe while generating or loading; afterwards the const accessors
// may be used from any thread (no member changes).
class TestPki {
 public:
  static constexpr const char* kCaCert = "ca-cert.pem";
  static constexpr const char* kCaKey = "ca-key.pem";
  static constexpr const char* kServerCert = "server-cert.pem";
  static constexpr const char* kServerKey = "server-key.pem";
  static constexpr const char* kOcspGood = "ocsp-good.der";
  static constexpr const char* kOcspRevoked = "ocsp-revoked.der";
  static constexpr const char* kOcspExpired = "ocsp-expired.der";
  static constexpr const char* kOcspStale = "ocsp-stale.der";
  static constexpr const char* kOcspFreshWithoutNextUpdate = "ocsp-fresh-no-next-update.der";
  static constexpr const char* kUntrustedCaCert = "untrusted-ca-cert.pem";
  static constexpr const char* kUntrustedCaKey = "untrusted-ca-key.pem";
  static constexpr const char* kUntrustedServerCert = "untrusted-server-cert.pem";
  static constexpr const char* kUntrustedServerKey = "untrusted-server-key.pem";
  static constexpr const char* kUntrustedOcspGood = "untrusted-ocsp-good.der";
  static constexpr const char* kWrongHostServerCert = "wronghost-server-cert.pem";
  static constexpr const char* kWrongHostServerKey = "wronghost-server-key.pem";
  static constexpr const char* kWrongHostOcspGood = "wronghost-ocsp-good.der";
  static constexpr const char* kDeviceCert = "device-cert.pem";
  static constexpr const char* kDeviceKey = "device-key.pem";
  static constexpr const char* kDeviceKeyEncrypted = "device-key-encrypted.pem";
  static constexpr const char* kDevicePass = "device-pass.txt";
  static constexpr const char* kDeviceOtherKey = "device-other-key.pem";
  static constexpr const char* kRogueDeviceCert = "rogue-device-cert.pem";
  static constexpr const char* kRogueDeviceKey = "rogue-device-key.pem";
  static constexpr const char* kIdentityJson = "identity.json";

  static constexpr const char* kDefaultPassPhrase = "lum-test-pass";

  // The common name of a device whose back end listens on `port`.
  static std::string DeviceCommonName(const std::string& opid, int port);

  TestPki() = default;

  // Creates both CAs, the three server certificates and their OCSP responses.
  // False (and a reason in *error) when OpenSSL refuses something.
  bool generate(std::string* error = nullptr);

  // Reads a directory written by writeTo(); device files are optional.
  bool load(const std::string& dir, std::string* error = nullptr);

  // Writes the PKI (and the device, if given) into `dir`, which must exist.
  bool writeTo(const std::string& dir, const DeviceIdentity* device = nullptr,
               std::string* error = nullptr) const;

  // Issues a device certificate for `commonName` (normally DeviceCommonName())
  // with its keys and a rogue twin from the untrusted CA. False on failure.
  bool issueDevice(const std::string& commonName, DeviceIdentity* device,
                   const std::string& passPhrase = kDefaultPassPhrase,
                   KeyType keyType = KeyType::Rsa2048, std::string* error = nullptr) const;

  // Generic issuance for later needs (for example a signing certificate):
  // a leaf certificate signed by the trusted CA (or the untrusted one).
  bool issueLeaf(const std::string& commonName, KeyType keyType, bool trustedCa,
                 std::string* certPem, std::string* keyPem, std::string* error = nullptr) const;

  bool valid() const { return !caCertPem_.empty() && !serverCertPem_.empty(); }
  const std::string& caCertPem() const { return caCertPem_; }
  const std::string& untrustedCaCertPem() const { return untrustedCaCertPem_; }
  const std::string& serverCertPem(ServerCertKind kind) const;
  const std::string& serverKeyPem(ServerCertKind kind) const;
  // DER bytes of a stapled OCSP response for the given server certificate. Only
  // the default certificate has answers other than good; the others return
  // their good answer whatever the status asked for.
  const std::string& ocspResponse(ServerCertKind kind, OcspStatus status) const;
  // Device material read by load(); empty commonName when the files were absent.
  const DeviceIdentity& loadedDevice() const { return loadedDevice_; }

 private:
  std::string caCertPem_, caKeyPem_;
  std::string untrustedCaCertPem_, untrustedCaKeyPem_;
  std::string serverCertPem_, serverKeyPem_;
  std::string untrustedServerCertPem_, untrustedServerKeyPem_;
  std::string wrongHostServerCertPem_, wrongHostServerKeyPem_;
  std::string ocspGood_, ocspRevoked_, ocspExpired_, ocspStale_, ocspFreshWithoutNextUpdate_;
  std::string untrustedOcspGood_, wrongHostOcspGood_;
  DeviceIdentity loadedDevice_;
};

}  // namespace Tools
}  // namespace Lum
