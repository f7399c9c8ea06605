#include "Base/SignedDocument.h"

#include <cstdlib>

#include "Platform/Base64Util.h"
#include "Platform/JsonUtil.h"
#include "Platform/RsaUtil.h"
#include "Platform/X509Util.h"

namespace Lum {
namespace Core {

namespace {

// An RSA signature is as long as the key's modulus; 16384-bit keys are far
// beyond anything issued, so anything longer is not a signature.
constexpr size_t kMaxSignatureBase64 = 4096;

bool TextMember(const LumJson::Value& envelope, const char* name, std::string& out) {
  const LumJson::Value& member = envelope[name];
  if (!member.isString()) {
    return false;
  }
  out = member.asString();
  return !out.empty();
}

}  // namespace

bool SignedDocument::Open(const std::string& envelopeText, const std::string& trustPem,
                          std::string& documentText, std::string& why) {
  documentText.clear();
  LumJson::Value envelope;
  if (!JsonUtil::ParseObject(envelopeText, envelope)) {
    why = "the envelope is not a JSON object";
    return false;
  }
  std::string document;
  std::string signature;
  std::string certificate;
  if (!TextMember(envelope, "document", document)) {
    why = "the envelope has no document text";
    return false;
  }
  if (!TextMember(envelope, "signature", signature) || signature.size() > kMaxSignatureBase64) {
    why = "the envelope has no usable signature text";
    return false;
  }
  if (!TextMember(envelope, "certificate", certificate)) {
    why = "the envelope has no certificate text";
    return false;
  }
  if (trustPem.empty() || !X509Util::VerifyChain(certificate, "", trustPem)) {
    why = "the signing certificate does not chain to the trusted certificates";
    return false;
  }
  unsigned length = 0;
  unsigned char* raw = nullptr;
  Base64Util::Decode(signature, length, raw);
  if (raw == nullptr || length == 0) {
    free(raw);
    why = "the signature is not Base64";
    return false;
  }
  const bool verified =
      RsaUtil::VerifyRS512(certificate, reinterpret_cast<const unsigned char*>(document.data()),
                           static_cast<unsigned>(document.size()), raw, length);
  free(raw);
  if (!verified) {
    why = "the signature does not verify over the document";
    return false;
  }
  documentText.swap(document);
  return true;
}

}  // namespace Core
}  // namespace Lum
