#pragma once

#include <string>
#include <vector>

namespace Lum {
namespace Core {

// HMAC-SHA256 message authentication codes as Base64 text.
// Stateless; safe from any thread.
class HmacUtil {
 public:
  // Empties `out`, then stores the 44-character Base64 text (with padding, no
  // line break) of HMAC-SHA256(key, data). An empty key is a valid key.
  static void GetHmacSha256(std::vector<unsigned char> key, const std::string& data,
                            std::string& out);
};

}  // namespace Core
}  // namespace Lum
