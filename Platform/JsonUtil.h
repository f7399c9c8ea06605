#pragma once

#include <cstdint>
#include <string>

#include "Platform/LumJson.h"

namespace Lum {
namespace Core {

// The JSON idioms the agent repeats everywhere: strict parsing, compact
// writing, and reading a member with a default that an absent member or one
// of the wrong kind leaves in place.
class JsonUtil {
 public:
  // Strict parse of a whole text; false (and `out` unspecified) on any error.
  static bool ParseStrict(const std::string& text, LumJson::Value& out);
  // ParseStrict of a text that must hold an object; a null text is refused.
  static bool ParseObject(const char* text, LumJson::Value& out);
  static bool ParseObject(const std::string& text, LumJson::Value& out);
  // One line, no indentation and no trailing line feed.
  static std::string WriteCompact(const LumJson::Value& value);

  static std::string ReadText(const LumJson::Value& object, const char* key,
                              const std::string& fallback);
  static bool ReadBool(const LumJson::Value& object, const char* key, bool fallback);
  static uint32_t ReadUnsigned(const LumJson::Value& object, const char* key, uint32_t fallback);
};

}  // namespace Core
}  // namespace Lum
