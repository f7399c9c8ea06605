#include "Platform/Base64Util.h"

#include "Platform/Base64.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/Base64Util");

namespace Lum {
namespace Core {

void Base64Util::Encode(const std::string& in, unsigned& length, unsigned char*& out) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  char* text = nullptr;
  base64_encode(reinterpret_cast<const unsigned char*>(in.data()), static_cast<unsigned>(in.size()),
                text, length);
  out = reinterpret_cast<unsigned char*>(text);
}

void Base64Util::Decode(const std::string& in, unsigned& length, unsigned char*& out) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  base64_decode(in.data(), static_cast<unsigned>(in.size()), out, length);
}

}  // namespace Core
}  // namespace Lum
