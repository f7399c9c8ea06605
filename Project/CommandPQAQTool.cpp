#include "Project/CommandPQAQTool.h"

#include "Project/CommandPictureDiagnoseTool.h"
#include "Project/CommandSoundDiagnoseTool.h"

namespace Lum {
namespace Sv {

namespace {

// Picture and sound together: the only scope the commands offer.
constexpr int kPictureAndSound = 0;

}  // namespace

CommandForm CommandPQAQTool::MakeForm(const char* summary, const char* outputId) {
  return CommandForm(summary, {},
                     {{outputId, "JSON",
                       "ACTION, TV_RESULT (0: done), PICTURE_SETTINGS and SOUND_SETTINGS as "
                       "they are afterwards"}});
}

CommandPQAQTool::CommandPQAQTool(const CommandBase& descriptor, const CommandForm& form,
                                 const char* outputId, Action action)
    : CommandFormHandler(descriptor, form, outputId), outputId_(outputId), action_(action) {}

int CommandPQAQTool::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  const int answer = action_(kPictureAndSound);
  data["ACTION"] = outputId_;
  data["TV_RESULT"] = answer;
  data["PICTURE_SETTINGS"] = CommandSettingsTool::ReadAll(CommandPictureDiagnoseTool::Settings());
  data["SOUND_SETTINGS"] = CommandSettingsTool::ReadAll(CommandSoundDiagnoseTool::Settings());
  return answer == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
