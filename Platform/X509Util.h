#pragma once

#include <string>

namespace Lum {
namespace Core {

// X.509 certificate inspection on PEM text held in memory.
// Stateless; safe from any thread.
class X509Util {
 public:
  // Copies the raw bytes of the first common-name entry of the certificate's
  // subject into `commonName`; on any failure `commonName` keeps its value.
  static void GetCommonName(const std::string& certificatePem, std::string& commonName);

  // True when `leafPem` verifies against a trust store made of every
  // certificate in `caPem`, with the certificates of `intermediatesPem` as
  // untrusted chain material. Failures log "ERROR: %s".
  static bool VerifyChain(const std::string& leafPem, const std::string& intermediatesPem,
                          const std::string& caPem);
};

}  // namespace Core
}  // namespace Lum
