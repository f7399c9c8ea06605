#pragma once

#include "Platform/LumJson.h"

namespace Lum {
namespace Sv {

// Runs the command requests of one task against the registry of
// CommandManager. A task document comes from the network, so every member
// is checked for its kind before it is read: no document makes these calls
// throw or crash, and every failure is answered in the failing request's
// "RESULT" without stopping the others.
class CommandExecutor {
 public:
  // `output` becomes {"RESPONSES": [...]}, one response per element of the
  // request's "REQUESTS" array, in order; [] when there is no such array.
  static void processCommands(const LumJson::Value& request, LumJson::Value& output);

  // `response` becomes {"COMMAND": the request's "COMMAND" as it is (null
  // when absent), "RESULT": code, "OUTPUTS": [...]}. A request that is not
  // an object, or whose "COMMAND" is not an object with a string "NAME", a
  // string "OPERATION" (when present) and an unsigned "VERSION" (when
  // present), answers 3 without running anything.
  static void processCommand(const LumJson::Value& request, LumJson::Value& response);
};

}  // namespace Sv
}  // namespace Lum
