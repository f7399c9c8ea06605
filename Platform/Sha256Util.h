#pragma once

#include <string>

namespace Lum {
namespace Core {

// SHA-256 digests as lower-case hexadecimal text (used for package hashes).
// Stateless; safe from any thread.
class Sha256Util {
 public:
  // `out` receives the 64-character digest of the bytes of `in`; on a failure
  // of the digest itself it is left empty and the error is logged.
  static void Hash(const std::string& in, std::string& out);
};

}  // namespace Core
}  // namespace Lum
