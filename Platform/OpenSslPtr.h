#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>

namespace Lum {
namespace Core {

// Owning pointers for the OpenSSL objects the crypto utilities create, so that
// every early return releases what was built so far.
struct OpenSslDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509* cert) const { X509_free(cert); }
  void operator()(X509_STORE* store) const { X509_STORE_free(store); }
  void operator()(X509_STORE_CTX* ctx) const { X509_STORE_CTX_free(ctx); }
  void operator()(STACK_OF(X509) * certs) const { sk_X509_pop_free(certs, X509_free); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};

using BioPtr = std::unique_ptr<BIO, OpenSslDeleter>;
using X509Ptr = std::unique_ptr<X509, OpenSslDeleter>;
using X509StorePtr = std::unique_ptr<X509_STORE, OpenSslDeleter>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, OpenSslDeleter>;
using X509StackPtr = std::unique_ptr<STACK_OF(X509), OpenSslDeleter>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslDeleter>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, OpenSslDeleter>;

// A read-only memory BIO over PEM text; OpenSSL does not copy the text, so it
// must outlive the BIO.
inline BioPtr NewPemBio(const std::string& pem) {
  return BioPtr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

}  // namespace Core
}  // namespace Lum
