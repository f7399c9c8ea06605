#include "Project/CommandPQAQResetTool.h"

#include "Project/CommandPictureDiagnoseTool.h"
#include "Project/CommandSoundDiagnoseTool.h"
#include "Project/NorvikInterfaces.h"

namespace Lum {
namespace Sv {

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Resets the picture and sound settings to their factory values", {},
      {{"PQ_AQ_RESET", "JSON",
        "ACTION, TV_RESULT (0: done), PICTURE_SETTINGS and SOUND_SETTINGS as they are "
        "afterwards"}});
  return form;
}

}  // namespace

CommandPQAQResetTool::CommandPQAQResetTool(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "PQ_AQ_RESET") {}

int CommandPQAQResetTool::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  // 0 asks for picture and sound together, the only scope offered.
  const int answer = NkResetAQPQ(0);
  data["ACTION"] = "PQ_AQ_RESET";
  data["TV_RESULT"] = answer;
  data["PICTURE_SETTINGS"] = CommandSettingsTool::ReadAll(CommandPictureDiagnoseTool::Settings());
  data["SOUND_SETTINGS"] = CommandSettingsTool::ReadAll(CommandSoundDiagnoseTool::Settings());
  return answer == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
