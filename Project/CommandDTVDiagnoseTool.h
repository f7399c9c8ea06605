#pragma once

#include <vector>

#include "Project/CommandSettingsTool.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_DTV_DIAGNOSTIC_TOOL: shows (GET) the broadcast reception and the broadcast
// settings, and changes (EXECUTE) the settings: subtitles, audio language, HbbTV and enhanced
// content recognition.
class CommandDTVDiagnoseTool : public CommandSettingsTool {
 public:
  explicit CommandDTVDiagnoseTool(const CommandBase& descriptor);

  // The settings the command shows and changes.
  static const std::vector<TvSetting>& Settings();
};

}  // namespace Sv
}  // namespace Lum
