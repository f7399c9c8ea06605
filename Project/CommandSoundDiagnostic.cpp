#include "Project/CommandSoundDiagnostic.h"

#include "Project/CommandSoundDiagnoseTool.h"
#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"INSPECTION_RESPONSE", &TextOf<NkGetSoundInspectionRespond>},
      {"AUDIO_FORMAT", &TextOf<NkGetTvAudioFormat>},
      {"BT_HEADPHONE", &FlagOf<NkIsBTHeadphoneExist>},
      {"WIRED_HEADPHONE", &FlagOf<NkIsWiredHeadphoneExist>},
      {"SPEAKER_ARC_MODE", &NumberOf<NkGetSpeakerArcMode>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "Runs the television's sound inspection", {},
      {{"SOUND_DIAGNOSTIC", "JSON",
        "INSPECTION_RESULT (0: inspection ran), INSPECTION_RESPONSE, AUDIO_FORMAT, "
        "BT_HEADPHONE, WIRED_HEADPHONE, SPEAKER_ARC_MODE, SETTINGS (as SOUND_SETTINGS GET "
        "shows them)"}});
  return form;
}

}  // namespace

CommandSoundDiagnostic::CommandSoundDiagnostic(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "SOUND_DIAGNOSTIC") {}

int CommandSoundDiagnostic::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  const int inspection = NkActionSoundInspect();
  data["INSPECTION_RESULT"] = inspection;
  Report(Items(), data);
  data["SETTINGS"] = CommandSettingsTool::ReadAll(CommandSoundDiagnoseTool::Settings());
  return inspection == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
