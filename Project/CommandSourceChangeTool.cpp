#include "Project/CommandSourceChangeTool.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Switches the television to one of its sources",
      {{"SOURCE", InputType::Text, true, "The source", &TvValues::Sources}},
      {{"SOURCE_CHANGE", "JSON",
        "REQUESTED, PREVIOUS, TV_RESULT (0: switched), CURRENT (read back)"}});
  return form;
}

}  // namespace

CommandSourceChangeTool::CommandSourceChangeTool(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "SOURCE_CHANGE") {}

int CommandSourceChangeTool::run(const LumJson::Value& inputs, LumJson::Value& data) {
  const std::string source = inputs["SOURCE"].asString();
  data["REQUESTED"] = source;
  data["PREVIOUS"] = NkGetSourceName();
  const int answer = NkSetSource(source);
  data["TV_RESULT"] = answer;
  data["CURRENT"] = NkGetSourceName();
  return answer == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
