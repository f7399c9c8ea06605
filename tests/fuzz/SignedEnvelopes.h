#pragma once

// Envelopes for the targets whose documents the back end signs: the
// fuzzed document signed by a signer the device trusts, the same envelope
// with its document swapped for other bytes, one signed by a signer from
// another authority, or the raw input taken as the envelope. Whether the
// device must open it follows from how it was made.

#include <string>

#include "Platform/JsonUtil.h"
#include "fuzz/FuzzSupport.h"
#include "tools/backend/DocumentSigner.h"
#include "tools/pki/TestPki.h"

namespace LumFuzz {

class SignedEnvelopes {
 public:
  enum Mode { Raw = 0, Signed = 1, Altered = 2, Rogue = 3 };

  SignedEnvelopes() {
    if (!pki_.generate() || !signer_.create(pki_, true) || !rogue_.create(pki_, false)) {
      Fail("test PKI generation failed");
    }
  }

  const std::string& trust() const { return pki_.caCertPem(); }

  // The envelope for `document` in `mode` (bits 0-1); `other` is the
  // document an altered envelope carries. `mustOpen` tells whether the
  // device has to accept it: only what the trusted signer signed, unaltered.
  std::string make(unsigned mode, const std::string& document, const std::string& other,
                   bool& mustOpen) const {
    mustOpen = false;
    switch (mode & 3) {
      case Raw:
        // Made with no key of this process: it cannot be signed.
        return document;
      case Rogue:
        return Sign(rogue_, document);
      default:
        break;
    }
    std::string envelope = Sign(signer_, document);
    if ((mode & 3) == Altered) {
      LumJson::Value parsed;
      Lum::Core::JsonUtil::ParseObject(envelope, parsed);
      parsed["document"] = other;
      envelope = Lum::Core::JsonUtil::WriteCompact(parsed);
    }
    // A JSON text carries only UTF-8: other bytes arrive as U+FFFD, and what
    // arrives is not what was signed. An empty document is no document.
    LumJson::Value carried;
    mustOpen = !document.empty() && Lum::Core::JsonUtil::ParseObject(envelope, carried) &&
               carried["document"].asString() == document;
    return envelope;
  }

 private:
  static std::string Sign(const Lum::Tools::DocumentSigner& signer, const std::string& document) {
    const std::string envelope = signer.sign(document);
    if (envelope.empty()) Fail("signing failed");
    return envelope;
  }

  Lum::Tools::TestPki pki_;
  Lum::Tools::DocumentSigner signer_;
  Lum::Tools::DocumentSigner rogue_;
};

}  // namespace LumFuzz
