#pragma once

#include <memory>
#include <new>
#include <string>

#include "Base/CommandBase.h"
#include "Base/CommandHandler.h"

namespace Lum {
namespace Sv {

// One row of the command table. `descriptorClass` is the command's own name
// for its descriptor (GetDeviceInfo, LbrLookup, ...); the handler class is
// "Command" followed by it.
struct CommandAttributes {
  const char* name;
  const char* descriptorClass;
  int type;
  int version;
  int timeToComplete;   // milliseconds
  unsigned operations;  // CommandOperation bits
};

// The descriptor of every command: the commands differ only in their
// attributes and their handler class, so one template over the handler
// replaces a descriptor class per command.
template <class Handler>
class CommandDescriptor : public CommandBase {
 public:
  explicit CommandDescriptor(const CommandAttributes& attributes)
      : attributes_(attributes), name_(attributes.name) {}

  std::string name() const override { return name_; }
  int type() const override { return attributes_.type; }
  std::string friendlyNameKey() const override { return std::string(); }
  std::string friendlyDescriptionKey() const override { return std::string(); }
  int version() const override { return attributes_.version; }
  int timeToComplete() const override { return attributes_.timeToComplete; }
  CommandOperation supportedOperations() const override {
    return CommandOperation(attributes_.operations);
  }
  std::unique_ptr<CommandHandler> create() const override {
    return std::unique_ptr<CommandHandler>(new (std::nothrow) Handler(*this));
  }

  const char* descriptorClass() const { return attributes_.descriptorClass; }

 private:
  const CommandAttributes attributes_;
  const std::string name_;
};

}  // namespace Sv
}  // namespace Lum
