#include "Project/CommandPictureDiagnoseTool.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

const std::vector<TvSetting>& CommandPictureDiagnoseTool::Settings() {
  static const std::vector<TvSetting> settings = {
      {{"PICTURE_MODE", InputType::Text, false, "Picture mode",
        &ChoicesOf<NkGetVStrPictureModeList>},
       &TextOf<NkGetPictureMode>,
       &WriteText<NkSetPictureMode>},
      {{"COLOUR_TEMPERATURE", InputType::Text, false, "Colour temperature",
        &ChoicesOf<NkGetVStrColourTemperatureModeList>},
       &TextOf<NkGetColourTemperature>,
       &WriteText<NkSetColourTemperature>},
      {{"ADAPTIVE_CONTRAST", InputType::Text, false, "Adaptive contrast",
        &ChoicesOf<NkGetVStrAdaptiveContrastList>},
       &TextOf<NkGetAdaptiveContrast>,
       &WriteText<NkSetAdaptiveContrast>},
      {{"ULTRA_SMOOTH_MOTION", InputType::Text, false, "Motion smoothing",
        &ChoicesOf<NkGetVStrUltraSmoothMotionList>},
       &TextOf<NkGetUltraSmoothMotion>,
       &WriteText<NkSetUltraSmoothMotion>},
      {{"NOISE_REDUCTION", InputType::Text, false, "Noise reduction",
        &ChoicesOf<NkGetVStrNoiseReductionList>},
       &TextOf<NkGetNoiseReduction>,
       &WriteText<NkSetNoiseReduction>},
      {{"COLOUR_SATURATION", InputType::Integer, false, "Colour saturation", nullptr, 0, 100},
       &NumberOf<NkGetColourSaturation>,
       &WriteNumber<NkSetColourSaturation>},
      {{"OVERSCAN", InputType::Boolean, false, "Overscan on"},
       &FlagOf<NkGetOverscan>,
       &WriteFlag<NkSetOverscan>},
  };
  return settings;
}

namespace {

constexpr char kSettingsId[] = "PICTURE_SETTINGS";
constexpr char kChangeId[] = "PICTURE_SETTINGS_CHANGE";

const CommandForm& Form() {
  static const CommandForm form = CommandSettingsTool::ChangeForm(
      "Shows (GET) or changes (EXECUTE) the picture settings",
      CommandPictureDiagnoseTool::Settings(), kSettingsId, kChangeId);
  return form;
}

}  // namespace

CommandPictureDiagnoseTool::CommandPictureDiagnoseTool(const CommandBase& descriptor)
    : CommandSettingsTool(descriptor, Form(), Settings(), kSettingsId, kChangeId) {}

}  // namespace Sv
}  // namespace Lum
