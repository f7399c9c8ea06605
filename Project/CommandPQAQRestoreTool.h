#pragma once

#include "Project/CommandPQAQTool.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_PQ_AQ_RESTORE: restores the picture and sound settings the user saved last.
class CommandPQAQRestoreTool : public CommandPQAQTool {
 public:
  explicit CommandPQAQRestoreTool(const CommandBase& descriptor);
};

}  // namespace Sv
}  // namespace Lum
