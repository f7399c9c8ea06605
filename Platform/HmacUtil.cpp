#include "Platform/HmacUtil.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstdlib>

#include "Platform/Base64.h"
#include "Platform/Logger.h"
#include "Platform/OpenSslError.h"

LUM_SOURCE_FILE("Platform/HmacUtil");

namespace Lum {
namespace Core {

void HmacUtil::GetHmacSha256(std::vector<unsigned char> key, const std::string& data,
                             std::string& out) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  out.clear();
  OpenSslError::Clear();
  // An empty key is legitimate for HMAC, but an empty vector's data() may be
  // null; hand OpenSSL a valid pointer so that case never rests on how it
  // treats a null key.
  static const unsigned char kEmptyKey = 0;
  const unsigned char* keyBytes = key.empty() ? &kEmptyKey : key.data();
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned macLength = 0;
  if (HMAC(EVP_sha256(), keyBytes, static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(data.data()), data.size(), mac,
           &macLength) == nullptr) {
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
            FilterProperties::SEVERITY_ERROR, "ERROR: %s", OpenSslError::Take().c_str());
    return;
  }
  if (macLength == 0) {
    return;
  }
  char* text = nullptr;
  unsigned textLength = 0;
  base64_encode(mac, macLength, text, textLength);
  if (text != nullptr) {
    out.assign(text, textLength);
    free(text);
  }
}

}  // namespace Core
}  // namespace Lum
