#include "Project/CommandGetDeviceCapabilities.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

LumJson::Value Array(const std::vector<std::string>& entries) {
  LumJson::Value array(LumJson::arrayValue);
  for (const std::string& entry : entries) {
    array.append(entry);
  }
  return array;
}

LumJson::Value Sources() {
  return Array(TvValues::Sources());
}

LumJson::Value SourceAliases() {
  return TvValues::SourceAliases();
}

LumJson::Value Keys() {
  return Array(TvValues::Keys());
}

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"SOURCES", &Sources},
      {"SOURCE_ALIASES", &SourceAliases},
      {"HDMI_PORTS", &ListOf<NkGetVStrHDMIPortNameList>},
      {"PICTURE_MODES", &ListOf<NkGetVStrPictureModeList>},
      {"COLOUR_TEMPERATURES", &ListOf<NkGetVStrColourTemperatureModeList>},
      {"SOUND_MODES", &ListOf<NkGetVStrSoundModeList>},
      {"AUDIO_OUTPUTS", &ListOf<NkGetVStrAudioOutputList>},
      {"HEADPHONE_MODES", &ListOf<NkGetVStrHeadphoneModeList>},
      {"SUBTITLES", &ListOf<NkGetVStrSubtitleList>},
      {"AUDIO_LANGUAGES", &ListOf<NkGetVStrAudioLanguageList>},
      {"REMOTE_KEYS", &Keys},
      {"CEC", &FlagOf<NkIsCECSupport>},
      {"HBBTV", &FlagOf<NkIsHbbtv>},
      {"BT_HEADPHONE", &FlagOf<NkIsBTHeadphoneExist>},
      {"WIRED_HEADPHONE", &FlagOf<NkIsWiredHeadphoneExist>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "What the television has and offers", {},
      {{"DEVICE_CAPABILITIES", "JSON",
        "SOURCES, SOURCE_ALIASES, HDMI_PORTS, the mode and language lists, REMOTE_KEYS, and the "
        "flags CEC, HBBTV, BT_HEADPHONE, WIRED_HEADPHONE"}});
  return form;
}

}  // namespace

CommandGetDeviceCapabilities::CommandGetDeviceCapabilities(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "DEVICE_CAPABILITIES") {}

int CommandGetDeviceCapabilities::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  Report(Items(), data);
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
