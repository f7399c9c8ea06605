#include "Platform/X509Util.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include "Platform/Logger.h"
#include "Platform/OpenSslError.h"
#include "Platform/OpenSslPtr.h"

LUM_SOURCE_FILE("Platform/X509Util");

namespace Lum {
namespace Core {

namespace {

void logError(const char* text) {
  LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
          FilterProperties::SEVERITY_ERROR, "ERROR: %s", text);
}

X509Ptr readCertificate(const std::string& pem) {
  BioPtr bio = NewPemBio(pem);
  if (!bio) {
    return nullptr;
  }
  return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

// Reads every certificate of a PEM text. The read that ends the loop leaves a
// "no start line" error on the queue, which is the normal end of the text and
// is dropped so it cannot be reported as the cause of a later failure.
X509StackPtr readCertificates(const std::string& pem) {
  X509StackPtr certs(sk_X509_new_null());
  BioPtr bio = NewPemBio(pem);
  if (!certs || !bio) {
    return nullptr;
  }
  while (X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    if (sk_X509_push(certs.get(), cert) == 0) {
      X509_free(cert);
      return nullptr;
    }
  }
  if (ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE) {
    ERR_clear_error();
  }
  return certs;
}

X509StorePtr buildTrustStore(STACK_OF(X509) * roots) {
  X509StorePtr store(X509_STORE_new());
  if (!store) {
    return nullptr;
  }
  for (int i = 0; i < sk_X509_num(roots); ++i) {
    if (X509_STORE_add_cert(store.get(), sk_X509_value(roots, i)) != 1) {
      return nullptr;
    }
  }
  return store;
}

}  // namespace

void X509Util::GetCommonName(const std::string& certificatePem, std::string& commonName) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  OpenSslError::Clear();
  X509Ptr cert = readCertificate(certificatePem);
  X509_NAME* subject = cert ? X509_get_subject_name(cert.get()) : nullptr;
  const int index = subject ? X509_NAME_get_index_by_NID(subject, NID_commonName, -1) : -1;
  X509_NAME_ENTRY* entry = index >= 0 ? X509_NAME_get_entry(subject, index) : nullptr;
  ASN1_STRING* value = entry ? X509_NAME_ENTRY_get_data(entry) : nullptr;
  if (value != nullptr) {
    commonName.assign(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                      static_cast<size_t>(ASN1_STRING_length(value)));
  }
  OpenSslError::Clear();
}

bool X509Util::VerifyChain(const std::string& leafPem, const std::string& intermediatesPem,
                           const std::string& caPem) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  OpenSslError::Clear();
  X509StackPtr roots = readCertificates(caPem);
  X509StorePtr store = roots ? buildTrustStore(roots.get()) : nullptr;
  X509Ptr leaf = store ? readCertificate(leafPem) : nullptr;
  X509StackPtr intermediates = leaf ? readCertificates(intermediatesPem) : nullptr;
  X509StoreCtxPtr ctx(intermediates ? X509_STORE_CTX_new() : nullptr);
  if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), leaf.get(), intermediates.get()) != 1) {
    logError(OpenSslError::Take().c_str());
    return false;
  }
  if (X509_verify_cert(ctx.get()) != 1) {
    // A chain that does not verify usually queues no library error; the
    // verifier's own reason is then the informative text.
    const int reason = X509_STORE_CTX_get_error(ctx.get());
    if (ERR_peek_error() == 0 && reason != X509_V_OK) {
      logError(X509_verify_cert_error_string(reason));
    } else {
      logError(OpenSslError::Take().c_str());
    }
    return false;
  }
  return true;
}

}  // namespace Core
}  // namespace Lum
