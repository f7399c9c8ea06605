#include "Project/CommandGetDeviceInfo.h"

#include "Project/CommandManager.h"
#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"BRAND", &TextOf<NkGetBrand>},
      {"MODEL", &TextOf<NkGetLumModel>},
      {"SUB_MODEL", &TextOf<NkGetLumSubModel>},
      {"SERIAL_NUMBER", &TextOf<NkGetDeviceSN>},
      {"SW_VERSION", &TextOf<NkGetSwVersion>},
      {"PLATFORM_MODEL", &TextOf<NkGetPlatformModel>},
      {"MAC_ADDRESS", &TextOf<NkGetMacAddress>},
      {"MANUFACTURED_DATE", &TextOf<NkGetManufacturedDate>},
      {"INITIAL_POWER_ON_DATE", &TextOf<NkGetInitialPowerOnDate>},
      {"COUNTRY", &TextOf<NkGetSystemCountry>},
      {"LANGUAGE", &TextOf<NkGetSystemLanguage>},
      {"REGION", &TextOf<NkGetRegion>},
  };
  return items;
}

// What the agent registered with: when it differs from what the platform
// reports now, the television changed under the agent (a new board, say).
LumJson::Value Registered() {
  const CommandManager& commands = *CommandManager::Instance();
  LumJson::Value registered(LumJson::objectValue);
  registered["OPID"] = commands.getOpid();
  registered["INSTANCE"] = commands.getInstance();
  registered["DEVICE_ID"] = commands.getId();
  registered["MODEL"] = commands.getModel();
  registered["BRAND"] = commands.getBrand();
  registered["ESN"] = commands.getEsn();
  registered["MAC"] = commands.getMac();
  registered["SW_VERSION"] = commands.getSwVersion();
  return registered;
}

const CommandForm& Form() {
  static const CommandForm form(
      "Who the television is", {},
      {{"DEVICE_INFO", "JSON",
        "BRAND, MODEL, SUB_MODEL, SERIAL_NUMBER, SW_VERSION, PLATFORM_MODEL, MAC_ADDRESS, "
        "MANUFACTURED_DATE, INITIAL_POWER_ON_DATE, COUNTRY, LANGUAGE, REGION as the television "
        "reports them; REGISTERED: what the agent registered with"}});
  return form;
}

}  // namespace

CommandGetDeviceInfo::CommandGetDeviceInfo(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "DEVICE_INFO") {}

int CommandGetDeviceInfo::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  Report(Items(), data);
  data["REGISTERED"] = Registered();
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
