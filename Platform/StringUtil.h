#pragma once

#include <cstdarg>
#include <string>

namespace Lum {
namespace Core {

class StringUtil {
 public:
  // printf into a string of any length: tries a 2048-byte buffer first and
  // retries once with the exact size (or twice the size when vsnprintf
  // reports an error).
  static std::string Vform(const char* format, va_list args);
  static std::string Form(const char* format, ...) __attribute__((format(printf, 1, 2)));
  // A malloc'd, NUL-terminated copy for a text handed to the host, which
  // frees it; null when the allocation fails.
  static char* DuplicateForHost(const std::string& text);
  // Well-formed UTF-8 only: no overlong forms, no surrogates, nothing beyond
  // U+10FFFF. The JSON reader passes other bytes through and its writer
  // replaces them, so a text that fails here would not be stored as given.
  static bool IsUtf8(const char* begin, const char* end);
};

}  // namespace Core
}  // namespace Lum
