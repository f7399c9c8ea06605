#include "Base/DrmpConfig.h"

#include <algorithm>

#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/DrmpConfig");

namespace Lum {
namespace Drmp {

using FP = Core::FilterProperties;

namespace {
// A schedule of 0 would make the control thread spin; a second is the
// shortest wait that still means "later".
constexpr uint32_t kMinDelayMs = 1000;
// Objects live inside the TV's process memory while they are verified, so
// no configuration may raise the limits past these.
constexpr uint32_t kHardMaxObjectBytes = 64u * 1024u * 1024u;
constexpr uint32_t kHardMaxObjects = 4096;
}  // namespace

DrmpConfig::DrmpConfig(const std::string& configText) {
  LumJson::Value config;
  if (!Core::JsonUtil::ParseObject(configText, config)) {
    return;
  }
  const LumJson::Value& section = config["drmp"];
  if (!section.isObject()) {
    return;
  }
  using Core::JsonUtil;
  enabled_ = JsonUtil::ReadBool(section, "enabled", true);
  checkIntervalMs_ =
      std::max(kMinDelayMs, JsonUtil::ReadUnsigned(section, "checkIntervalMs", checkIntervalMs_));
  retryDelayMs_ =
      std::max(kMinDelayMs, JsonUtil::ReadUnsigned(section, "retryDelayMs", retryDelayMs_));
  maxRetries_ = JsonUtil::ReadUnsigned(section, "maxRetries", maxRetries_);
  maxObjectBytes_ = std::min(kHardMaxObjectBytes,
                             JsonUtil::ReadUnsigned(section, "maxObjectBytes", maxObjectBytes_));
  maxTotalBytes_ = JsonUtil::ReadUnsigned(section, "maxTotalBytes", maxTotalBytes_);
  maxObjects_ =
      std::min(kHardMaxObjects, JsonUtil::ReadUnsigned(section, "maxObjects", maxObjects_));
  connectTimeoutMs_ = JsonUtil::ReadUnsigned(section, "connectTimeoutMs", connectTimeoutMs_);
  messageTimeoutMs_ = JsonUtil::ReadUnsigned(section, "messageTimeoutMs", messageTimeoutMs_);
}

void DrmpConfig::logStateDebug() const {
  if (!Core::Logger::Instance().test(FP::SERVICE_DRMP, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  LUM_LOG(FP::SERVICE_DRMP, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->enabled                      : %s", enabled_ ? "true" : "false");
  LUM_LOG(FP::SERVICE_DRMP, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->checkIntervalMs              : %u", checkIntervalMs_);
  LUM_LOG(FP::SERVICE_DRMP, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->retryDelayMs                 : %u", retryDelayMs_);
  LUM_LOG(FP::SERVICE_DRMP, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->maxObjectBytes               : %u", maxObjectBytes_);
  LUM_LOG(FP::SERVICE_DRMP, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->maxTotalBytes                : %u", maxTotalBytes_);
}

}  // namespace Drmp
}  // namespace Lum
