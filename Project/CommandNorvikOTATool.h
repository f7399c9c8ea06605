#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_OTA_TOOL: asks the television to start its over-the-air software update.
class CommandNorvikOTATool : public CommandFormHandler {
 public:
  explicit CommandNorvikOTATool(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
