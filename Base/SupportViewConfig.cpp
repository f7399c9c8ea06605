#include "Base/SupportViewConfig.h"

#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/SupportViewConfig");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

SupportViewConfig::SupportViewConfig(const std::string& configText) {
  LumJson::Value config;
  if (!Core::JsonUtil::ParseObject(configText, config)) {
    return;
  }
  const LumJson::Value& section = config["supportView"];
  if (!section.isObject()) {
    return;
  }
  pauseSessionOnTerm_ =
      Core::JsonUtil::ReadBool(section, "pauseSessionOnTerm", pauseSessionOnTerm_);
  allowRemoteSession_ =
      Core::JsonUtil::ReadBool(section, "allowRemoteSession", allowRemoteSession_);
}

void SupportViewConfig::logStateDebug() const {
  if (!Core::Logger::Instance().test(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->pauseSessionOnTerm           : %s", pauseSessionOnTerm_ ? "true" : "false");
  LUM_LOG(FP::SERVICE_SV, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->allowRemoteSession           : %s", allowRemoteSession_ ? "true" : "false");
}

}  // namespace Sv
}  // namespace Lum
