#pragma once

#include <string>

#include "tools/pki/TestPki.h"

namespace Lum {
namespace Tools {

// Signs documents the way the back end hands them to devices: an envelope
//   {"document": TEXT, "signature": Base64(RSA-SHA512 over TEXT),
//    "certificate": PEM}
// with an RSA signing certificate issued once, at start, from the test PKI's
// trusted CA, or (for faults) from its untrusted CA: a rogue signer whose
// envelopes a device must refuse. Immutable after create(); sign() may be
// called from any thread.
class DocumentSigner {
 public:
  // Issues the signing certificate; false (reason in *error) on failure.
  bool create(const TestPki& pki, bool trustedCa, std::string* error = nullptr);
  bool valid() const { return !certPem_.empty(); }
  // The envelope text for `document`; empty when signing fails.
  std::string sign(const std::string& document) const;
  // Base64 of the signature alone, for envelopes assembled by hand.
  std::string signature(const std::string& document) const;
  const std::string& certificatePem() const { return certPem_; }

 private:
  std::string certPem_;
  std::string keyPem_;
};

}  // namespace Tools
}  // namespace Lum
