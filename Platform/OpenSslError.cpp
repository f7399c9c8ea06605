#include "Platform/OpenSslError.h"

#include <openssl/err.h>

namespace Lum {
namespace Core {

void OpenSslError::Clear() {
  ERR_clear_error();
}

std::string OpenSslError::Take() {
  // ERR_error_string documents 256 bytes as enough for any message.
  char text[256];
  ERR_error_string_n(ERR_get_error(), text, sizeof(text));
  ERR_clear_error();
  return text;
}

}  // namespace Core
}  // namespace Lum
