#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_RESET_FACTORY_DEFAULTS: resets the television to its factory state. It must
// be confirmed with "CONFIRM": true, so that no stray request wipes a customer's television.
class CommandResetFactoryDefaults : public CommandFormHandler {
 public:
  explicit CommandResetFactoryDefaults(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
