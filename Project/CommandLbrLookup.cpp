#include "Project/CommandLbrLookup.h"

#include "Base/SupportViewManager.h"
#include "Project/NorvikInterfaces.h"

namespace Lum {
namespace Sv {

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Where the television is served from; takes any inputs and ignores them", {},
      {{"LBR_LOOKUP", "JSON",
        "LBR_DOMAIN (the look-up domain the back end gave; empty when none), REGION, COUNTRY"}});
  return form;
}

}  // namespace

CommandLbrLookup::CommandLbrLookup(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "LBR_LOOKUP") {}

// The one command whose inputs are not checked: back ends send it whatever
// their look-up carries, and it needs none of it.
int CommandLbrLookup::executeHandler(const LumJson::Value& inputs, LumJson::Value& result) {
  LumJson::Value data(LumJson::objectValue);
  const int code = run(inputs, data);
  answer(data, result);
  return code;
}

int CommandLbrLookup::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  data["LBR_DOMAIN"] = SupportViewManager::Instance()->getSvLbrAwsDomain();
  data["REGION"] = NkGetRegion();
  data["COUNTRY"] = NkGetSystemCountry();
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
