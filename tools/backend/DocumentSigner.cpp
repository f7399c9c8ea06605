#include "tools/backend/DocumentSigner.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>
#include <vector>

#include "tools/backend/JsonText.h"

namespace Lum {
namespace Tools {

namespace {

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct MdFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

bool DocumentSigner::create(const TestPki& pki, bool trustedCa, std::string* error) {
  return pki.issueLeaf(trustedCa ? "update-signer" : "rogue-update-signer", KeyType::Rsa2048,
                       trustedCa, &certPem_, &keyPem_, error);
}

std::string DocumentSigner::signature(const std::string& document) const {
  std::unique_ptr<BIO, BioFree> bio(
      BIO_new_mem_buf(keyPem_.data(), static_cast<int>(keyPem_.size())));
  if (!bio) {
    return std::string();
  }
  std::unique_ptr<EVP_PKEY, KeyFree> key(
      PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  std::unique_ptr<EVP_MD_CTX, MdFree> ctx(EVP_MD_CTX_new());
  if (!key || !ctx ||
      EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha512(), nullptr, key.get()) != 1) {
    return std::string();
  }
  size_t length = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(document.data());
  if (EVP_DigestSign(ctx.get(), nullptr, &length, data, document.size()) != 1) {
    return std::string();
  }
  std::vector<unsigned char> raw(length);
  if (EVP_DigestSign(ctx.get(), raw.data(), &length, data, document.size()) != 1) {
    return std::string();
  }
  std::vector<unsigned char> encoded(4 * ((length + 2) / 3) + 1);
  const int written = EVP_EncodeBlock(encoded.data(), raw.data(), static_cast<int>(length));
  return std::string(reinterpret_cast<const char*>(encoded.data()), static_cast<size_t>(written));
}

std::string DocumentSigner::sign(const std::string& document) const {
  const std::string signed64 = signature(document);
  if (signed64.empty()) {
    return std::string();
  }
  LumJson::Value envelope(LumJson::objectValue);
  envelope["document"] = document;
  envelope["signature"] = signed64;
  envelope["certificate"] = certPem_;
  return JsonText::Compact(envelope);
}

}  // namespace Tools
}  // namespace Lum
