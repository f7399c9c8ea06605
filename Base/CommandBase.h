#pragma once

#include <memory>
#include <string>

#include "Base/CommandContext.h"

namespace Lum {
namespace Sv {

class CommandHandler;

// Describes one command of the registry: its name, its attributes and how to
// make a handler for it. Descriptors are built once and live for the rest of
// the process (see CommandManager), so handlers may keep a reference to theirs.
class CommandBase {
 public:
  virtual ~CommandBase();

  virtual std::string name() const = 0;
  virtual int type() const = 0;
  virtual std::string friendlyNameKey() const = 0;
  virtual std::string friendlyDescriptionKey() const = 0;
  virtual int version() const = 0;
  // Milliseconds the command is expected to take.
  virtual int timeToComplete() const = 0;
  virtual CommandOperation supportedOperations() const = 0;
  // A new handler for one operation; null when none could be made.
  virtual std::unique_ptr<CommandHandler> create() const = 0;

 protected:
  CommandBase() = default;
  CommandBase(const CommandBase&) = default;
  CommandBase& operator=(const CommandBase&) = default;
};

}  // namespace Sv
}  // namespace Lum
