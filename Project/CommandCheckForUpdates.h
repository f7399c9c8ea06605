#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES: asks the agent to check the back end for a software update
// at its next synchronisation, as LumCheckForSoftwareUpdate does for the television.
class CommandCheckForUpdates : public CommandFormHandler {
 public:
  explicit CommandCheckForUpdates(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
