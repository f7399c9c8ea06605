#include "tools/pki/OpenSslHandles.h"

#include <openssl/err.h>
#include <openssl/pem.h>

namespace Lum {
namespace Tools {

std::string OpenSslErrorText(const std::string& what) {
  unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0) {
    return what + " failed";
  }
  char text[256];
  ERR_error_string_n(code, text, sizeof(text));
  return what + " failed: " + text;
}

X509Ptr ReadCertPem(const std::string& pem) {
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) {
    return nullptr;
  }
  return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

EvpPkeyPtr ReadKeyPem(const std::string& pem, const std::string& passPhrase) {
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) {
    return nullptr;
  }
  // OpenSSL only reads the user data as the pass phrase when no callback is
  // given; it is never written through.
  void* phrase = passPhrase.empty() ? nullptr : const_cast<char*>(passPhrase.c_str());
  return EvpPkeyPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, phrase));
}

std::string CertToPem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) {
    return std::string();
  }
  char* data = nullptr;
  long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

std::string CommonNameOf(const X509* cert) {
  if (cert == nullptr) {
    return std::string();
  }
  const X509_NAME* subject = X509_get_subject_name(cert);
  int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0) {
    return std::string();
  }
  const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  unsigned char* utf8 = nullptr;
  int length = ASN1_STRING_to_UTF8(&utf8, data);
  if (length < 0) {
    return std::string();
  }
  std::string name(reinterpret_cast<char*>(utf8), static_cast<size_t>(length));
  OPENSSL_free(utf8);
  return name;
}

}  // namespace Tools
}  // namespace Lum
