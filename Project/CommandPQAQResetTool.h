#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_PQ_AQ_RESET: resets the picture and sound settings to their factory values,
// and shows them afterwards.
class CommandPQAQResetTool : public CommandFormHandler {
 public:
  explicit CommandPQAQResetTool(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
