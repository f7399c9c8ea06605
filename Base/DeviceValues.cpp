#include "Base/DeviceValues.h"

#include "Platform/FileUtil.h"
#include "Platform/FilterProperties.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Platform/LumJson.h"
#include "Project/NorvikInterfaces.h"

LUM_SOURCE_FILE("Base/DeviceValues");

namespace Lum {
namespace Core {

namespace {

constexpr int kService = FilterProperties::SERVICE_CORE;
constexpr char kSwVersionFile[] = "swVersion";

// A platform that answers with an empty text does not know the value, and
// the placeholder says so more clearly than an empty field would.
void TakeIfKnown(std::string& value, const std::string& platformValue) {
  if (!platformValue.empty()) {
    value = platformValue;
  }
}

}  // namespace

DeviceValues::DeviceValues(const char* device, bool enableSwVersionSimulation,
                           const std::string& initialSimulatedSwVersion,
                           const std::string& persistentPath)
    : enableSwVersionSimulation_(enableSwVersionSimulation),
      initialSimulatedSwVersion_(initialSimulatedSwVersion),
      persistentPath_(persistentPath) {
  LUM_TRACE(kService);
  setCustomValues();
  takeMembers(device);
}

// The serial number serves as both id and ESN: the platform has no separate
// ESN, and the back end keys devices by the id.
void DeviceValues::setCustomValues() {
  const std::string serial = Sv::NkGetDeviceSN();
  TakeIfKnown(id_, serial);
  TakeIfKnown(model_, Sv::NkGetLumModel());
  TakeIfKnown(subModel_, Sv::NkGetLumSubModel());
  TakeIfKnown(brand_, Sv::NkGetBrand());
  TakeIfKnown(esn_, serial);
  TakeIfKnown(mac_, Sv::NkGetMacAddress());
  TakeIfKnown(swVersion_, enableSwVersionSimulation_ ? simulatedSwVersion() : Sv::NkGetSwVersion());
}

// The software update manager rewrites the file while it simulates
// installations, so a simulated update changes the version reported here at
// the next start.
std::string DeviceValues::simulatedSwVersion() const {
  std::string version = initialSimulatedSwVersion_;
  const std::string text = FileUtil::Load(persistentPath_, kSwVersionFile);
  LumJson::Value root;
  if (text.empty()) {
    return version;
  }
  if (!JsonUtil::ParseObject(text, root) || !root.isMember("swVersion") ||
      !root["swVersion"].isString()) {
    LUM_LOG(kService, FilterProperties::CATEGORY_STATE, FilterProperties::SEVERITY_WARNING,
            "Ignoring %s, it does not hold a software version", kSwVersionFile);
    return version;
  }
  return root["swVersion"].asString();
}

void DeviceValues::takeMembers(const char* device) {
  LumJson::Value root;
  if (!JsonUtil::ParseObject(device, root)) {
    LUM_LOG(kService, FilterProperties::CATEGORY_STATE, FilterProperties::SEVERITY_ERROR,
            "Device text is not a JSON object; keeping the platform's values");
    return;
  }
  id_ = JsonUtil::ReadText(root, "id", id_);
  model_ = JsonUtil::ReadText(root, "model", model_);
  subModel_ = JsonUtil::ReadText(root, "subModel", subModel_);
  brand_ = JsonUtil::ReadText(root, "brand", brand_);
  esn_ = JsonUtil::ReadText(root, "esn", esn_);
  mac_ = JsonUtil::ReadText(root, "mac", mac_);
  swVersion_ = JsonUtil::ReadText(root, "swVersion", swVersion_);
}

void DeviceValues::logStateDebug() const {
  LUM_TRACE(kService);
  if (!Logger::Instance().test(kService, FilterProperties::CATEGORY_STATE,
                               FilterProperties::SEVERITY_DEBUG)) {
    return;
  }
  const struct {
    const char* name;
    const std::string& value;
  } lines[] = {{"device->id", id_},
               {"device->model", model_},
               {"device->subModel", subModel_},
               {"device->brand", brand_},
               {"device->esn", esn_},
               {"device->mac", mac_},
               {"device->swVersion", swVersion_}};
  for (const auto& line : lines) {
    LUM_LOG(kService, FilterProperties::CATEGORY_STATE, FilterProperties::SEVERITY_DEBUG,
            "%-37s: %s", line.name, line.value.c_str());
  }
}

}  // namespace Core
}  // namespace Lum
