#include "Project/CommandSystemInfo.h"

#include "Platform/Time.h"
#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

LumJson::Value Uptime() {
  return LumJson::Value(Time::GetUptime());
}

LumJson::Value DateTime() {
  return LumJson::Value(Time::GetCurrentDateTime());
}

LumJson::Value Hdcp() {
  return TvValues::Pairs(&NkGetVStrHDCPInfo);
}

const std::vector<TvItem>& Items() {
  static const std::vector<TvItem> items = {
      {"PLATFORM_MODEL", &TextOf<NkGetPlatformModel>},
      {"RUNNING_MODE", &TextOf<NkGetRunningMode>},
      {"SW_VERSION", &TextOf<NkGetSwVersion>},
      {"COUNTRY", &TextOf<NkGetSystemCountry>},
      {"LANGUAGE", &TextOf<NkGetSystemLanguage>},
      {"REGION", &TextOf<NkGetRegion>},
      {"DATE_TIME", &DateTime},
      {"UPTIME_SECONDS", &Uptime},
      {"NETFLIX_KEY", &TextOf<NkGetNetflixKey>},
      {"CI_PLUS_KEY", &TextOf<NkGetCIPlusKey>},
      {"HDCP", &Hdcp},
      {"PROTECT_USER_DATA", &FlagOf<NkIsProtectUserData>},
  };
  return items;
}

const CommandForm& Form() {
  static const CommandForm form(
      "The system's state", {},
      {{"SYSTEM_INFO", "JSON",
        "PLATFORM_MODEL, RUNNING_MODE, SW_VERSION, COUNTRY, LANGUAGE, REGION, DATE_TIME (UTC), "
        "UPTIME_SECONDS, NETFLIX_KEY, CI_PLUS_KEY, HDCP (key: value), PROTECT_USER_DATA"}});
  return form;
}

}  // namespace

CommandSystemInfo::CommandSystemInfo(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "SYSTEM_INFO") {}

int CommandSystemInfo::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  Report(Items(), data);
  return kCommandSuccess;
}

}  // namespace Sv
}  // namespace Lum
