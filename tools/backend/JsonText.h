#pragma once

#include <string>

#include "Platform/LumJson.h"

namespace Lum {
namespace Tools {

// The back end's JSON reading and writing. Its own, not the agent's
// JsonUtil: the back end tests the agent, so it must not share the code
// under test.
class JsonText {
 public:
  // Strict parse of a whole text; false on any error, too deep a nesting
  // included.
  static bool ParseStrict(const std::string& text, LumJson::Value* value);
  // One line, no trailing line feed.
  static std::string Compact(const LumJson::Value& value);
};

}  // namespace Tools
}  // namespace Lum
