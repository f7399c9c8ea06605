#include "Base/SupportViewConfig.h"

#include "Platform/JsonUtil.h"

namespace Lum {
namespace Sv {

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

}  // namespace Sv
}  // namespace Lum
