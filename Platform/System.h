#pragma once

#include <cstdint>
#include <string>

namespace Lum {
namespace Sv {

// The one place where the agent runs a shell. Nothing that arrives from the
// back end or the host reaches it as text: callers use the narrow functions
// below (Ping), which build the command from values the agent checked and
// formatted itself.
class System {
 public:
  // Runs `command` through the shell (system()). 1 when it could not run;
  // otherwise 0 with the command's exit status in `exitCode`.
  static int SystemCall(const std::string& command, int& exitCode);

  // Pings an IPv4 address twice, a second's wait each. Anything but a
  // numeric dotted address is refused (logged, 1, nothing run); the command
  // carries the address as re-formatted from its parsed value, never the
  // text given. Otherwise as SystemCall.
  static int Ping(const std::string& numericAddress, int& exitCode);

  // Replaces the ping program (default "/bin/ping"), for tests; an empty
  // path restores the default. False, and no change, for a path with
  // characters other than letters, digits and "/._-".
  static bool SetPingProgram(const std::string& path);

  // How many shell commands have been run since the process started.
  static uint64_t ShellRuns();
};

}  // namespace Sv
}  // namespace Lum
