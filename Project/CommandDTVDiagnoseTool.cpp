#include "Project/CommandDTVDiagnoseTool.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

LumJson::Value HbbtvOn() {
  return LumJson::Value(NkIsHbbtv());
}

int SetHbbtv(const LumJson::Value& value) {
  return NkEnableHbbtv(value.asBool() ? 1 : 0);
}

}  // namespace

const std::vector<TvSetting>& CommandDTVDiagnoseTool::Settings() {
  // The reception figures are read only (no writer): GET shows them with the
  // settings, so one answer tells what the television receives and how.
  static const std::vector<TvSetting> settings = {
      {{"SOURCE"}, &TextOf<NkGetSourceName>, nullptr},
      {{"CHANNEL"}, &TextOf<NkGetCurrentChannel>, nullptr},
      {{"SIGNAL_QUALITY"}, &TextOf<NkGetTvSignalQuality>, nullptr},
      {{"SIGNAL_LEVEL"}, &TextOf<NkGetTvSignalLevel>, nullptr},
      {{"MODULATION"}, &TextOf<NkGetModulationType>, nullptr},
      {{"FREQUENCY"}, &TextOf<NkGetChannelFrequency>, nullptr},
      {{"SUBTITLE", InputType::Text, false, "Subtitle language", &ChoicesOf<NkGetVStrSubtitleList>},
       &TextOf<NkGetSubtitle>,
       &WriteText<NkSetSubtitle>},
      {{"AUDIO_LANGUAGE", InputType::Text, false, "Audio language",
        &ChoicesOf<NkGetVStrAudioLanguageList>},
       &TextOf<NkGetAudioLanguage>,
       &WriteText<NkSetAudioLanguage>},
      {{"HBBTV", InputType::Boolean, false, "HbbTV on"}, &HbbtvOn, &SetHbbtv},
      {{"ENHANCED_ACR", InputType::Integer, false, "Enhanced content recognition state", nullptr, 0,
        1},
       &NumberOf<NkGetEnhancedACRState>,
       &WriteNumber<NkSetEnhancedACRState>},
  };
  return settings;
}

namespace {

constexpr char kSettingsId[] = "DTV_SETTINGS";
constexpr char kChangeId[] = "DTV_SETTINGS_CHANGE";

const CommandForm& Form() {
  static const CommandForm form = CommandSettingsTool::ChangeForm(
      "Shows the broadcast reception and settings (GET) or changes the settings (EXECUTE)",
      CommandDTVDiagnoseTool::Settings(), kSettingsId, kChangeId);
  return form;
}

}  // namespace

CommandDTVDiagnoseTool::CommandDTVDiagnoseTool(const CommandBase& descriptor)
    : CommandSettingsTool(descriptor, Form(), Settings(), kSettingsId, kChangeId) {}

}  // namespace Sv
}  // namespace Lum
