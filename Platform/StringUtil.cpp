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

bool StringUtil::IsUtf8(const char* begin, const char* end) {
  const auto* p = reinterpret_cast<const unsigned char*>(begin);
  const auto* stop = reinterpret_cast<const unsigned char*>(end);
  while (p < stop) {
    const unsigned lead = *p++;
    if (lead < 0x80) continue;
    // The continuation count and the range the second byte must fall in,
    // which is what rules out overlong forms, surrogates and values beyond
    // U+10FFFF.
    int more = 0;
    unsigned low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      more = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      more = 2;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      more = 3;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (stop - p < more || *p < low || *p > high) return false;
    for (++p, --more; more > 0; ++p, --more) {
      if ((*p & 0xC0) != 0x80) return false;
    }
  }
  return true;
}

}  // namespace Core
}  // namespace Lum
