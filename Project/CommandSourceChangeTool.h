#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_SOURCE_CHANGE_TOOL: switches the television to one of its sources.
class CommandSourceChangeTool : public CommandFormHandler {
 public:
  explicit CommandSourceChangeTool(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
