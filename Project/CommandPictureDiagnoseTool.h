#pragma once

#include <vector>

#include "Project/CommandSettingsTool.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_PICTURE_DIAGNOSE_TOOL: shows (GET) and changes (EXECUTE) the picture
// settings.
class CommandPictureDiagnoseTool : public CommandSettingsTool {
 public:
  explicit CommandPictureDiagnoseTool(const CommandBase& descriptor);

  // The settings the command shows and changes.
  static const std::vector<TvSetting>& Settings();
};

}  // namespace Sv
}  // namespace Lum
