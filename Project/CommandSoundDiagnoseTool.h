#pragma once

#include <vector>

#include "Project/CommandSettingsTool.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_SOUND_SETTINGS: shows (GET) and changes (EXECUTE) the sound settings.
class CommandSoundDiagnoseTool : public CommandSettingsTool {
 public:
  explicit CommandSoundDiagnoseTool(const CommandBase& descriptor);

  // The settings the command shows and changes.
  static const std::vector<TvSetting>& Settings();
};

}  // namespace Sv
}  // namespace Lum
