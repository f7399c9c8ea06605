#pragma once

#include <string>

namespace Lum {
namespace Sv {

// The operations a command may offer, as bits of a mask: a descriptor's
// supportedOperations() combines them, a request names exactly one (or none,
// 0, when its "OPERATION" text is unknown). The underlying type is fixed, so
// any combination of bits is a valid value.
enum CommandOperation : unsigned {
  EXECUTE = 1,
  GET = 2,
  DESCRIPTION = 4,
  SESSION_TERMINATE = 16,
};

// What one request asks of a command.
struct CommandContext {
  std::string name;
  CommandOperation operation = CommandOperation(0);
  unsigned version = 0;
};

}  // namespace Sv
}  // namespace Lum
