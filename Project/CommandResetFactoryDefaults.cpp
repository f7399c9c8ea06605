#include "Project/CommandResetFactoryDefaults.h"

#include "Base/CommandBase.h"
#include "Platform/Logger.h"
#include "Project/NorvikInterfaces.h"

LUM_SOURCE_FILE("Project/CommandResetFactoryDefaults");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Resets the television to its factory state",
      {{"CONFIRM", InputType::Boolean, true, "Must be true: the reset wipes the television"}},
      {{"FACTORY_RESET", "JSON", "ACTION, TV_RESULT (0: the television started the reset)"}});
  return form;
}

}  // namespace

CommandResetFactoryDefaults::CommandResetFactoryDefaults(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "FACTORY_RESET") {}

int CommandResetFactoryDefaults::run(const LumJson::Value& inputs, LumJson::Value& data) {
  if (!inputs["CONFIRM"].asBool()) {
    LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "%s Invalid Parameter CONFIRM: not confirmed", descriptor().name().c_str());
    return kInvalidParameter;
  }
  const int answer = NkFactoryReset();
  LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
          "Factory reset requested by support: television answered %d", answer);
  data["ACTION"] = "FACTORY_RESET";
  data["TV_RESULT"] = answer;
  return answer == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
