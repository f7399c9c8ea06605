#include "Base/CoreConfig.h"

#include <sys/stat.h>
#include <unistd.h>

#include "Base/Injector.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/CoreConfig");

namespace Lum {
namespace Core {

namespace {

using FP = FilterProperties;

const char* BoolText(bool value) {
  return value ? "true" : "false";
}

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

CoreConfig::CoreConfig(const char* configText) {
  LUM_TRACE(FP::SERVICE_CORE);
  setCustomValues();
  LumJson::Value root;
  if (configText != nullptr && JsonUtil::ParseStrict(configText, root) && root.isObject() &&
      root.isMember("core")) {
    const LumJson::Value& core = root["core"];
    readCoreSection(core);
    HandOverLoggers(core);
    HandOverInjectors(core);
  }
  persistentPath_ = NormalizeDirectory(persistentPath_, "PERSISTENT");
  temporaryPath_ = NormalizeDirectory(temporaryPath_, "TEMPORARY");
}

void CoreConfig::setCustomValues() {}

void CoreConfig::readCoreSection(const LumJson::Value& core) {
  skipCurlGlobalInit_ = JsonUtil::ReadBool(core, "skipCurlGlobalInit", skipCurlGlobalInit_);
  skipSslCryptoInit_ = JsonUtil::ReadBool(core, "skipSslCryptoInit", skipSslCryptoInit_);
  persistentPath_ = JsonUtil::ReadText(core, "persistentPath", persistentPath_);
  temporaryPath_ = JsonUtil::ReadText(core, "temporaryPath", temporaryPath_);
  enableSwVersionSimulation_ =
      JsonUtil::ReadBool(core, "enableSwVersionSimulation", enableSwVersionSimulation_);
  initialSimulatedSwVersion_ =
      JsonUtil::ReadText(core, "initialSimulatedSwVersion", initialSimulatedSwVersion_);
}

void CoreConfig::HandOverLoggers(const LumJson::Value& core) {
  if (core.isObject() && core["loggers"].isArray()) {
    Logger::Instance().initialize(core["loggers"]);
  }
}

void CoreConfig::HandOverInjectors(const LumJson::Value& core) {
  if (core.isObject() && core["injectors"].isArray()) {
    Injector::Instance().initialize(core["injectors"]);
  }
}

std::string CoreConfig::NormalizeDirectory(const std::string& path, const char* label) {
  if (path.empty()) {
    return path;
  }
  std::string normalized = path;
  if (normalized[0] != '/') {
    char workingDirectory[1024];
    // A working directory too long for the buffer leaves the path relative;
    // the check below then reports it if it does not resolve.
    if (getcwd(workingDirectory, sizeof workingDirectory) != nullptr) {
      normalized = std::string(workingDirectory) + "/" + normalized;
    }
  }
  if (!IsDirectory(normalized)) {
    LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR,
            "%s DIRECTORY %s IS NOT USABLE!", label, normalized.c_str());
  }
  if (normalized.back() != '/') {
    normalized += '/';
  }
  return normalized;
}

void CoreConfig::logStateDebug() const {
  LUM_TRACE(FP::SERVICE_CORE);
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->skipCurlGlobalInit           : %s", BoolText(skipCurlGlobalInit_));
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->skipSslCryptoInit            : %s", BoolText(skipSslCryptoInit_));
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->persistentPath               : %s", persistentPath_.c_str());
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->temporaryPath                : %s", temporaryPath_.c_str());
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->enableSwVersionSimulation    : %s", BoolText(enableSwVersionSimulation_));
  LUM_LOG(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
          "config->initialSimulatedSwVersion    : %s", initialSimulatedSwVersion_.c_str());
}

}  // namespace Core
}  // namespace Lum
