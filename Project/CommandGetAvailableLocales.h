#pragma once

#include "Base/CommandHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES: the agent answers in
// US English only.
class CommandGetAvailableLocales : public CommandHandler {
 public:
  using CommandHandler::CommandHandler;

  int executeHandler(const LumJson::Value& inputs, LumJson::Value& result) override;
};

}  // namespace Sv
}  // namespace Lum
