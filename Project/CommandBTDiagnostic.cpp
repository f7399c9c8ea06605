#include "Project/CommandBTDiagnostic.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"SELF_DIAGNOSIS", &ListOf<NkBTSelfDiagnoseInfo>},
      {"DEVICES", &ListOf<NkGetVStrBTDeviceList>},
      {"BT_HEADPHONE", &FlagOf<NkIsBTHeadphoneExist>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "The Bluetooth self-diagnosis and the paired devices", {},
      {{"BT_DIAGNOSTIC", "JSON",
        "SELF_DIAGNOSIS (the television's lines), DEVICES (name, address, profile, attributes "
        "of each), BT_HEADPHONE"}});
  return form;
}

}  // namespace

CommandBTDiagnostic::CommandBTDiagnostic(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "BT_DIAGNOSTIC") {}

int CommandBTDiagnostic::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  Report(Items(), data);
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
