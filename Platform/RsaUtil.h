#pragma once

#include <string>

namespace Lum {
namespace Core {

// RSA operations on PEM material held in memory. Every failure returns false
// and logs "ERROR: %s" with OpenSSL's text for it. Stateless; safe from any
// thread.
class RsaUtil {
 public:
  // True only when `signature` is a valid RSASSA-PKCS1-v1_5 signature with
  // SHA-512 over `data` by the RSA key of the certificate `certificatePem`.
  // A certificate carrying any other kind of key is refused.
  static bool VerifyRS512(const std::string& certificatePem, const unsigned char* data,
                          unsigned dataLength, const unsigned char* signature,
                          unsigned signatureLength);

  // Decrypts `in` (RSA-OAEP) with the RSA private key in the NUL-terminated
  // `keyPem`, unlocked with `passPhrase` (null for an unencrypted key). On
  // success `out` is a malloc'ed buffer of the key's size holding `outLength`
  // plaintext bytes, freed by the caller with free(). On failure `out` is null.
  static bool Decrypt(const char* keyPem, const char* passPhrase, const unsigned char* in,
                      unsigned inLength, unsigned char*& out, unsigned& outLength);
};

}  // namespace Core
}  // namespace Lum
