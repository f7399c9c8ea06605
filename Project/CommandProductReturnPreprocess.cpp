#include "Project/CommandProductReturnPreprocess.h"

#include "Base/CommandBase.h"
#include "Platform/Logger.h"
#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

LUM_SOURCE_FILE("Project/CommandProductReturnPreprocess");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

namespace {

// What the maker's returns desk needs to recognise the television.
const std::vector<TvItem>& ReturnRecord() {
  static const std::vector<TvItem> items = {
      {"SERIAL_NUMBER", &TextOf<NkGetDeviceSN>},
      {"MODEL", &TextOf<NkGetLumModel>},
      {"SUB_MODEL", &TextOf<NkGetLumSubModel>},
      {"SW_VERSION", &TextOf<NkGetSwVersion>},
      {"MANUFACTURED_DATE", &TextOf<NkGetManufacturedDate>},
      {"INITIAL_POWER_ON_DATE", &TextOf<NkGetInitialPowerOnDate>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "Prepares the television for its return to the maker",
      {{"CONFIRM", InputType::Boolean, true,
        "Must be true: unless user data is protected, the television is reset"}},
      {{"PRODUCT_RETURN", "JSON",
        "RETURN_RECORD (SERIAL_NUMBER, MODEL, SUB_MODEL, SW_VERSION, MANUFACTURED_DATE, "
        "INITIAL_POWER_ON_DATE) and STEPS: RESET_PICTURE_AND_SOUND and FACTORY_RESET, each with "
        "TV_RESULT, or SKIPPED with the reason"}});
  return form;
}

LumJson::Value& Step(LumJson::Value& steps, const char* name) {
  LumJson::Value& step = steps.append(LumJson::Value(LumJson::objectValue));
  step["STEP"] = name;
  return step;
}

}  // namespace

CommandProductReturnPreprocess::CommandProductReturnPreprocess(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "PRODUCT_RETURN") {}

int CommandProductReturnPreprocess::run(const LumJson::Value& inputs, LumJson::Value& data) {
  if (!inputs["CONFIRM"].asBool()) {
    LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "%s Invalid Parameter CONFIRM: not confirmed", descriptor().name().c_str());
    return kInvalidParameter;
  }
  // The record first: the reset may change what the television reports.
  Report(ReturnRecord(), data["RETURN_RECORD"]);
  LumJson::Value& steps = data["STEPS"] = LumJson::Value(LumJson::arrayValue);
  const int settings = NkResetAQPQ(0);
  Step(steps, "RESET_PICTURE_AND_SOUND")["TV_RESULT"] = settings;
  int reset = 0;
  LumJson::Value& factoryReset = Step(steps, "FACTORY_RESET");
  if (NkIsProtectUserData()) {
    factoryReset["SKIPPED"] = "user data is protected";
  } else {
    reset = NkFactoryReset();
    factoryReset["TV_RESULT"] = reset;
  }
  LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_INFO,
          "Product return preprocessing: settings reset %d, factory reset %d", settings, reset);
  return settings == 0 && reset == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
