#include "Platform/StringUtil.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace Lum {
namespace Core {

namespace {
constexpr size_t kFirstTry = 2048;
// A format that keeps failing is not worth unbounded memory.
constexpr size_t kGiveUpAt = 16 * 1024 * 1024;
}  // namespace

std::string StringUtil::Vform(const char* format, va_list args) {
  if (format == nullptr) {
    return std::string();
  }
  char stackBuffer[kFirstTry];
  va_list copy;
  va_copy(copy, args);
  int needed = vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
  va_end(copy);
  if (needed >= 0 && static_cast<size_t>(needed) < sizeof stackBuffer) {
    return std::string(stackBuffer, static_cast<size_t>(needed));
  }
  size_t size = needed >= 0 ? static_cast<size_t>(needed) + 1 : 2 * sizeof stackBuffer;
  while (size <= kGiveUpAt) {
    std::vector<char> buffer(size);
    va_copy(copy, args);
    needed = vsnprintf(buffer.data(), buffer.size(), format, copy);
    va_end(copy);
    if (needed >= 0 && static_cast<size_t>(needed) < buffer.size()) {
      return std::string(buffer.data(), static_cast<size_t>(needed));
    }
    size = needed >= 0 ? static_cast<size_t>(needed) + 1 : 2 * size;
  }
  return std::string();
}

std::string StringUtil::Form(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = Vform(format, args);
  va_end(args);
  return text;
}

char* StringUtil::DuplicateForHost(const std::string& text) {
  char* copy = static_cast<char*>(malloc(text.size() + 1));
  if (copy != nullptr) {
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
  }
  return copy;
}

}  // namespace Core
}  // namespace Lum
