#include "Project/CommandPictureDiagnostic.h"

#include "Project/CommandPictureDiagnoseTool.h"
#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"INSPECTION_RESPONSE", &TextOf<NkGetPictureInspectionRespond>},
      {"VIDEO_FORMAT", &TextOf<NkGetTvVideoFormat>},
      {"COLOUR_FORMAT", &TextOf<NkGetTvColourFormat>},
      {"HDR_TYPE", &TextOf<NkGetTvHDRType>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "Runs the television's picture inspection", {},
      {{"PICTURE_DIAGNOSTIC", "JSON",
        "INSPECTION_RESULT (0: inspection ran), INSPECTION_RESPONSE, VIDEO_FORMAT, "
        "COLOUR_FORMAT, HDR_TYPE, SETTINGS (as PICTURE_DIAGNOSE_TOOL GET shows them)"}});
  return form;
}

}  // namespace

CommandPictureDiagnostic::CommandPictureDiagnostic(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "PICTURE_DIAGNOSTIC") {}

int CommandPictureDiagnostic::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  // The inspection first: its response is what the report is about.
  const int inspection = NkActionPictureInspect();
  data["INSPECTION_RESULT"] = inspection;
  Report(Items(), data);
  data["SETTINGS"] = CommandSettingsTool::ReadAll(CommandPictureDiagnoseTool::Settings());
  return inspection == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
