#include "Project/CommandSoundDiagnoseTool.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

std::vector<std::string> MuteChoices() {
  return {"Mute", "Unmute"};
}

}  // namespace

const std::vector<TvSetting>& CommandSoundDiagnoseTool::Settings() {
  static const std::vector<TvSetting> settings = {
      {{"SOUND_MODE", InputType::Text, false, "Sound mode", &ChoicesOf<NkGetVStrSoundModeList>},
       &TextOf<NkGetSoundMode>,
       &WriteText<NkSetSoundMode>},
      {{"VOLUME", InputType::Integer, false, "Volume", nullptr, 0, 100},
       &NumberOf<NkGetVolume>,
       &WriteNumber<NkSetVolume>},
      {{"MUTE_STATUS", InputType::Text, false, "Muted or not", &MuteChoices},
       &TextOf<NkGetMuteStatus>,
       &WriteText<NkSetMuteStatus>},
      {{"AUDIO_OUTPUT", InputType::Text, false, "Where the sound goes",
        &ChoicesOf<NkGetVStrAudioOutputList>},
       &TextOf<NkGetAudioOutput>,
       &WriteText<NkSetAudioOutput>},
      {{"HEADPHONE_MODE", InputType::Text, false, "Headphones alone or with the speakers",
        &ChoicesOf<NkGetVStrHeadphoneModeList>},
       &TextOf<NkGetHeadphoneMode>,
       &WriteText<NkSetHeadphoneMode>},
      {{"LIP_SYNC", InputType::Integer, false, "Audio delay step", nullptr, 0, 100},
       &NumberOf<NkGetLipSync>,
       &WriteNumber<NkSetLipSync>},
  };
  return settings;
}

namespace {

constexpr char kSettingsId[] = "SOUND_SETTINGS";
constexpr char kChangeId[] = "SOUND_SETTINGS_CHANGE";

const CommandForm& Form() {
  static const CommandForm form =
      CommandSettingsTool::ChangeForm("Shows (GET) or changes (EXECUTE) the sound settings",
                                      CommandSoundDiagnoseTool::Settings(), kSettingsId, kChangeId);
  return form;
}

}  // namespace

CommandSoundDiagnoseTool::CommandSoundDiagnoseTool(const CommandBase& descriptor)
    : CommandSettingsTool(descriptor, Form(), Settings(), kSettingsId, kChangeId) {}

}  // namespace Sv
}  // namespace Lum
