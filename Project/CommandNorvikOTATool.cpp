#include "Project/CommandNorvikOTATool.h"

#include "Platform/Logger.h"
#include "Project/NorvikInterfaces.h"

LUM_SOURCE_FILE("Project/CommandNorvikOTATool");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Asks the television to start its over-the-air software update", {},
      {{"OTA", "JSON", "ACTION, SW_VERSION (running now), TV_RESULT (0: update started)"}});
  return form;
}

}  // namespace

CommandNorvikOTATool::CommandNorvikOTATool(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "OTA") {}

int CommandNorvikOTATool::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  data["ACTION"] = "OTA";
  data["SW_VERSION"] = NkGetSwVersion();
  const int answer = NkActionOTA();
  LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
          "Over-the-air update requested by support: television answered %d", answer);
  data["TV_RESULT"] = answer;
  return answer == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
