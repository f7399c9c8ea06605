#pragma once

#include <string>

namespace Lum {
namespace Core {

// Base64 over std::string input. The output buffers come from malloc, are
// NUL-terminated after `length` bytes, and are freed by the caller with free().
// Stateless; safe from any thread.
class Base64Util {
 public:
  static void Encode(const std::string& in, unsigned& length, unsigned char*& out);
  static void Decode(const std::string& in, unsigned& length, unsigned char*& out);
};

}  // namespace Core
}  // namespace Lum
