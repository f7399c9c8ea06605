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

// The "RESULT" of one request, as the back end reads it.
enum CommandResult : int {
  kCommandSuccess = 0,
  kCommandFailed = 1,     // the television refused or failed what the command asked of it
  kInvalidParameter = 3,  // inputs or outputs of the wrong kind, or a malformed request
  kNotSupported = 4,      // the command does not offer the operation
  kNotImplemented = 5,    // it offers it, but has no handler for it (yet)
};

// What one request asks of a command.
struct CommandContext {
  std::string name;
  CommandOperation operation = CommandOperation(0);
  unsigned version = 0;
};

}  // namespace Sv
}  // namespace Lum
