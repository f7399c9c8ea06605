#pragma once

#include "Project/CommandPQAQTool.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_PQ_AQ_RESET: resets the picture and sound settings to their factory values.
class CommandPQAQResetTool : public CommandPQAQTool {
 public:
  explicit CommandPQAQResetTool(const CommandBase& descriptor);
};

}  // namespace Sv
}  // namespace Lum
