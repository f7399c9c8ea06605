#include "Platform/Sha256Util.h"

#include <openssl/evp.h>

#include "Platform/Logger.h"
#include "Platform/OpenSslError.h"

LUM_SOURCE_FILE("Platform/Sha256Util");

namespace Lum {
namespace Core {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

std::string toHex(const unsigned char* bytes, unsigned length) {
  std::string hex(static_cast<size_t>(length) * 2, '0');
  for (unsigned i = 0; i < length; ++i) {
    hex[2 * i] = kHexDigits[bytes[i] >> 4];
    hex[2 * i + 1] = kHexDigits[bytes[i] & 0x0f];
  }
  return hex;
}

}  // namespace

void Sha256Util::Hash(const std::string& in, std::string& out) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  out.clear();
  OpenSslError::Clear();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned digestLength = 0;
  if (EVP_Digest(in.data(), in.size(), digest, &digestLength, EVP_sha256(), nullptr) != 1) {
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
            FilterProperties::SEVERITY_ERROR, "ERROR: %s", OpenSslError::Take().c_str());
    return;
  }
  out = toHex(digest, digestLength);
}

}  // namespace Core
}  // namespace Lum
