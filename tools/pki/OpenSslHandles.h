#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ocsp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace Lum {
namespace Tools {

// Owning handles for the OpenSSL objects the tools create, so that every
// early return frees what was made so far.
template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const { Free(p); }
};

template <typename T, void (*Free)(T*)>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter<T, Free>>;

using BioPtr = OpenSslPtr<BIO, BIO_free_all>;
using EvpPkeyPtr = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using X509Ptr = OpenSslPtr<X509, X509_free>;
using X509StorePtr = OpenSslPtr<X509_STORE, X509_STORE_free>;
using X509ExtensionPtr = OpenSslPtr<X509_EXTENSION, X509_EXTENSION_free>;
using OcspBasicRespPtr = OpenSslPtr<OCSP_BASICRESP, OCSP_BASICRESP_free>;
using OcspResponsePtr = OpenSslPtr<OCSP_RESPONSE, OCSP_RESPONSE_free>;
using OcspCertIdPtr = OpenSslPtr<OCSP_CERTID, OCSP_CERTID_free>;
using Asn1TimePtr = OpenSslPtr<ASN1_TIME, ASN1_TIME_free>;
using SslCtxPtr = OpenSslPtr<SSL_CTX, SSL_CTX_free>;
using SslPtr = OpenSslPtr<SSL, SSL_free>;

// The first queued OpenSSL error as text (and the queue emptied), prefixed by
// what was being done.
std::string OpenSslErrorText(const std::string& what);

// PEM text <-> objects; null / empty on failure.
X509Ptr ReadCertPem(const std::string& pem);
EvpPkeyPtr ReadKeyPem(const std::string& pem, const std::string& passPhrase = "");
std::string CertToPem(X509* cert);

// The subject's common name as UTF-8, empty when absent.
std::string CommonNameOf(const X509* cert);

}  // namespace Tools
}  // namespace Lum
