#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_PQ_AQ_RESTORE: restores the picture and sound settings the user last saved,
// and shows them afterwards.
class CommandPQAQRestoreTool : public CommandFormHandler {
 public:
  explicit CommandPQAQRestoreTool(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
