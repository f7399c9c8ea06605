#pragma once

#include "Base/CommandHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS: lists every registered command
// with its attributes and, where it has one, its description.
class CommandGetAvailableCommands : public CommandHandler {
 public:
  using CommandHandler::CommandHandler;

  int executeHandler(const LumJson::Value& inputs, LumJson::Value& result) override;
};

}  // namespace Sv
}  // namespace Lum
