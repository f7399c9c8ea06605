#include "Platform/RsaUtil.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdlib>
#include <cstring>

#include "Platform/Logger.h"
#include "Platform/OpenSslError.h"
#include "Platform/OpenSslPtr.h"

LUM_SOURCE_FILE("Platform/RsaUtil");

namespace Lum {
namespace Core {

namespace {

void logFailure() {
  LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
          FilterProperties::SEVERITY_ERROR, "ERROR: %s", OpenSslError::Take().c_str());
}

// Hands OpenSSL the caller's pass phrase. Without a pass phrase it fails the
// read instead of letting OpenSSL prompt on a terminal, which an agent living
// inside the television's process must never do.
int passPhraseCallback(char* buffer, int size, int /*rwflag*/, void* userData) {
  if (userData == nullptr || size <= 0) {
    return 0;
  }
  const char* passPhrase = static_cast<const char*>(userData);
  const size_t length = strnlen(passPhrase, static_cast<size_t>(size));
  memcpy(buffer, passPhrase, length);
  return static_cast<int>(length);
}

PkeyPtr readPublicKey(const std::string& certificatePem) {
  BioPtr bio = NewPemBio(certificatePem);
  if (!bio) {
    return nullptr;
  }
  X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  if (!cert) {
    return nullptr;
  }
  return PkeyPtr(X509_get_pubkey(cert.get()));
}

PkeyPtr readPrivateKey(const char* keyPem, const char* passPhrase) {
  BioPtr bio(BIO_new_mem_buf(keyPem, -1));
  if (!bio) {
    return nullptr;
  }
  return PkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, passPhraseCallback,
                                         const_cast<char*>(passPhrase)));
}

// Queues an error for a key of the wrong type so the failure is logged with a
// text that names the cause, like every other failure here.
bool requireRsa(EVP_PKEY* key) {
  if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA) {
    return true;
  }
  ERR_raise(ERR_LIB_EVP, EVP_R_EXPECTING_AN_RSA_KEY);
  return false;
}

bool sha512(const unsigned char* data, unsigned length, unsigned char* digest,
            unsigned& digestLength) {
  return EVP_Digest(data, length, digest, &digestLength, EVP_sha512(), nullptr) == 1;
}

bool verifyDigest(EVP_PKEY* key, const unsigned char* digest, unsigned digestLength,
                  const unsigned char* signature, unsigned signatureLength) {
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
  return ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
         EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha512()) == 1 &&
         EVP_PKEY_verify(ctx.get(), signature, signatureLength, digest, digestLength) == 1;
}

bool decryptOaep(EVP_PKEY* key, const unsigned char* in, unsigned inLength, unsigned char* out,
                 size_t& outLength) {
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
  return ctx && EVP_PKEY_decrypt_init(ctx.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) == 1 &&
         EVP_PKEY_decrypt(ctx.get(), out, &outLength, in, inLength) == 1;
}

}  // namespace

bool RsaUtil::VerifyRS512(const std::string& certificatePem, const unsigned char* data,
                          unsigned dataLength, const unsigned char* signature,
                          unsigned signatureLength) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  OpenSslError::Clear();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned digestLength = 0;
  if (!sha512(data, dataLength, digest, digestLength)) {
    logFailure();
    return false;
  }
  PkeyPtr key = readPublicKey(certificatePem);
  if (!key || !requireRsa(key.get()) ||
      !verifyDigest(key.get(), digest, digestLength, signature, signatureLength)) {
    logFailure();
    return false;
  }
  return true;
}

bool RsaUtil::Decrypt(const char* keyPem, const char* passPhrase, const unsigned char* in,
                      unsigned inLength, unsigned char*& out, unsigned& outLength) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  OpenSslError::Clear();
  out = nullptr;
  PkeyPtr key = keyPem != nullptr ? readPrivateKey(keyPem, passPhrase) : nullptr;
  if (!key || !requireRsa(key.get())) {
    logFailure();
    return false;
  }
  // OAEP plaintext is always shorter than the modulus, so the key size bounds it.
  size_t length = static_cast<size_t>(EVP_PKEY_get_size(key.get()));
  out = static_cast<unsigned char*>(malloc(length));
  if (out == nullptr || !decryptOaep(key.get(), in, inLength, out, length)) {
    free(out);
    out = nullptr;
    logFailure();
    return false;
  }
  outLength = static_cast<unsigned>(length);
  return true;
}

}  // namespace Core
}  // namespace Lum
